// The unframed opening of a connection: the client's greeting, our public
// key, the client's key half sealed with RSA-OAEP, and our key half sent
// back under the client's half. Both halves XORed form the packet key.
#include <string.h>

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "kfs/client/kfs.h"
#include "kfs/server/kfsd_internal.h"
#include "lib/alloc.h"

namespace {

constexpr uint8_t kGreeting[4] = {0x01, 0x30, 0x32, 0x01};
constexpr size_t kSealedSize = 256;  // one RSA-2048 block
// The sealed message: a 6-byte header and a 34-byte body (u8 mode, u8 key
// length, the 32-byte client half).
constexpr size_t kPlainSize = KFS_HEADER_SIZE + 2 + KFS_KEY_SIZE;
static_assert(kPlainSize == 40);

struct pkey_ctx_deleter {
  void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
using pkey_ctx_ptr = std::unique_ptr<EVP_PKEY_CTX, pkey_ctx_deleter>;

// Opens the sealed handshake into plain; false unless it is exactly one
// message of kPlainSize bytes.
bool unseal(EVP_PKEY* key, const uint8_t* sealed, uint8_t* plain) {
  pkey_ctx_ptr ctx(EVP_PKEY_CTX_new(key, nullptr));
  uint8_t out[kSealedSize];
  size_t n = sizeof out;
  // OAEP with its defaults (SHA-1 and MGF1-SHA-1), as the client seals.
  if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
      EVP_PKEY_decrypt(ctx.get(), out, &n, sealed, kSealedSize) != 1 ||
      n != kPlainSize) {
    return false;
  }
  memcpy(plain, out, kPlainSize);
  OPENSSL_cleanse(out, sizeof out);
  return true;
}

}  // namespace

kfs_packet_cipher* kfsd_handshake(kfsd_server* server, int sock) {
  uint8_t greeting[sizeof kGreeting];
  if (sock_read_all(sock, greeting, sizeof greeting) != sizeof greeting ||
      memcmp(greeting, kGreeting, sizeof kGreeting) != 0) {
    return nullptr;
  }
  const std::string& pem = server->public_pem;
  std::string key_text(2, '\0');
  key_text[0] = static_cast<char>(pem.size() >> 8);
  key_text[1] = static_cast<char>(pem.size());
  key_text += pem;
  int64_t key_length = static_cast<int64_t>(key_text.size());
  if (sock_write_all(sock, key_text.data(), key_length) != key_length) {
    return nullptr;
  }

  uint8_t sealed[kSealedSize];
  uint8_t plain[kPlainSize];
  if (sock_read_all(sock, sealed, sizeof sealed) != kSealedSize ||
      !unseal(server->key, sealed, plain)) {
    return nullptr;
  }
  // Header: data_length 34, type 0, sequence 0, status 0.
  const uint8_t header[KFS_HEADER_SIZE] = {0, 34, KFS_SESSION_HANDSHAKE,
                                           0, 0,  0};
  uint8_t mode = plain[KFS_HEADER_SIZE];
  if (memcmp(plain, header, sizeof header) != 0 || mode < 1 || mode > 3 ||
      plain[KFS_HEADER_SIZE + 1] != KFS_KEY_SIZE) {
    OPENSSL_cleanse(plain, sizeof plain);
    return nullptr;
  }
  const uint8_t* client_half = plain + KFS_HEADER_SIZE + 2;
  uint8_t server_half[KFS_KEY_SIZE];
  if (RAND_bytes(server_half, sizeof server_half) != 1) {
    OPENSSL_cleanse(plain, sizeof plain);
    return nullptr;
  }
  kfs_packet_cipher* cipher = kfs_cipher_new(mode, client_half, 0);
  malloc_ptr<kfs_message> reply(
      static_cast<kfs_message*>(xzalloc(sizeof(kfs_message))));
  kfs_body body;
  kfs_body_begin(reply.get(), &body);
  kfs_put_bytes(&body, server_half, sizeof server_half);
  kfs_request_finish(reply.get(), KFS_SESSION_HANDSHAKE + KFS_RESPONSE,
                     body.length);
  bool sent = kfs_packet_send(sock, cipher, reply.get()) == 0;
  uint8_t key[KFS_KEY_SIZE];
  for (size_t i = 0; i < KFS_KEY_SIZE; ++i) {
    key[i] = client_half[i] ^ server_half[i];
  }
  kfs_cipher_set_key(cipher, key);
  OPENSSL_cleanse(key, sizeof key);
  OPENSSL_cleanse(plain, sizeof plain);
  OPENSSL_cleanse(server_half, sizeof server_half);
  OPENSSL_cleanse(reply.get(), sizeof(kfs_message));
  if (!sent) {
    kfs_cipher_free(cipher);
    return nullptr;
  }
  return cipher;
}
