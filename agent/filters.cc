#include "agent/filters.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

#include <openssl/evp.h>
#include <zlib.h>

#include "lib/alloc.h"
#include "lib/scoped.h"

namespace {

// One input buffer per buffering stage: big enough that deflate and the
// cipher get long runs per call, small enough that a chain stays at 16 KiB.
constexpr uint32_t BUFFER_SIZE = 8192;
// The level is part of what the service stores: the same block must always
// compress to the same bytes.
constexpr int DEFLATE_LEVEL = 9;
constexpr uint32_t AES_BLOCK = 16;
constexpr uint8_t ZERO_IV[AES_BLOCK] = {};
static_assert(BUFFER_SIZE % AES_BLOCK == 0);

// What one deflate() call means for the stage.
enum : int { DEFLATE_MORE = 0, DEFLATE_DONE = 1 };

int from_zlib(int rc) {
  switch (rc) {
    case Z_OK:
      return DEFLATE_MORE;
    case Z_STREAM_END:
      return DEFLATE_DONE;
    default:
      // Z_BUF_ERROR (no progress was possible) or Z_STREAM_ERROR.
      return STREAM_ERROR;
  }
}

// OpenSSL answers 1 for success.
int from_openssl(int rc) {
  return rc == 1 ? 0 : STREAM_ERROR;
}

void end_deflate(z_stream* z) {
  if (z != nullptr) {
    deflateEnd(z);  // also safe on a stream whose init failed
    free(z);
  }
}

struct deflate_stream_deleter {
  void operator()(z_stream* z) const { end_deflate(z); }
};
using deflate_stream_ptr = std::unique_ptr<z_stream, deflate_stream_deleter>;

// A level-9 compressor holds about 300 KiB. A backup builds one chain per
// block, mostly for small files, and allocating that state afresh each time
// made the C library grow and trim the heap and fault the pages in again
// for every block. The last closed compressor is kept and reset instead;
// a reset stream produces exactly what a fresh one would.
thread_local deflate_stream_ptr spare_deflate;

deflate_stream_ptr take_deflate() {
  if (spare_deflate != nullptr && deflateReset(spare_deflate.get()) == Z_OK) {
    return std::move(spare_deflate);
  }
  spare_deflate.reset();
  deflate_stream_ptr z(static_cast<z_stream*>(xzalloc(sizeof(z_stream))));
  if (deflateInit(z.get(), DEFLATE_LEVEL) != Z_OK) {
    return nullptr;
  }
  return z;
}

void give_back_deflate(z_stream* z) {
  if (z == nullptr) {
    return;
  }
  if (spare_deflate == nullptr) {
    spare_deflate.reset(z);
  } else {
    end_deflate(z);
  }
}

// Holds an upstream that a failing open must not leak.
struct chain_deleter {
  void operator()(filter_stream* s) const { filter_chain_free(s); }
};
using chain_ptr = std::unique_ptr<filter_stream, chain_deleter>;

filter_stream* new_stage(filter_read_fn read, filter_close_fn close) {
  filter_stream* s =
      static_cast<filter_stream*>(xzalloc(sizeof(filter_stream)));
  s->read = read;
  s->close = close;
  return s;
}

// For the deflate and AES stages, which both pull into one input buffer.
filter_stream* new_buffered_stage(filter_read_fn read, filter_close_fn close,
                                  chain_ptr upstream, void* engine) {
  filter_stream* s = new_stage(read, close);
  s->upstream = upstream.release();
  s->engine = engine;
  s->capacity = BUFFER_SIZE;
  s->buffer = xmalloc(BUFFER_SIZE);
  return s;
}

uint8_t* input(const filter_stream* s) {
  return static_cast<uint8_t*>(s->buffer);
}

void close_upstream(filter_stream* s) {
  filter_chain_free(s->upstream);
  s->upstream = nullptr;
}

// Tops up the input buffer with one upstream read. Returns 0, or the
// upstream's failure; an upstream that yields nothing counts as an error
// unless there is still input to work on.
int refill(filter_stream* s) {
  if (s->held == s->capacity || s->upstream_ended) {
    return 0;
  }
  int32_t n =
      s->upstream->read(s->upstream, input(s) + s->held, s->capacity - s->held);
  if (n == STREAM_END) {
    s->upstream_ended = true;
    return 0;
  }
  if (n < 0) {
    return n;
  }
  if (n == 0) {
    return s->held > 0 ? 0 : STREAM_ERROR;
  }
  s->held += static_cast<uint32_t>(n);
  return 0;
}

// Drops n used bytes from the front of the input buffer. Deflate and the
// cipher mostly use all of it, and then there is nothing to move.
void consume(filter_stream* s, uint32_t n) {
  s->held -= n;
  if (n > 0 && s->held > 0) {
    memmove(input(s), input(s) + n, s->held);
  }
}

// The descriptor rides in the engine slot: the file source has no state
// beyond it, and close() must not free anything.
int fd_of(const filter_stream* s) {
  return static_cast<int>(reinterpret_cast<intptr_t>(s->engine));
}

int32_t file_source_read(filter_stream* s, uint8_t* buffer, uint32_t length) {
  if (s->upstream_ended) {
    return STREAM_END;
  }
  ssize_t n = ::read(fd_of(s), buffer, std::min(length, s->remaining));
  if (n < 0) {
    return STREAM_ERROR;
  }
  uint32_t got = static_cast<uint32_t>(n);
  s->remaining -= got;
  if (s->buffer != nullptr) {
    *static_cast<uint64_t*>(s->buffer) += got;
  }
  if (got == 0) {
    s->upstream_ended = true;
    return STREAM_END;
  }
  return static_cast<int32_t>(got);
}

void file_source_close(filter_stream*) {}

int32_t md5_read(filter_stream* s, uint8_t* buffer, uint32_t length) {
  if (s->upstream_ended) {
    return STREAM_END;
  }
  EVP_MD_CTX* md = static_cast<EVP_MD_CTX*>(s->engine);
  int32_t n = s->upstream->read(s->upstream, buffer, length);
  if (n > 0) {
    if (from_openssl(EVP_DigestUpdate(md, buffer, static_cast<size_t>(n))) !=
        0) {
      return STREAM_ERROR;
    }
    return n;
  }
  if (n == STREAM_END || n == STREAM_ERROR) {
    // The digest then covers exactly what went through, which after a read
    // error is what the caller decides on; keep the read's errno for it.
    int saved_errno = errno;
    s->upstream_ended = true;
    if (from_openssl(EVP_DigestFinal_ex(md, static_cast<uint8_t*>(s->buffer),
                                        nullptr)) != 0) {
      return STREAM_ERROR;
    }
    errno = saved_errno;
  }
  return n;
}

void md5_close(filter_stream* s) {
  close_upstream(s);
  EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(s->engine));
  s->engine = nullptr;
}

int32_t deflate_read(filter_stream* s, uint8_t* buffer, uint32_t length) {
  if (s->finished) {
    return STREAM_END;
  }
  if (length == 0) {
    return 0;
  }
  z_stream* z = static_cast<z_stream*>(s->engine);
  int rc = refill(s);
  if (rc < 0) {
    return rc;
  }
  z->next_out = buffer;
  z->avail_out = length;
  for (;;) {
    // refill leaves input held or the upstream ended, so deflate always has
    // something to do and never answers Z_BUF_ERROR here.
    z->next_in = input(s);
    z->avail_in = s->held;
    int step = from_zlib(deflate(z, s->upstream_ended ? Z_FINISH : Z_NO_FLUSH));
    consume(s, s->held - z->avail_in);
    if (step == STREAM_ERROR) {
      return STREAM_ERROR;
    }
    if (step == DEFLATE_DONE) {
      s->finished = true;
      return static_cast<int32_t>(length - z->avail_out);
    }
    if (z->avail_out == 0) {
      return static_cast<int32_t>(length);
    }
    rc = refill(s);
    if (rc < 0) {
      return rc;
    }
  }
}

void deflate_close(filter_stream* s) {
  close_upstream(s);
  give_back_deflate(static_cast<z_stream*>(s->engine));
  s->engine = nullptr;
  free(s->buffer);
  s->buffer = nullptr;
}

int32_t aes_read(filter_stream* s, uint8_t* buffer, uint32_t length) {
  if (s->finished) {
    return STREAM_END;
  }
  if (length == 0) {
    return 0;
  }
  EVP_CIPHER_CTX* c = static_cast<EVP_CIPHER_CTX*>(s->engine);
  uint8_t* out = buffer;
  uint32_t room = length;
  for (;;) {
    int rc = refill(s);
    if (rc < 0) {
      return rc;
    }
    if (s->held > 0) {
      // The cipher may add up to a block less one byte that it kept back
      // from earlier input, so only that much less than the room is sure to
      // fit; with less than a block of room nothing is.
      uint32_t n = s->held;
      if (n + (AES_BLOCK - 1) > room) {
        if (room < AES_BLOCK) {
          return static_cast<int32_t>(length - room);
        }
        n = room - (AES_BLOCK - 1);
      }
      int produced = 0;
      if (from_openssl(EVP_EncryptUpdate(c, out, &produced, input(s),
                                         static_cast<int>(n))) != 0) {
        return STREAM_ERROR;
      }
      consume(s, n);
      out += produced;
      room -= static_cast<uint32_t>(produced);
    }
    if (s->held == 0 && s->upstream_ended) {
      break;
    }
    if (room == 0) {
      return static_cast<int32_t>(length);
    }
  }
  // The padding block is a whole block; without room for it, it comes on
  // the next read.
  if (room < AES_BLOCK) {
    return static_cast<int32_t>(length - room);
  }
  int produced = 0;
  if (from_openssl(EVP_EncryptFinal_ex(c, out, &produced)) != 0) {
    return STREAM_ERROR;
  }
  s->finished = true;
  return static_cast<int32_t>(length - room) + produced;
}

void aes_close(filter_stream* s) {
  close_upstream(s);
  EVP_CIPHER_CTX_free(static_cast<EVP_CIPHER_CTX*>(s->engine));
  s->engine = nullptr;
  free(s->buffer);
  s->buffer = nullptr;
}

}  // namespace

filter_stream* file_source_open(int fd, int64_t offset, uint32_t length,
                                uint64_t* counter) {
  if (lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    // Not checked: a bad descriptor or offset fails or ends the first read,
    // which is where the caller looks.
  }
  filter_stream* s = new_stage(file_source_read, file_source_close);
  s->engine = reinterpret_cast<void*>(static_cast<intptr_t>(fd));
  s->remaining = length;
  s->buffer = counter;
  return s;
}

filter_stream* md5_filter_open(filter_stream* upstream,
                               uint8_t digest_out[16]) {
  if (upstream == nullptr) {
    return nullptr;
  }
  chain_ptr up(upstream);
  md_ctx_ptr md(EVP_MD_CTX_new());
  if (md == nullptr ||
      from_openssl(EVP_DigestInit_ex(md.get(), EVP_md5(), nullptr)) != 0) {
    return nullptr;
  }
  filter_stream* s = new_stage(md5_read, md5_close);
  s->upstream = up.release();
  s->engine = md.release();
  s->buffer = digest_out;
  return s;
}

filter_stream* deflate_filter_open(filter_stream* upstream) {
  if (upstream == nullptr) {
    return nullptr;
  }
  chain_ptr up(upstream);
  deflate_stream_ptr z = take_deflate();
  if (z == nullptr) {
    return nullptr;
  }
  return new_buffered_stage(deflate_read, deflate_close, std::move(up),
                            z.release());
}

filter_stream* aes_filter_open(filter_stream* upstream, const uint8_t key[32]) {
  if (upstream == nullptr) {
    return nullptr;
  }
  chain_ptr up(upstream);
  // A zero IV for every block of every file: the service keeps blocks
  // encrypted exactly so, and equal blocks must give equal bytes.
  cipher_ctx_ptr c(EVP_CIPHER_CTX_new());
  if (c == nullptr ||
      from_openssl(EVP_EncryptInit_ex(c.get(), EVP_aes_256_cbc(), nullptr, key,
                                      ZERO_IV)) != 0) {
    return nullptr;
  }
  return new_buffered_stage(aes_read, aes_close, std::move(up), c.release());
}

void filter_chain_free(filter_stream* head) {
  if (head == nullptr) {
    return;
  }
  head->close(head);
  free(head);
}
