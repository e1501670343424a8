#include "tests/kfs/server/test_client.h"

#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

void session_free::operator()(kfs_session* s) const {
  kfs_session_disconnect(s);
  delete s;
}

session_ptr kfsd_session(int port, uint32_t uid, const uint8_t key[32],
                         int mode) {
  kfs_library_init();
  session_ptr s(new kfs_session);
  kfs_session_init(s.get());
  s->auth_mode = AUTH_MODE_AGENT;
  s->user_id = uid;
  s->encryption_mode = mode;
  unsigned int n = 0;
  EVP_Digest(key, 32, s->token_digest, &n, EVP_sha1(), nullptr);
  std::string hosts = "hosts-" + std::to_string(port);
  write_file(hosts, "127.0.0.1:" + std::to_string(port) + "\n");
  snprintf(s->server_list_path, sizeof s->server_list_path, "%s",
           hosts.c_str());
  return s;
}

uint32_t lock(kfs_session* s, uint32_t uid) {
  kfs_lock_args a = {0, 1, &uid};
  return kfs_user_lock(s, &a);
}

uint32_t release(kfs_session* s, uint8_t flags) {
  kfs_lock_args a = {flags, 0, nullptr};
  return kfs_user_lock(s, &a);
}

bool closed_by_server(int sock) {
  for (int waited = 0; waited < 5000; waited += 100) {
    struct pollfd p = {sock, POLLIN, 0};
    uint8_t buffer[4096];
    if (poll(&p, 1, 100) == 1 && recv(sock, buffer, sizeof buffer, 0) <= 0) {
      return true;
    }
  }
  return false;
}

const uint8_t kKey7[32] = {7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
                           7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7};
const uint8_t kKey8[32] = {8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
                           8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8};

void KfsdFixture::SetUp() {
  TempDirTest::SetUp();
  ASSERT_NO_FATAL_FAILURE(kfsd_init(data_dir()));
  write_key_file("7.key", kKey7);
  write_key_file("8.key", kKey8);
  ASSERT_NO_FATAL_FAILURE(kfsd_add_user(data_dir(), 7, "alice", "7.key"));
  ASSERT_NO_FATAL_FAILURE(kfsd_add_user(data_dir(), 8, "bob", "8.key"));
  ASSERT_TRUE(server_.start(data_dir(), {"--block-size", "1024"}));
}

void KfsdFixture::TearDown() {
  server_.stop();  // before its data folder goes
  TempDirTest::TearDown();
}
