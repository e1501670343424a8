// Streams made by the agent's own filter chain, decoded back piece by piece.
#include "tools/restore/block_decoder.h"

#include <fcntl.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/filters.h"
#include "tests/support/test_support.h"

namespace {

const uint8_t kKey[32] = {7,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                          11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21,
                          22, 23, 24, 25, 26, 27, 28, 29, 30, 31};

class BlockDecoder : public TempDirTest {
 protected:
  // The stream the agent sends for data, through its real chain.
  std::vector<uint8_t> encode(const std::string& data) {
    write_file("plain", data);
    int fd = open("plain", O_RDONLY);
    uint8_t digest[16];
    filter_stream* head = aes_filter_open(
        deflate_filter_open(md5_filter_open(
            file_source_open(fd, 0, static_cast<uint32_t>(data.size()),
                             nullptr),
            digest)),
        kKey);
    std::vector<uint8_t> out;
    uint8_t chunk[65466];
    int32_t n;
    while ((n = head->read(head, chunk, sizeof chunk)) > 0 || n == 0) {
      out.insert(out.end(), chunk, chunk + n);
    }
    EXPECT_EQ(n, STREAM_END);
    filter_chain_free(head);
    close(fd);
    return out;
  }

  // Decodes stream fed in pieces of `piece` bytes; the plain data lands in
  // *plain. Returns the first non-zero code, else finish's.
  static int decode(block_decoder& d, const std::vector<uint8_t>& stream,
                    size_t piece, std::string* plain) {
    block_sink sink = [plain](std::span<const uint8_t> data) {
      plain->append(reinterpret_cast<const char*>(data.data()), data.size());
      return true;
    };
    int rc = d.begin();
    for (size_t at = 0; rc == BLOCK_OK && at < stream.size(); at += piece) {
      rc = d.feed({stream.data() + at, std::min(piece, stream.size() - at)},
                  sink);
    }
    return rc == BLOCK_OK ? d.finish(sink) : rc;
  }
};

std::string text_like(size_t n) {
  std::string s;
  for (size_t i = 0; s.size() < n; ++i) {
    s += "block " + std::to_string(i % 977) + " of the nightly run; ";
  }
  return s.substr(0, n);
}

std::string random_bytes(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) {
    c = static_cast<char>(gen());
  }
  return s;
}

TEST_F(BlockDecoder, DecodesWhateverThePieceSizes) {
  const std::string inputs[] = {"", "x", text_like(300000),
                                random_bytes(200000, 3)};
  block_decoder d(kKey);  // one decoder for every block, as a restore uses it
  for (const std::string& input : inputs) {
    std::vector<uint8_t> stream = encode(input);
    for (size_t piece :
         {size_t{1}, size_t{15}, size_t{16}, size_t{4099}, size_t{65496}}) {
      SCOPED_TRACE(std::to_string(input.size()) + " bytes in pieces of " +
                   std::to_string(piece));
      std::string plain;
      ASSERT_EQ(decode(d, stream, piece, &plain), BLOCK_OK);
      EXPECT_TRUE(plain == input);
    }
  }
}

TEST_F(BlockDecoder, RefusesDamageAndTheWrongKey) {
  const std::vector<uint8_t> good = encode(text_like(100000));
  uint8_t other_key[32] = {};
  struct damage {
    const char* name;
    std::vector<uint8_t> stream;
    const uint8_t* key;
  };
  auto cut = [&](size_t n) {
    return std::vector<uint8_t>(good.begin(), good.end() - n);
  };
  std::vector<uint8_t> flipped = good;
  flipped[flipped.size() / 2] ^= 0x40;
  std::vector<uint8_t> doubled = good;
  doubled.insert(doubled.end(), good.begin(), good.end());
  const damage cases[] = {
      {"another key", good, other_key},
      {"one byte short", cut(1), kKey},
      {"one cipher block short", cut(16), kKey},
      {"a flipped bit", flipped, kKey},
      {"a second stream behind the first", doubled, kKey},
      {"nothing at all", {}, kKey},
  };
  for (const damage& c : cases) {
    SCOPED_TRACE(c.name);
    block_decoder d(c.key);
    std::string plain;
    int rc = decode(d, c.stream, 4096, &plain);
    EXPECT_TRUE(rc == BLOCK_ERR_CIPHER || rc == BLOCK_ERR_DATA) << rc;
  }
}

TEST_F(BlockDecoder, StopsWhenTheSinkRefuses) {
  std::vector<uint8_t> stream = encode(random_bytes(300000, 9));
  block_decoder d(kKey);
  size_t calls = 0;
  block_sink refuse_second = [&](std::span<const uint8_t>) {
    return ++calls < 2;
  };
  ASSERT_EQ(d.begin(), BLOCK_OK);
  EXPECT_EQ(d.feed(stream, refuse_second), BLOCK_ERR_SINK);
  EXPECT_EQ(calls, 2u);
}

}  // namespace
