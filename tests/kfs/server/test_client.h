// tests/kfs/server/test_client.h: the server tests' side of the wire: the
// client library's own sessions, pointed at one kfsd, and a data folder with
// two users served on 127.0.0.1.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "kfs/client/kfs.h"
#include "tests/support/kfsd_process.h"
#include "tests/support/test_support.h"

using Bytes = std::vector<uint8_t>;

struct session_free {
  void operator()(kfs_session* s) const;  // disconnects too
};
using session_ptr = std::unique_ptr<kfs_session, session_free>;

// A session of uid in agent mode proving key, whose only server is
// 127.0.0.1:port; not connected yet (kfs_session_open logs in).
session_ptr kfsd_session(int port, uint32_t uid, const uint8_t key[32],
                         int mode = KFS_MODE_AES);

// KFS_USER_LOCK of uid; a release (flags 1, or 5 to store s->agent_time).
uint32_t lock(kfs_session* s, uint32_t uid);
uint32_t release(kfs_session* s, uint8_t flags);

// True when the peer of sock closes the connection within about 5 s;
// whatever it sent first is dropped.
bool closed_by_server(int sock);

// Account keys of the two users every fixture has: 7 "alice", 8 "bob".
extern const uint8_t kKey7[32];
extern const uint8_t kKey8[32];

// A data folder in a fresh temporary directory with users 7 and 8, served
// with 1 KiB blocks.
class KfsdFixture : public TempDirTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::string data_dir() const { return dir() + "/data"; }
  int port() const { return server_.port(); }

  kfsd_process server_;
};
