// Packets on the socket: encipherment with a fresh CBC chain per packet,
// the CRC-32 of the plain message, framing, and the socket helpers.
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <zlib.h>

#include "kfs/client/kfs.h"
#include "kfs/client/kfs_internal.h"
#include "lib/alloc.h"

// Header and cipher text go out in one write, so they must be adjacent.
static_assert(offsetof(kfs_packet_cipher, cipher_text) ==
              offsetof(kfs_packet_cipher, header) + KFS_HEADER_SIZE);

namespace {

constexpr uint32_t kMaxCipherLength = 65536;  // a length field of 0

EVP_CIPHER_CTX* new_cipher_ctx() {
  EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
  if (c == nullptr) {
    alloc_exhausted();
  }
  return c;
}

// (Re)starts both directions with the context's key and zero iv.
void restart(kfs_packet_cipher* ctx, EVP_CIPHER_CTX* c, bool encrypt) {
  // Only a broken crypto library fails here; the checksum of the next
  // packet then fails too, so the failure is not lost.
  if (EVP_CipherInit_ex(c, ctx->cipher, nullptr, ctx->key, ctx->iv,
                        encrypt ? 1 : 0) != 1) {
  }
}

void set_cork(int sock, int on) {
  // Corking only batches segments; a socket that refuses it still works.
  if (setsockopt(sock, IPPROTO_TCP, TCP_CORK, &on, sizeof on) != 0) {
  }
}

uint32_t plain_crc(const uint8_t* data, uint32_t n) {
  return static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), data, n));
}

// Reads and drops n bytes, to keep the stream in step after a packet that
// cannot be used.
void discard(int sock, uint8_t* scratch, size_t scratch_size, uint32_t n) {
  while (n > 0) {
    uint32_t part = static_cast<uint32_t>(std::min<size_t>(n, scratch_size));
    if (sock_read_all(sock, scratch, part) != part) {
      return;
    }
    n -= part;
  }
}

uint32_t decode(kfs_packet_cipher* ctx, const uint8_t* cipher_text,
                uint32_t cipher_length, uint32_t expected_crc,
                kfs_message* message) {
  // Deciphered into the context and copied only once checked, so a bad
  // packet leaves the record as it was and a long one cannot overrun it.
  int part = 0;
  int last = 0;
  int ok = EVP_DecryptUpdate(ctx->decrypt_ctx, ctx->cipher_text, &part,
                             cipher_text, static_cast<int>(cipher_length));
  if (ok == 1 && EVP_DecryptFinal_ex(ctx->decrypt_ctx, ctx->cipher_text + part,
                                     &last) != 1) {
    last = 0;  // bad padding: the checksum below rejects the packet
  }
  restart(ctx, ctx->decrypt_ctx, false);
  if (ok != 1) {
    return ERR_SCKREAD;
  }
  uint32_t plain_length = static_cast<uint32_t>(part + last);
  if (plain_crc(ctx->cipher_text, plain_length) != expected_crc ||
      plain_length < KFS_HEADER_SIZE || plain_length > KFS_BUFFER_SIZE ||
      get_be16(ctx->cipher_text) > plain_length - KFS_HEADER_SIZE) {
    return ERR_SCKREAD;
  }
  memcpy(message->buffer, ctx->cipher_text, plain_length);
  decode_header(message);
  memmove(message->buffer, message->buffer + KFS_HEADER_SIZE,
          message->data_length);
  return 0;
}

uint32_t receive(int sock, kfs_packet_cipher* ctx, kfs_message* message,
                 uint8_t* raw, size_t raw_size, uint32_t* raw_length) {
  if (sock_read_all(sock, ctx->header, KFS_HEADER_SIZE) != KFS_HEADER_SIZE) {
    return ERR_SCKREAD;
  }
  uint32_t cipher_length = get_be16(ctx->header);
  if (cipher_length == 0) {
    cipher_length = kMaxCipherLength;
  }
  uint32_t expected_crc = get_be32(ctx->header + 2);
  if (raw_length != nullptr) {
    *raw_length = KFS_HEADER_SIZE + cipher_length;
  }
  // No plain message that fits the record enciphers to more than this.
  if (cipher_length > KFS_CIPHER_TEXT_SIZE) {
    discard(sock, ctx->cipher_text, sizeof ctx->cipher_text, cipher_length);
    return ERR_SCKREAD;
  }
  if (sock_read_all(sock, ctx->cipher_text, cipher_length) != cipher_length) {
    return ERR_SCKREAD;
  }
  if (raw != nullptr) {
    size_t n = std::min<size_t>(raw_size, KFS_HEADER_SIZE + cipher_length);
    memcpy(raw, ctx->header, n);
  }
  return decode(ctx, ctx->cipher_text, cipher_length, expected_crc, message);
}

}  // namespace

uint32_t kfs_packet_decode(kfs_packet_cipher* ctx, const uint8_t* packet,
                           size_t n, kfs_message* message) {
  if (n < KFS_HEADER_SIZE) {
    return ERR_SCKREAD;
  }
  uint32_t cipher_length = get_be16(packet);
  if (cipher_length == 0) {
    cipher_length = kMaxCipherLength;
  }
  if (n != KFS_HEADER_SIZE + cipher_length ||
      cipher_length > KFS_CIPHER_TEXT_SIZE) {
    return ERR_SCKREAD;
  }
  return decode(ctx, packet + KFS_HEADER_SIZE, cipher_length,
                get_be32(packet + 2), message);
}

kfs_packet_cipher* kfs_cipher_new(int mode, const uint8_t key[KFS_KEY_SIZE],
                                  uint8_t cork) {
  auto* ctx =
      static_cast<kfs_packet_cipher*>(xzalloc(sizeof(kfs_packet_cipher)));
  ctx->cork = cork;
  ctx->cipher = mode == KFS_MODE_AES ? EVP_aes_256_cbc() : EVP_enc_null();
  memcpy(ctx->key, key, KFS_KEY_SIZE);
  ctx->decrypt_ctx = new_cipher_ctx();
  ctx->encrypt_ctx = new_cipher_ctx();
  restart(ctx, ctx->decrypt_ctx, false);
  restart(ctx, ctx->encrypt_ctx, true);
  return ctx;
}

void kfs_cipher_set_key(kfs_packet_cipher* ctx,
                        const uint8_t key[KFS_KEY_SIZE]) {
  memcpy(ctx->key, key, KFS_KEY_SIZE);
  restart(ctx, ctx->decrypt_ctx, false);
  restart(ctx, ctx->encrypt_ctx, true);
}

int kfs_cipher_get_key(const kfs_packet_cipher* ctx, uint8_t* out) {
  int n = EVP_CIPHER_get_key_length(ctx->cipher);
  memcpy(out, ctx->key, static_cast<size_t>(n));
  return n;
}

int kfs_cipher_get_iv(const kfs_packet_cipher* ctx, uint8_t* out) {
  int n = EVP_CIPHER_get_iv_length(ctx->cipher);
  memcpy(out, ctx->iv, static_cast<size_t>(n));
  return n;
}

void kfs_cipher_free(kfs_packet_cipher* ctx) {
  if (ctx == nullptr) {
    return;
  }
  EVP_CIPHER_CTX_free(ctx->decrypt_ctx);
  EVP_CIPHER_CTX_free(ctx->encrypt_ctx);
  free(ctx);
}

uint32_t kfs_packet_send(int sock, kfs_packet_cipher* ctx,
                         kfs_message* message) {
  if (message->data_length > KFS_MAX_BODY) {
    return ERR_DATAMAX;
  }
  uint32_t plain_length = message->data_length + KFS_HEADER_SIZE;
  int part = 0;
  int last = 0;
  int ok = EVP_EncryptUpdate(ctx->encrypt_ctx, ctx->cipher_text, &part,
                             message->buffer, static_cast<int>(plain_length));
  if (ok == 1) {
    ok = EVP_EncryptFinal_ex(ctx->encrypt_ctx, ctx->cipher_text + part, &last);
  }
  // Every packet starts a fresh chain from the zero iv.
  restart(ctx, ctx->encrypt_ctx, true);
  if (ok != 1) {
    return ERR_SCKWRITE;
  }
  uint32_t cipher_length = static_cast<uint32_t>(part + last);
  put_be16(ctx->header, static_cast<uint16_t>(cipher_length));
  put_be32(ctx->header + 2, plain_crc(message->buffer, plain_length));

  if (ctx->cork != 0) {
    set_cork(sock, 1);
  }
  int64_t total = KFS_HEADER_SIZE + cipher_length;
  bool sent = sock_write_all(sock, ctx->header, total) == total;
  if (ctx->cork != 0 && sent) {
    set_cork(sock, 0);
  }
  if (!sent) {
    return ERR_SCKWRITE;
  }
  return 0;
}

uint32_t kfs_packet_recv(int sock, kfs_packet_cipher* ctx,
                         kfs_message* message) {
  return receive(sock, ctx, message, nullptr, 0, nullptr);
}

uint32_t kfs_packet_recv_raw(int sock, kfs_packet_cipher* ctx,
                             kfs_message* message, uint8_t* raw,
                             size_t raw_size, uint32_t* raw_length) {
  return receive(sock, ctx, message, raw, raw_size, raw_length);
}

int64_t sock_read_all(int sock, void* buffer, int64_t n) {
  if (n < 1) {
    return 0;
  }
  auto* p = static_cast<uint8_t*>(buffer);
  for (int64_t done = 0; done < n;) {
    ssize_t got = recv(sock, p + done, static_cast<size_t>(n - done), 0);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return -1;
    }
    done += got;
  }
  return n;
}

namespace {

template <typename Write>
int64_t write_all(const void* buffer, int64_t n, Write write_some) {
  if (n < 1) {
    return 0;
  }
  auto* p = static_cast<const uint8_t*>(buffer);
  for (int64_t done = 0; done < n;) {
    ssize_t put = write_some(p + done, static_cast<size_t>(n - done));
    if (put < 0 && errno != EINTR) {
      return -1;
    }
    if (put > 0) {
      done += put;
    }
  }
  return n;
}

}  // namespace

int64_t sock_write_all(int sock, const void* buffer, int64_t n) {
  // MSG_NOSIGNAL: a peer that has gone away is an error result, not the
  // end of the process.
  return write_all(buffer, n, [sock](const uint8_t* p, size_t len) {
    return send(sock, p, len, MSG_NOSIGNAL);
  });
}

int64_t fd_write_all(int fd, const void* buffer, int64_t n) {
  return write_all(buffer, n, [fd](const uint8_t* p, size_t len) {
    return write(fd, p, len);
  });
}

int sock_is_idle(int sock) {
  if (sock < 0) {
    return 0;
  }
  struct pollfd p = {sock, POLLIN, 0};
  return poll(&p, 1, 0) == 0 ? 1 : 0;
}

int sock_connect(const char* host, uint16_t port) {
  if (host == nullptr || host[0] == '\0' || port == 0) {
    errno = EINVAL;
    return -1;
  }
  struct addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
    return -1;
  }
  struct sockaddr_in addr;
  memcpy(&addr, found->ai_addr, sizeof addr);
  freeaddrinfo(found);
  addr.sin_port = htons(port);

  int sock = socket(AF_INET, SOCK_STREAM, 0);
  if (sock < 0) {
    return -1;
  }
  // Requests without a reply (block data, end block) are followed by small
  // ones; Nagle's rule would hold those until the server's delayed
  // acknowledgement, about 40 ms per block.
  int on = 1;
  if (setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    // Only slower, never wrong.
  }
  if (connect(sock, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) !=
      0) {
    int saved = errno;
    close(sock);
    errno = saved;
    return -1;
  }
  return sock;
}
