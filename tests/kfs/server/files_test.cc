// The server's file side over loopback, driven by the client library: path
// results, block layout, uploads with skipping by digest, listings, reading
// back, and hostile traffic.
#include <string.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/kfs/server/test_client.h"

namespace {

class Files : public KfsdFixture {
 protected:
  void SetUp() override {
    KfsdFixture::SetUp();
    s_ = kfsd_session(port(), 7, kKey7);
    ASSERT_EQ(kfs_session_open(s_.get()), 0u);
    ASSERT_EQ(lock(s_.get(), 7), 0u);
  }

  // Opens for writing with a 13-byte attribute record; without `a`, closes
  // what opened.
  uint32_t wopen(const std::string& path, uint32_t mtime, uint64_t size,
                 kfs_wopen_args* a = nullptr) {
    static const Bytes attr(13, 1);
    kfs_wopen_args w = {};
    w.flags = 1;
    w.value_a = mtime;
    w.path = path.c_str();
    w.value_b = static_cast<uint32_t>(size >> 32);
    w.value_c = static_cast<uint32_t>(size);
    w.extra_len = 13;
    w.extra = attr.data();
    uint32_t rc = kfs_file_wopen(s_.get(), &w);
    if (a != nullptr) {
      *a = w;
    } else if (rc == 0) {
      kfs_file_close(s_.get(), w.handle);
    }
    return rc;
  }

  uint32_t write(uint8_t handle, uint8_t flags, const Bytes& data) {
    // Never a null pointer, as the agent never passes one.
    kfs_write_args a = {
        handle, flags, static_cast<uint32_t>(data.size()),
        data.empty() ? static_cast<const void*>("") : data.data(), 0};
    return kfs_file_write(s_.get(), &a);
  }

  uint32_t list(const char* dir) {
    kfs_find_args a = {0, 0x20, dir, "", 0, 0, 0, nullptr};
    uint32_t rc = kfs_find_files(s_.get(), &a);
    kfs_find_release(&a);
    return rc;
  }

  session_ptr s_;
};

TEST_F(Files, PathResults) {
  ASSERT_EQ(kfs_mkdir(s_.get(), 0, "/7/d"), 0u);
  ASSERT_EQ(wopen("/7/d/f", 1, 0), 0u);
  const struct {
    uint8_t type;
    const char* path;
    uint32_t want;
  } rows[] = {
      {KFS_MKDIR, "/7/d", ERR_EXISTS},
      {KFS_MKDIR, "/7", ERR_EXISTS},
      {KFS_MKDIR, "//7/d//e/", 0},
      {KFS_MKDIR, "/7/d/f", ERR_NOTDIR},
      {KFS_MKDIR, "/7/d/f/g", ERR_NOTDIR},
      {KFS_MKDIR, "/7/x/y", ERR_BADPATH},
      {KFS_MKDIR, "/7/../8/y", ERR_BADPATH},
      {KFS_MKDIR, "/8/y", ERR_FSACCESS},
      {KFS_MKDIR, "/70", ERR_FSACCESS},
      {KFS_FILE_WOPEN, "/7/d", ERR_NOTFILE},
      {KFS_FILE_WOPEN, "/7/x/f", ERR_BADPATH},
      {KFS_FILE_WOPEN, "/8/f", ERR_FSACCESS},
      {KFS_FIND_FILES, "/7/x", ERR_BADPATH},
      {KFS_FIND_FILES, "/7/d/f", ERR_NOTDIR},
      {KFS_FIND_FILES, "/8", ERR_FSACCESS},
      {KFS_FILE_ROPEN, "/7/d", ERR_NOTFILE},
      {KFS_FILE_ROPEN, "/7/none", ERR_BADPATH},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(kfs_type_name(row.type)) + " " + row.path);
    kfs_ropen_args r = {};
    r.path = row.path;
    uint32_t got = row.type == KFS_MKDIR ? kfs_mkdir(s_.get(), 0, row.path)
                   : row.type == KFS_FILE_WOPEN ? wopen(row.path, 1, 1)
                   : row.type == KFS_FIND_FILES ? list(row.path)
                                                : kfs_file_ropen(s_.get(), &r);
    EXPECT_EQ(got, row.want);
  }
}

TEST_F(Files, BlockLayout) {
  const struct {
    uint64_t size;
    uint16_t count;
    uint32_t block_size;
  } rows[] = {
      {0, 0, 1024},
      {1, 1, 1024},
      {1024, 1, 1024},
      {1025, 2, 1024},
      {1024ull * 65535, 65535, 1024},
      {1024ull * 65535 + 1, 32768, 2048},
      {5ull << 32, 40960, 1u << 19},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    kfs_wopen_args a;
    ASSERT_EQ(wopen("/7/f" + std::to_string(row.size), 1, row.size, &a), 0u);
    EXPECT_EQ(a.block_count, row.count);
    EXPECT_EQ(a.block_size, row.block_size);
    EXPECT_EQ(a.comparable, 0);
    kfs_file_close(s_.get(), a.handle);
  }
  // A block past the last one, or of a handle never given, is refused.
  kfs_wopen_args a;
  ASSERT_EQ(wopen("/7/one", 1, 1, &a), 0u);
  ASSERT_EQ(write(a.handle, KFS_WRITE_BEGIN_BLOCK, {}), 0u);
  ASSERT_EQ(write(a.handle, KFS_WRITE_END_BLOCK, {}), 0u);
  EXPECT_EQ(write(a.handle, KFS_WRITE_BEGIN_BLOCK, {}), ERR_BADKEY);
  EXPECT_EQ(write(99, KFS_WRITE_BEGIN_BLOCK, {}), ERR_BADKEY);
}

// Traffic that must close its own connection and nothing else.
TEST_F(Files, HostileTrafficClosesOnlyItsConnection) {
  const struct {
    const char* name;
    bool login;         // first the key exchange (clear mode) and a login
    bool half_close;    // then end our side: the server sees the cut
    std::string bytes;  // else a message the client's code sends whole:
    uint8_t type = 0;
    std::string body = "";
  } rows[] = {
      {"wrong greeting", false, false, "GET / HTTP/1.0\r\n\r\n"},
      {"garbage for the sealed key", false, false,
       "\x01\x30\x32\x01" + std::string(256, 'U')},
      // A good mkdir, in the clear, under a checksum of 0.
      {"bad checksum", true, false,
       std::string("\0\x0E\0\0\0\0\0\x08\x07\0\0\0\0\0\x05/7/ab", 20)},
      {"truncated packet", true, true, std::string("\0\x64\0\0\0\0\1\2\3", 9)},
      {"longer than any message", true, false, std::string(6 + 65536, '\0')},
      {"body shorter than its fields", true, false, "", KFS_MKDIR,
       std::string("\0\0\xC8", 3)},
      {"a response type", true, false, "", KFS_MKDIR + KFS_RESPONSE},
  };
  int n = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    session_ptr bad = kfsd_session(port(), 8, kKey8, 1);
    if (row.login) {
      ASSERT_EQ(kfs_session_open(bad.get()), 0u);
    } else {
      bad->socket = sock_connect("127.0.0.1", static_cast<uint16_t>(port()));
    }
    // The server may hang up before it has read everything.
    sock_write_all(bad->socket, row.bytes.data(),
                   static_cast<int64_t>(row.bytes.size()));
    if (row.bytes.empty()) {
      memcpy(bad->message.buffer, row.body.data(), row.body.size());
      kfs_request_finish(&bad->message, row.type,
                         static_cast<uint32_t>(row.body.size()));
      kfs_packet_send(bad->socket, bad->cipher, &bad->message);
    }
    if (row.half_close) {
      shutdown(bad->socket, SHUT_WR);
    }
    EXPECT_TRUE(closed_by_server(bad->socket));
    // The session that behaves goes on.
    std::string dir = "/7/ok" + std::to_string(n++);
    EXPECT_EQ(kfs_mkdir(s_.get(), 0, dir.c_str()), 0u);
  }
}

}  // namespace
