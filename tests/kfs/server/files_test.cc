// The server's file side over loopback, driven by the client library: path
// results, block layout, uploads with skipping by digest, listings, reading
// back, and hostile traffic.
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/kfs/server/test_client.h"

namespace {

struct entry {
  uint8_t kind;
  uint32_t attr;
  uint64_t mtime, size;
  std::string name;
  bool operator==(const entry&) const = default;
};

Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

class Files : public KfsdFixture {
 protected:
  void SetUp() override {
    KfsdFixture::SetUp();
    s_ = kfsd_session(port(), 7, kKey7);
    ASSERT_EQ(kfs_session_open(s_.get()), 0u);
    ASSERT_EQ(lock(s_.get(), 7), 0u);
  }

  // Opens for writing with a 13-byte attribute record.
  uint32_t wopen(const std::string& path, uint32_t mtime, uint64_t size,
                 kfs_wopen_args* a) {
    static const Bytes attr(13, 1);
    *a = {};
    a->flags = 1;
    a->value_a = mtime;
    a->path = path.c_str();
    a->value_b = static_cast<uint32_t>(size >> 32);
    a->value_c = static_cast<uint32_t>(size);
    a->extra_len = 13;
    a->extra = attr.data();
    return kfs_file_wopen(s_.get(), a);
  }
  // The same, closing what opened.
  uint32_t wopen(const std::string& path, uint32_t mtime, uint64_t size) {
    kfs_wopen_args a;
    uint32_t rc = wopen(path, mtime, size, &a);
    if (rc == 0) {
      kfs_file_close(s_.get(), a.handle);
    }
    return rc;
  }

  uint32_t write(uint8_t handle, uint8_t flags, const Bytes& data) {
    kfs_write_args a = {handle, flags, static_cast<uint32_t>(data.size()),
                        data.data(), 0};
    return kfs_file_write(s_.get(), &a);
  }

  // A whole block: begin without digest, the stream in two pieces, end.
  void send_block(uint8_t handle, const Bytes& stream, const Bytes& md5) {
    ASSERT_EQ(write(handle, KFS_WRITE_BEGIN_BLOCK, {}), 0u);
    auto half = stream.begin() + static_cast<long>(stream.size() / 2);
    ASSERT_EQ(write(handle, KFS_WRITE_BLOCK_DATA, Bytes(stream.begin(), half)),
              0u);
    ASSERT_EQ(write(handle, KFS_WRITE_BLOCK_DATA, Bytes(half, stream.end())),
              0u);
    ASSERT_EQ(write(handle, KFS_WRITE_END_BLOCK, md5), 0u);
  }

  // The whole listing, following continuations; the status of the first
  // failing reply, or 0.
  uint32_t list(const std::string& dir, std::vector<entry>* out) {
    out->clear();
    for (uint8_t handle = 0;;) {
      kfs_find_args a = {};
      a.handle = handle;
      a.flags = 0x20;
      a.directory = handle == 0 ? dir.c_str() : "";
      a.pattern = "";
      uint32_t rc = kfs_find_files(s_.get(), &a);
      if (rc != 0) {
        return rc;
      }
      for (int32_t i = 0; i < a.count; ++i) {
        auto* e = reinterpret_cast<kfs_find_entry*>(str_list_get(a.entries, i));
        out->push_back({e->kind, e->word, e->mtime, e->size, e->name});
      }
      kfs_find_release(&a);
      handle = a.next_handle;
      if (a.remaining == 0) {
        EXPECT_EQ(handle, 0);
        return 0;
      }
    }
  }

  // Reads a file back in pieces of at most max bytes: the blocks' streams
  // and the flags byte of every piece.
  std::vector<Bytes> read_back(const std::string& path, uint16_t max,
                               uint32_t* mtime, std::string* flags) {
    kfs_ropen_args r = {};
    r.path = path.c_str();
    EXPECT_EQ(kfs_file_ropen(s_.get(), &r), 0u);
    *mtime = r.mtime;
    EXPECT_EQ(Bytes(r.attr, r.attr + r.attr_len), Bytes(13, 1));
    std::vector<Bytes> blocks(1);
    Bytes piece(max);
    for (int guard = 0; guard < 1000; ++guard) {
      kfs_read_args a = {r.handle, max, nullptr, 0, 0, piece.data()};
      EXPECT_EQ(kfs_file_read(s_.get(), &a), 0u);
      flags->push_back(static_cast<char>('0' + a.flags));
      blocks.back().insert(blocks.back().end(), piece.begin(),
                           piece.begin() + a.n);
      if (a.flags & KFS_READ_END_FILE) {
        break;
      }
      if (a.flags & KFS_READ_END_BLOCK) {
        blocks.emplace_back();
      }
    }
    EXPECT_EQ(blocks.size(), r.block_count);
    kfs_file_close(s_.get(), r.handle);
    return blocks;
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
    std::vector<entry> entries;
    kfs_ropen_args r = {};
    r.path = row.path;
    uint32_t got = row.type == KFS_MKDIR ? kfs_mkdir(s_.get(), 0, row.path)
                   : row.type == KFS_FILE_WOPEN ? wopen(row.path, 1, 1)
                   : row.type == KFS_FIND_FILES ? list(row.path, &entries)
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
}

TEST_F(Files, UploadSkipsKnownBlocksAndReadsBack) {
  const Bytes plain[3] = {Bytes(1024, 'a'), Bytes(1024, 'b'), Bytes(452, 'c')};
  const Bytes stream[3] = {Bytes(1000, 0xA0), Bytes(1000, 0xB0), text("c1")};
  kfs_wopen_args a;
  ASSERT_EQ(wopen("/7/f", 1000, 2500, &a), 0u);
  ASSERT_EQ(a.block_count, 3);
  for (int i = 0; i < 3; ++i) {
    send_block(a.handle, stream[i], md5_of(plain[i]));
  }
  kfs_file_close(s_.get(), a.handle);
  std::vector<entry> entries;
  ASSERT_EQ(list("/7", &entries), 0u);
  EXPECT_EQ(entries, std::vector<entry>({{0, 0, 1000, 2500, "f"}}));
  EXPECT_EQ(wopen("/7/f", 1000, 2500), ERR_UP2DATE);

  // A new time, the last block changed: two blocks go by digest.
  ASSERT_EQ(wopen("/7/f", 2000, 2500, &a), 0u);
  EXPECT_EQ(a.comparable, 3);
  Bytes changed = md5_of(Bytes(452, 'C'));
  EXPECT_EQ(write(a.handle, KFS_WRITE_BEGIN_BLOCK, md5_of(plain[0])),
            ERR_UP2DATE);
  EXPECT_EQ(write(a.handle, KFS_WRITE_BEGIN_BLOCK, md5_of(plain[1])),
            ERR_UP2DATE);
  EXPECT_EQ(write(a.handle, KFS_WRITE_BEGIN_BLOCK, changed), 0u);
  ASSERT_EQ(write(a.handle, KFS_WRITE_BLOCK_DATA, text("C2")), 0u);
  ASSERT_EQ(write(a.handle, KFS_WRITE_END_BLOCK, changed), 0u);
  EXPECT_EQ(write(a.handle, KFS_WRITE_BEGIN_BLOCK, {}), ERR_BADKEY)
      << "past the last block";
  EXPECT_EQ(write(99, KFS_WRITE_BEGIN_BLOCK, {}), ERR_BADKEY);
  kfs_file_close(s_.get(), a.handle);

  uint32_t mtime = 0;
  std::string flags;
  std::vector<Bytes> blocks = read_back("/7/f", 700, &mtime, &flags);
  EXPECT_EQ(mtime, 2000u);
  EXPECT_EQ(flags, "01013");
  EXPECT_EQ(blocks, std::vector<Bytes>({stream[0], stream[1], text("C2")}));
}

// Block ends and closes get no reply, so the server may finish them after
// it has answered later requests. Nothing a client can ask may tell.
TEST_F(Files, UnansweredEndsAndClosesAreFinishedBeforeAnyoneLooks) {
  constexpr int kFiles = 40;  // more than the server queues at once
  auto path_of = [](int i) { return "/7/q" + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i) {
    kfs_wopen_args a;
    ASSERT_EQ(wopen(path_of(i), 1000, 10, &a), 0u) << path_of(i);
    send_block(a.handle, Bytes(10, static_cast<uint8_t>(i)), {});
    kfs_file_close(s_.get(), a.handle);
    if (i % 10 == 0) {
      // The same file again at once: the open sees the close.
      EXPECT_EQ(wopen(path_of(i), 1000, 10), ERR_UP2DATE) << i;
    }
  }
  // Gone without waiting for anything: what it sent is finished before
  // its lock passes to the next connection.
  kfs_session_disconnect(s_.get());
  ASSERT_EQ(kfs_session_open(s_.get()), 0u);
  uint32_t locked = lock(s_.get(), 7);
  for (int tries = 0; tries < 500 && locked != 0; ++tries) {
    usleep(10000);
    locked = lock(s_.get(), 7);
  }
  ASSERT_EQ(locked, 0u);
  for (int i = 0; i < kFiles; ++i) {
    EXPECT_EQ(wopen(path_of(i), 1000, 10), ERR_UP2DATE) << i;
  }
}

// A packet in the clear mode (the payload is the plain message).
std::string clear_packet(const std::string& plain, uint32_t crc_xor = 0) {
  uint32_t crc = static_cast<uint32_t>(
      crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(plain.data()),
            static_cast<uInt>(plain.size())));
  crc ^= crc_xor;
  std::string head = {
      static_cast<char>(plain.size() >> 8), static_cast<char>(plain.size()),
      static_cast<char>(crc >> 24),         static_cast<char>(crc >> 16),
      static_cast<char>(crc >> 8),          static_cast<char>(crc)};
  return head + plain;
}

// Traffic that must close its own connection and nothing else.
TEST_F(Files, HostileTrafficClosesOnlyItsConnection) {
  const std::string mkdir("\0\x08\x07\0\0\0\0\0\x05/7/ab", 14);
  const struct {
    const char* name;
    bool login;       // first the key exchange (clear mode) and a login
    bool half_close;  // then end our side: the server sees the cut
    std::string bytes;
  } rows[] = {
      {"wrong greeting", false, false, "GET / HTTP/1.0\r\n\r\n"},
      {"garbage for the sealed key", false, false,
       "\x01\x30\x32\x01" + std::string(256, 'U')},
      {"bad checksum", true, false, clear_packet(mkdir, 1)},
      {"truncated packet", true, true, std::string("\0\x64\0\0\0\0\1\2\3", 9)},
      {"longer than any message", true, false, std::string(6 + 65536, '\0')},
      {"body shorter than its fields", true, false,
       clear_packet(std::string("\0\x03\x07\0\0\0\0\0\xC8", 9))},
      {"a response type", true, false,
       clear_packet(std::string("\0\0\x87\0\0\0", 6))},
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
