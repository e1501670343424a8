#include "tools/restore/block_decoder.h"

#include <string.h>

#include <openssl/crypto.h>

namespace {

// A read reply carries less than 64 KiB; the cipher may hold back a block.
constexpr size_t kPieceMax = 65536;
constexpr size_t kClearSize = kPieceMax + 32;
constexpr size_t kPlainSize = 65536;

}  // namespace

block_decoder::block_decoder(const uint8_t key[32])
    : cipher_(EVP_CIPHER_CTX_new()),
      clear_(new uint8_t[kClearSize]),
      plain_(new uint8_t[kPlainSize]) {
  memcpy(key_, key, sizeof key_);
  zlib_ready_ = inflateInit(&zlib_) == Z_OK;
}

block_decoder::~block_decoder() {
  OPENSSL_cleanse(key_, sizeof key_);
  if (zlib_ready_) {
    inflateEnd(&zlib_);
  }
}

int block_decoder::begin() {
  static const uint8_t kZeroIv[16] = {};
  if (!cipher_ || !zlib_ready_ ||
      EVP_DecryptInit_ex(cipher_.get(), EVP_aes_256_cbc(), nullptr, key_,
                         kZeroIv) != 1 ||
      inflateReset(&zlib_) != Z_OK) {
    return BLOCK_ERR_MEMORY;
  }
  stream_ended_ = false;
  return BLOCK_OK;
}

int block_decoder::inflate_some(const uint8_t* data, size_t n,
                                const block_sink& sink) {
  if (n == 0) {
    return BLOCK_OK;
  }
  if (stream_ended_) {
    return BLOCK_ERR_DATA;  // bytes behind the end of the deflate stream
  }
  zlib_.next_in = const_cast<uint8_t*>(data);
  zlib_.avail_in = static_cast<uInt>(n);
  do {
    zlib_.next_out = plain_.get();
    zlib_.avail_out = kPlainSize;
    int rc = inflate(&zlib_, Z_NO_FLUSH);
    if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
      return rc == Z_MEM_ERROR ? BLOCK_ERR_MEMORY : BLOCK_ERR_DATA;
    }
    size_t produced = kPlainSize - zlib_.avail_out;
    if (produced > 0 && !sink({plain_.get(), produced})) {
      return BLOCK_ERR_SINK;
    }
    if (rc == Z_STREAM_END) {
      stream_ended_ = true;
      return zlib_.avail_in == 0 ? BLOCK_OK : BLOCK_ERR_DATA;
    }
    if (rc == Z_BUF_ERROR && produced == 0) {
      break;  // needs more input
    }
  } while (zlib_.avail_in > 0 || zlib_.avail_out == 0);
  return BLOCK_OK;
}

int block_decoder::feed(std::span<const uint8_t> piece,
                        const block_sink& sink) {
  while (!piece.empty()) {
    size_t n = std::min(piece.size(), kPieceMax);
    int out = 0;
    if (EVP_DecryptUpdate(cipher_.get(), clear_.get(), &out, piece.data(),
                          static_cast<int>(n)) != 1) {
      return BLOCK_ERR_CIPHER;
    }
    int rc = inflate_some(clear_.get(), static_cast<size_t>(out), sink);
    if (rc != BLOCK_OK) {
      return rc;
    }
    piece = piece.subspan(n);
  }
  return BLOCK_OK;
}

int block_decoder::finish(const block_sink& sink) {
  int out = 0;
  if (EVP_DecryptFinal_ex(cipher_.get(), clear_.get(), &out) != 1) {
    return BLOCK_ERR_CIPHER;
  }
  int rc = inflate_some(clear_.get(), static_cast<size_t>(out), sink);
  if (rc != BLOCK_OK) {
    return rc;
  }
  return stream_ended_ ? BLOCK_OK : BLOCK_ERR_DATA;
}

const char* block_error_text(int code) {
  switch (code) {
    case BLOCK_OK:
      return "no error";
    case BLOCK_ERR_CIPHER:
      return "it does not decrypt";
    case BLOCK_ERR_DATA:
      return "it does not inflate";
    case BLOCK_ERR_SINK:
      return "its data could not be used";
    case BLOCK_ERR_MEMORY:
      return "out of memory";
  }
  return "unknown error";
}
