// The server's file side over loopback: path results, block layout,
// uploads with skipping by digest and resumption, listings with
// continuation, reading back, and hostile traffic.
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/kfs/server/test_client.h"

namespace {

struct opened {
  int status = -1;
  uint8_t handle = 0;
  uint16_t count = 0;
  uint32_t block_size = 0;
  uint16_t comparable = 0;
};

struct entry {
  uint8_t kind;
  uint32_t attr;
  uint64_t mtime;
  uint64_t size;
  std::string name;
};

Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

// The agent's block sub-operations.
constexpr uint8_t kBegin = 1;
constexpr uint8_t kData = 8;
constexpr uint8_t kEnd = 10;

class Files : public KfsdFixture {
 protected:
  void SetUp() override {
    KfsdFixture::SetUp();
    ASSERT_TRUE(c_.connect(port()));
    ASSERT_EQ(c_.login(7, kKey7), 0);
    ASSERT_EQ(c_.lock(7), 0);
  }

  opened wopen(const std::string& path, uint32_t mtime, uint64_t size) {
    Bytes body = wire()
                     .u8(1)
                     .u32(mtime)
                     .str16(path)
                     .u32(static_cast<uint32_t>(size >> 32))
                     .u32(static_cast<uint32_t>(size))
                     .u16(13)
                     .raw(Bytes(13, 1))
                     .b;
    Bytes reply;
    opened r;
    r.status = c_.call(KFS_FILE_WOPEN, body, &reply);
    unwire in{reply};
    if (r.status == 0) {
      r.handle = in.u8();
      r.count = in.u16();
      r.block_size = in.u32();
      r.comparable = in.u16();
      EXPECT_FALSE(in.bad);
    }
    return r;
  }

  int begin(uint8_t handle, const Bytes& md5 = {}) {
    Bytes reply;
    int status = c_.call(KFS_FILE_WRITE,
                         wire()
                             .u8(handle)
                             .u8(kBegin)
                             .u16(static_cast<uint16_t>(md5.size()))
                             .raw(md5)
                             .b,
                         &reply);
    EXPECT_EQ(reply.size(), 2u);
    return status;
  }

  // A whole block: begin without digest, the stream in two pieces, end.
  void send_block(uint8_t handle, const Bytes& stream, const Bytes& md5) {
    ASSERT_EQ(begin(handle), 0);
    size_t half = stream.size() / 2;
    Bytes a(stream.begin(), stream.begin() + static_cast<long>(half));
    Bytes b(stream.begin() + static_cast<long>(half), stream.end());
    for (const Bytes& piece : {a, b}) {
      ASSERT_TRUE(
          c_.send(KFS_FILE_WRITE, wire()
                                      .u8(handle)
                                      .u8(kData)
                                      .u16(static_cast<uint16_t>(piece.size()))
                                      .raw(piece)
                                      .b));
    }
    ASSERT_TRUE(
        c_.send(KFS_FILE_WRITE, wire()
                                    .u8(handle)
                                    .u8(kEnd)
                                    .u16(static_cast<uint16_t>(md5.size()))
                                    .raw(md5)
                                    .b));
  }

  void close(uint8_t handle) {
    ASSERT_TRUE(c_.send(KFS_FILE_CLOSE, wire().u8(handle).b));
  }

  // The whole listing, following continuations; the status of the first
  // failing reply, or 0.
  int list(const std::string& dir, std::vector<entry>* out,
           int* replies = nullptr) {
    out->clear();
    uint8_t handle = 0;
    for (int n = 1;; ++n) {
      Bytes reply;
      int status = c_.call(
          KFS_FIND_FILES,
          wire().u8(handle).u8(0x20).str8(handle == 0 ? dir : "").str16("").b,
          &reply);
      if (status != 0) {
        return status;
      }
      unwire in{reply};
      uint16_t count = in.u16();
      uint32_t remaining = in.u32();
      handle = in.u8();
      for (uint16_t i = 0; i < count; ++i) {
        entry e{in.u8(), in.u32(), in.u64(), in.u64(), in.str8()};
        out->push_back(e);
      }
      EXPECT_FALSE(in.bad);
      EXPECT_EQ(in.pos, reply.size());
      if (remaining == 0) {
        EXPECT_EQ(handle, 0);
        if (replies != nullptr) {
          *replies = n;
        }
        return 0;
      }
    }
  }

  // Reads a file back in pieces of at most max bytes: the blocks' streams
  // and the flags byte of every piece.
  std::vector<Bytes> read_back(const std::string& path, uint16_t max,
                               uint32_t* mtime, std::string* flags) {
    Bytes reply;
    EXPECT_EQ(c_.call(KFS_FILE_ROPEN, wire().str16(path).b, &reply), 0);
    unwire in{reply};
    uint8_t handle = in.u8();
    *mtime = in.u32();
    uint16_t count = in.u16();
    in.u64();
    EXPECT_EQ(in.raw(in.u16()), Bytes(13, 1));
    std::vector<Bytes> blocks(1);
    for (int guard = 0; guard < 1000; ++guard) {
      EXPECT_EQ(c_.call(KFS_FILE_READ, wire().u8(handle).u16(max).b, &reply),
                0);
      unwire piece{reply};
      uint8_t f = piece.u8();
      Bytes data = piece.raw(piece.u16());
      flags->push_back(static_cast<char>('0' + f));
      blocks.back().insert(blocks.back().end(), data.begin(), data.end());
      if (f & 2) {
        break;
      }
      if (f & 1) {
        blocks.emplace_back();
      }
    }
    EXPECT_EQ(blocks.size(), count);
    close(handle);
    return blocks;
  }

  test_client c_;
};

TEST_F(Files, PathResults) {
  ASSERT_EQ(c_.call(KFS_MKDIR, wire().u8(0).str16("/7/d").b), 0);
  opened f = wopen("/7/d/f", 1, 0);
  ASSERT_EQ(f.status, 0);
  close(f.handle);
  const struct {
    uint8_t type;
    const char* path;
    int want;
  } cases[] = {
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
  for (const auto& t : cases) {
    SCOPED_TRACE(std::string(kfs_type_name(t.type)) + " " + t.path);
    int status = -1;
    std::vector<entry> entries;
    if (t.type == KFS_MKDIR) {
      status = c_.call(KFS_MKDIR, wire().u8(0).str16(t.path).b);
    } else if (t.type == KFS_FILE_WOPEN) {
      status = wopen(t.path, 1, 1).status;
    } else if (t.type == KFS_FIND_FILES) {
      status = list(t.path, &entries);
    } else {
      status = c_.call(KFS_FILE_ROPEN, wire().str16(t.path).b);
    }
    EXPECT_EQ(status, t.want);
  }
}

TEST_F(Files, BlockLayout) {
  const struct {
    uint64_t size;
    uint16_t count;
    uint32_t block_size;
  } cases[] = {
      {0, 0, 1024},
      {1, 1, 1024},
      {1024, 1, 1024},
      {1025, 2, 1024},
      {1024ull * 65535, 65535, 1024},
      {1024ull * 65535 + 1, 32768, 2048},
      {5ull << 32, 40960, 1u << 19},
  };
  uint32_t n = 0;
  for (const auto& t : cases) {
    SCOPED_TRACE(t.size);
    opened r = wopen("/7/f" + std::to_string(n++), 1, t.size);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.count, t.count);
    EXPECT_EQ(r.block_size, t.block_size);
    EXPECT_EQ(r.comparable, 0);
    close(r.handle);
  }
}

TEST_F(Files, UploadSkipsKnownBlocksAndReadsBack) {
  const Bytes plain[3] = {Bytes(1024, 'a'), Bytes(1024, 'b'), Bytes(452, 'c')};
  const Bytes stream[3] = {Bytes(1000, 0xA0), Bytes(1000, 0xB0), text("c1")};
  opened r = wopen("/7/f", 1000, 2500);
  ASSERT_EQ(r.status, 0);
  ASSERT_EQ(r.count, 3);
  for (int i = 0; i < 3; ++i) {
    send_block(r.handle, stream[i], md5_of(plain[i]));
  }
  close(r.handle);
  std::vector<entry> entries;
  ASSERT_EQ(list("/7", &entries), 0);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].kind, 0);
  EXPECT_EQ(entries[0].attr, 0u);
  EXPECT_EQ(entries[0].mtime, 1000u);
  EXPECT_EQ(entries[0].size, 2500u);
  EXPECT_EQ(entries[0].name, "f");
  EXPECT_EQ(wopen("/7/f", 1000, 2500).status, ERR_UP2DATE);

  // A new time, the last block changed: two blocks go by digest.
  r = wopen("/7/f", 2000, 2500);
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.comparable, 3);
  EXPECT_EQ(begin(r.handle, md5_of(plain[0])), ERR_UP2DATE);
  EXPECT_EQ(begin(r.handle, md5_of(plain[1])), ERR_UP2DATE);
  EXPECT_EQ(begin(r.handle, md5_of(Bytes(452, 'C'))), 0);
  Bytes end = md5_of(Bytes(452, 'C'));
  ASSERT_TRUE(c_.send(KFS_FILE_WRITE,
                      wire().u8(r.handle).u8(kData).u16(2).raw(text("C2")).b));
  ASSERT_TRUE(
      c_.send(KFS_FILE_WRITE, wire().u8(r.handle).u8(kEnd).u16(16).raw(end).b));
  EXPECT_EQ(begin(r.handle), ERR_BADKEY) << "past the last block";
  EXPECT_EQ(begin(99), ERR_BADKEY) << "unknown handle";
  close(r.handle);

  uint32_t mtime = 0;
  std::string flags;
  std::vector<Bytes> blocks = read_back("/7/f", 700, &mtime, &flags);
  EXPECT_EQ(mtime, 2000u);
  EXPECT_EQ(flags, "01013");
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(blocks[0], stream[0]);
  EXPECT_EQ(blocks[1], stream[1]);
  EXPECT_EQ(blocks[2], text("C2"));
}

// Block ends and closes get no reply, so the server may finish them after
// it has answered later requests. Nothing a client can ask may tell.
TEST_F(Files, UnansweredEndsAndClosesAreFinishedBeforeAnyoneLooks) {
  constexpr int kFiles = 40;  // more than the server queues at once
  auto path_of = [](int i) { return "/7/q" + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i) {
    opened r = wopen(path_of(i), 1000, 10);
    ASSERT_EQ(r.status, 0) << path_of(i);
    send_block(r.handle, Bytes(10, static_cast<uint8_t>(i)), {});
    close(r.handle);
    if (i % 10 == 0) {
      // The same file again at once: the open sees the close.
      EXPECT_EQ(wopen(path_of(i), 1000, 10).status, ERR_UP2DATE) << i;
    }
  }
  // Gone without waiting for anything: what it sent is finished before
  // its lock passes to the next connection.
  c_.disconnect();
  ASSERT_TRUE(c_.connect(port()));
  ASSERT_EQ(c_.login(7, kKey7), 0);
  int locked = -1;
  for (int tries = 0; tries < 500 && locked != 0; ++tries) {
    locked = c_.lock(7);
    if (locked != 0) {
      usleep(10000);
    }
  }
  ASSERT_EQ(locked, 0);
  for (int i = 0; i < kFiles; ++i) {
    EXPECT_EQ(wopen(path_of(i), 1000, 10).status, ERR_UP2DATE) << i;
  }
}

uint32_t crc_of(const Bytes& plain) {
  return static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), plain.data(),
                                     static_cast<uInt>(plain.size())));
}

// A packet in the clear mode (the payload is the plain message).
Bytes packet(const Bytes& plain, uint32_t crc) {
  return wire().u16(static_cast<uint16_t>(plain.size())).u32(crc).raw(plain).b;
}

// Traffic that must close its own connection and nothing else.
TEST_F(Files, HostileTrafficClosesOnlyItsConnection) {
  Bytes mkdir_plain = wire()
                          .u16(8)
                          .u8(KFS_MKDIR)
                          .u16(0)
                          .u8(0)
                          .u8(0)
                          .u16(5)
                          .raw(text("/7/ab"))
                          .b;
  Bytes short_body = wire().u16(3).u8(KFS_MKDIR).u16(0).u8(0).u8(0).u16(200).b;
  Bytes response = wire().u16(0).u8(KFS_MKDIR + KFS_RESPONSE).u16(0).u8(0).b;
  const struct {
    const char* name;
    bool handshake;   // first the key exchange (clear mode) and a login
    bool half_close;  // then end our side: the server sees the cut
    Bytes bytes;
  } cases[] = {
      {"wrong greeting", false, false, text("GET / HTTP/1.0\r\n\r\n")},
      {"garbage for the sealed key", false, false,
       wire().u8(1).u8(0x30).u8(0x32).u8(1).raw(Bytes(256, 0x55)).b},
      {"bad checksum", true, false,
       packet(mkdir_plain, crc_of(mkdir_plain) ^ 1)},
      {"truncated packet", true, true, Bytes{0, 100, 0, 0, 0, 0, 1, 2, 3}},
      {"longer than any message", true, false,
       wire().u16(0).u32(0).raw(Bytes(65536, 0)).b},
      {"body shorter than its fields", true, false,
       packet(short_body, crc_of(short_body))},
      {"a response type", true, false, packet(response, crc_of(response))},
  };
  int n = 0;
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    test_client bad;
    if (t.handshake) {
      ASSERT_TRUE(bad.connect(port(), 1));
      ASSERT_EQ(bad.login(8, kKey8), 0);
    } else {
      ASSERT_TRUE(bad.connect_raw(port()));
    }
    sock_write_all(bad.fd(), t.bytes.data(),
                   static_cast<int64_t>(t.bytes.size()));
    if (t.half_close) {
      shutdown(bad.fd(), SHUT_WR);
    }
    EXPECT_TRUE(bad.closed_by_server());
    // The session that behaves goes on.
    std::string dir = "/7/ok" + std::to_string(n++);
    EXPECT_EQ(c_.call(KFS_MKDIR, wire().u8(0).str16(dir).b), 0);
  }
}

}  // namespace
