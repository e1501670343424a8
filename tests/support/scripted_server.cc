#include "tests/support/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <zlib.h>

#include "kfs/client/kfs.h"

namespace {

// The keys the server can show, made once per process.
struct key_set {
  EVP_PKEY* rsa;  // the real one: RSA-2048
  std::string rsa_pem, rsa_1024_pem, ec_pem;
};

std::string pem_of(EVP_PKEY* key) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PUBKEY(bio, key);
  char* text = nullptr;
  long n = BIO_get_mem_data(bio, &text);
  std::string pem(text, static_cast<size_t>(n));
  BIO_free(bio);
  return pem;
}

const key_set& keys() {
  static const key_set set = [] {
    EVP_PKEY* small = EVP_RSA_gen(1024);
    EVP_PKEY* ec = EVP_EC_gen("P-256");
    key_set k = {EVP_RSA_gen(2048), "", pem_of(small), pem_of(ec)};
    k.rsa_pem = pem_of(k.rsa);
    EVP_PKEY_free(small);
    EVP_PKEY_free(ec);
    return k;
  }();
  return set;
}

std::string be16(uint32_t v) {
  return {static_cast<char>(v >> 8), static_cast<char>(v)};
}

std::string be32(uint32_t v) {
  return be16(v >> 16) + be16(v & 0xFFFF);
}

// A packet as the protocol frames it, enciphered here with EVP directly
// rather than by the client's own code, so that the two are checked
// against each other.
std::string packet(int mode, const uint8_t* key, uint8_t type,
                   uint16_t sequence, uint8_t status, const std::string& body,
                   bool bad_crc) {
  std::string plain = be16(static_cast<uint32_t>(body.size())) +
                      static_cast<char>(type) + be16(sequence) +
                      static_cast<char>(status) + body;
  std::string cipher_text(plain.size() + 16, '\0');
  const uint8_t iv[16] = {};
  EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
  int n = 0, last = 0;
  EVP_EncryptInit_ex(c,
                     mode == KFS_MODE_AES ? EVP_aes_256_cbc() : EVP_enc_null(),
                     nullptr, key, iv);
  auto* out = reinterpret_cast<uint8_t*>(cipher_text.data());
  EVP_EncryptUpdate(c, out, &n, reinterpret_cast<const uint8_t*>(plain.data()),
                    static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(c, out + n, &last);
  EVP_CIPHER_CTX_free(c);
  cipher_text.resize(static_cast<size_t>(n + last));
  uint32_t crc = static_cast<uint32_t>(
      crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(plain.data()),
            static_cast<uInt>(plain.size())));
  return be16(static_cast<uint32_t>(cipher_text.size())) +
         be32(bad_crc ? crc + 1 : crc) + cipher_text;
}

bool send_all(int sock, const std::string& bytes) {
  auto n = static_cast<int64_t>(bytes.size());
  return sock_write_all(sock, bytes.data(), n) == n;
}

// The smallest body each request takes: all zeros parse as an empty listing,
// a login without redirect or servers, a stat or read of nothing. An open
// gets a handle and as many 4 KiB blocks as the file's size needs.
std::string usual_body(uint8_t type, const std::string& request) {
  if (type != KFS_FILE_WOPEN || request.size() < 7) {
    return std::string(46, '\0');
  }
  auto byte = [&](size_t i) { return static_cast<uint8_t>(request[i]); };
  size_t at = 7 + (byte(5) << 8 | byte(6));  // flags, mtime, str16 path
  uint64_t size = 0;
  for (size_t i = at; i < at + 8 && i < request.size(); ++i) {
    size = size << 8 | byte(i);
  }
  uint64_t blocks = size == 0 ? 1 : (size + 4095) / 4096;
  return std::string(1, '\x01') +
         be16(blocks > 0xFFFF ? 0xFFFF : static_cast<uint32_t>(blocks)) +
         be32(4096) + be16(0);
}

}  // namespace

bool scripted_server::start(std::vector<script_step> script) {
  stop();
  keys();  // made before a client waits on them
  script_ = std::move(script);
  stopping_ = false;
  connections_ = 0;
  requests_seen_ = 0;
  requests_.clear();
  malformed_.clear();
  listener_ = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (listener_ < 0 ||
      bind(listener_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(listener_, 4) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    stop();
    return false;
  }
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { run(); });
  return true;
}

void scripted_server::stop() {
  stopping_ = true;
  if (listener_ >= 0) {
    shutdown(listener_, SHUT_RDWR);
  }
  int client = client_;
  if (client >= 0) {
    shutdown(client, SHUT_RDWR);
  }
  if (thread_.joinable()) {
    thread_.join();
  }
  if (listener_ >= 0) {
    close(listener_);
    listener_ = -1;
  }
}

std::vector<seen_request> scripted_server::requests() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return requests_;
}

std::string scripted_server::malformed() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return malformed_;
}

void scripted_server::run() {
  while (!stopping_) {
    int sock = accept(listener_, nullptr, nullptr);
    if (sock < 0) {
      return;
    }
    client_ = sock;
    if (!stopping_) {
      serve(sock, connections_++);
    }
    client_ = -1;
    close(sock);
  }
}

const script_step* scripted_server::step(script_fault first, script_fault last,
                                         int at) const {
  for (const script_step& s : script_) {
    if (s.at == at && s.fault >= first && s.fault <= last) {
      return &s;
    }
  }
  return nullptr;
}

void scripted_server::serve(int sock, int connection) {
  uint8_t greeting[4];
  if (sock_read_all(sock, greeting, sizeof greeting) != sizeof greeting) {
    return;
  }
  const script_step* opening =
      step(script_fault::key_damaged, script_fault::hello_status, connection);
  script_fault fault = opening != nullptr ? opening->fault : script_fault::none;
  std::string key = fault == script_fault::key_not_rsa    ? keys().ec_pem
                    : fault == script_fault::key_rsa_1024 ? keys().rsa_1024_pem
                    : fault == script_fault::key_damaged
                        ? "-----BEGIN PUBLIC KEY-----\nbm90IGEga2V5\n"
                          "-----END PUBLIC KEY-----\n"
                        : keys().rsa_pem;
  if (fault == script_fault::key_padded) {
    key.resize(opening->value, '\n');
  }
  // After a key it cannot use, a client sends nothing more: the read below
  // then waits for it to hang up, as a real server's would.
  uint8_t sealed[256];
  if (!send_all(sock, be16(static_cast<uint32_t>(key.size())) + key) ||
      sock_read_all(sock, sealed, sizeof sealed) != sizeof sealed) {
    return;
  }
  uint8_t plain[256];
  size_t plain_length = sizeof plain;
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(keys().rsa, nullptr);
  bool opened =
      EVP_PKEY_decrypt_init(ctx) == 1 &&
      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) == 1 &&
      EVP_PKEY_decrypt(ctx, plain, &plain_length, sealed, sizeof sealed) == 1 &&
      plain_length == 40;
  EVP_PKEY_CTX_free(ctx);
  if (!opened) {
    return;
  }
  int mode = plain[6];
  const uint8_t* client_half = plain + 8;
  uint8_t server_half[32], key_bytes[32];
  for (int i = 0; i < 32; ++i) {
    server_half[i] = static_cast<uint8_t>(i * 3 + 1);
    key_bytes[i] = client_half[i] ^ server_half[i];
  }
  std::string hello(reinterpret_cast<char*>(server_half),
                    fault == script_fault::hello_short ? 31 : 32);
  uint8_t hello_status = fault == script_fault::hello_status
                             ? static_cast<uint8_t>(opening->value)
                             : 0;
  if (!send_all(sock, packet(mode, client_half, KFS_RESPONSE, 0, hello_status,
                             hello, false))) {
    return;
  }
  std::unique_ptr<kfs_packet_cipher, void (*)(kfs_packet_cipher*)> cipher(
      kfs_cipher_new(mode, key_bytes, 0), kfs_cipher_free);
  auto in = std::make_unique<kfs_message>();
  uint8_t last_status = 0;  // of the last reply the client could read
  while (kfs_packet_recv(sock, cipher.get(), in.get()) == 0) {
    int n = requests_seen_++;
    std::string body(reinterpret_cast<char*>(in->buffer), in->data_length);
    {
      std::lock_guard<std::mutex> hold(mutex_);
      requests_.push_back(
          {connection, in->type, in->sequence, in->status, body});
      if (in->sequence != 0 || in->type == 0 || in->type >= KFS_RESPONSE ||
          in->status != last_status) {
        char line[100];
        snprintf(line, sizeof line,
                 "request %d (type %d): sequence %d, status %d after %d\n", n,
                 in->type, in->sequence, in->status, last_status);
        malformed_ += line;
      }
    }
    bool no_ack = in->type == KFS_FILE_WRITE && body.size() > 1 &&
                  (body[1] & KFS_WRITE_NO_ACK) != 0;
    if (in->type == KFS_FILE_CLOSE || no_ack) {
      continue;
    }
    uint8_t type = static_cast<uint8_t>(in->type + KFS_RESPONSE);
    uint16_t sequence = 0;
    uint8_t status = 0;
    std::string reply = usual_body(in->type, body);
    if (const script_step* b =
            step(script_fault::reply_body, script_fault::reply_body, n)) {
      reply = b->body;
    }
    const script_step* s =
        step(script_fault::reply_type, script_fault::reply_drop, n);
    script_fault f = s != nullptr ? s->fault : script_fault::none;
    uint8_t value = s != nullptr ? static_cast<uint8_t>(s->value) : 0;
    if (f == script_fault::reply_drop) {
      return;
    }
    if (f == script_fault::reply_type) {
      type = value;
    } else if (f == script_fault::reply_sequence) {
      sequence = static_cast<uint16_t>(s->value);
    } else if (f == script_fault::reply_status) {
      status = value;
    }
    bool bad_crc = f == script_fault::reply_bad_crc;
    std::string bytes =
        packet(mode, key_bytes, type, sequence, status, reply, bad_crc);
    if (f == script_fault::reply_trailing) {
      bytes.append(s->value, '\0');
    }
    if (!bad_crc) {
      last_status = status;
    }
    if (!send_all(sock, bytes)) {
      return;
    }
  }
}
