#include "agent/filters.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include "lib/scoped.h"
#include "tests/support/test_support.h"

namespace {

const uint8_t* const KEY =
    reinterpret_cast<const uint8_t*>("0123456789abcdef0123456789ABCDEF");
constexpr uint32_t CHUNK = 65466;  // what the per-file backup pulls

struct chain_deleter {
  void operator()(filter_stream* s) const { filter_chain_free(s); }
};
using chain_ptr = std::unique_ptr<filter_stream, chain_deleter>;

uint8_t* bytes(std::string& s) {
  return reinterpret_cast<uint8_t*>(s.data());
}

std::string encrypt(std::string in) {
  cipher_ctx_ptr c(EVP_CIPHER_CTX_new());
  const uint8_t iv[16] = {};
  std::string out(in.size() + 16, '\0');
  int n = 0, last = 0;
  EXPECT_TRUE(
      EVP_EncryptInit_ex(c.get(), EVP_aes_256_cbc(), nullptr, KEY, iv) == 1 &&
      EVP_EncryptUpdate(c.get(), bytes(out), &n, bytes(in),
                        static_cast<int>(in.size())) == 1 &&
      EVP_EncryptFinal_ex(c.get(), bytes(out) + n, &last) == 1);
  out.resize(static_cast<size_t>(n + last));
  return out;
}

// What the chain must produce: zlib's level 9 stream of the block under
// AES-256-CBC with a zero IV and PKCS#7 padding.
std::string deflate_encrypt(std::string plain) {
  std::string z(compressBound(plain.size()), '\0');
  uLongf z_len = z.size();
  EXPECT_EQ(compress2(bytes(z), &z_len, bytes(plain), plain.size(), 9), Z_OK);
  return encrypt(z.substr(0, z_len));
}

std::string md5_of(std::string data) {
  std::string out(16, '\0');
  EVP_Digest(data.data(), data.size(), bytes(out), nullptr, EVP_md5(), nullptr);
  return out;
}

std::string random_bytes(size_t n) {
  std::mt19937 rng(7);
  std::string s(n, '\0');
  std::generate(s.begin(), s.end(), [&] { return static_cast<char>(rng()); });
  return s;
}

std::string some_text(size_t n) {
  std::string s;
  for (int i = 0; s.size() < n; ++i) {
    s += "line " + std::to_string(i * 7919 % 1000) + " of the block\n";
  }
  return s.substr(0, n);
}

struct pulled {
  std::string out;
  int32_t last = 0;  // the result that ended the pulling
};

// Pulls with the sizes in turn until a result below 0; no result may be
// larger than what was asked. A stream that stalls or runs on fails.
pulled pull(filter_stream* head, const std::vector<uint32_t>& sizes) {
  pulled p;
  std::vector<uint8_t> buf(CHUNK);
  for (size_t i = 0, idle = 0; idle < 1000 && p.out.size() < (4 << 20); ++i) {
    uint32_t want = sizes[i % sizes.size()];
    p.last = head->read(head, buf.data(), want);
    if (p.last < 0) {
      return p;
    }
    EXPECT_LE(static_cast<uint32_t>(p.last), want);
    idle = p.last == 0 ? idle + 1 : 0;
    p.out.append(reinterpret_cast<char*>(buf.data()), p.last);
  }
  ADD_FAILURE() << "stalled or endless";
  return p;
}

chain_ptr open_chain(int fd, int64_t offset, uint32_t length, uint64_t* counter,
                     std::string* digest) {
  return chain_ptr(aes_filter_open(
      deflate_filter_open(md5_filter_open(
          file_source_open(fd, offset, length, counter), bytes(*digest))),
      KEY));
}

class FilterChainTest : public TempDirTest {};

TEST_F(FilterChainTest, RoundTripsAtEveryPullSize) {
  const struct {
    const char* name;
    std::string block;
    size_t want_size;  // of the encrypted stream; 0: any
  } blocks[] = {
      {"empty", "", 16},
      {"one byte", "x", 0},
      {"8191 bytes", some_text(8191), 0},
      {"8192 bytes", some_text(8192), 0},
      {"8193 bytes", some_text(8193), 0},
      {"200 KiB text", some_text(200 << 10), 0},
      {"200 KiB random", random_bytes(200 << 10), 0},
  };
  const std::vector<uint32_t> pulls[] = {
      {16},
      {17},
      {1000},
      // 15 bytes or fewer get nothing, but nothing is lost either.
      {0, 1, 15, 16, 7, 31, 3, 1000, 14}};
  for (const auto& b : blocks) {
    SCOPED_TRACE(b.name);
    // Bytes around the block check that the range is what is read.
    write_file("f", "head" + b.block + "tail");
    unique_fd fd(open("f", O_RDONLY));
    uint64_t counter = 5;
    std::string digest(16, '\0');
    auto size = static_cast<uint32_t>(b.block.size());
    chain_ptr chain = open_chain(fd.get(), 4, size, &counter, &digest);
    pulled want = pull(chain.get(), {CHUNK});
    EXPECT_EQ(want.last, STREAM_END);
    EXPECT_EQ(want.out, deflate_encrypt(b.block));
    EXPECT_EQ(digest, md5_of(b.block));
    EXPECT_EQ(counter, 5 + size);
    if (b.want_size != 0) {
      EXPECT_EQ(want.out.size(), b.want_size);
    }
    uint8_t byte;
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(chain->read(chain.get(), &byte, 1), STREAM_END);
    }
    for (const auto& sizes : pulls) {
      SCOPED_TRACE(testing::Message() << "pulls from " << sizes[0]);
      chain = open_chain(fd.get(), 4, size, nullptr, &digest);
      pulled got = pull(chain.get(), sizes);
      EXPECT_EQ(got.last, STREAM_END);
      EXPECT_EQ(got.out, want.out);
    }
  }
}

TEST_F(FilterChainTest, ReadErrorEndsTheDigestAtTheBytesRead) {
  std::string block = random_bytes(300 << 10);
  write_file("f", block);
  ASSERT_EQ(mkdir("d", 0700), 0);
  const struct {
    const char* name;
    const char* path;
    bool close_after_first_chunk;
  } cases[] = {
      {"a directory", "d", false},
      {"descriptor closed mid-block", "f", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    unique_fd fd(open(c.path, O_RDONLY));
    uint64_t counter = 0;
    std::string digest(16, '\0');
    chain_ptr chain = open_chain(fd.get(), 0, 300 << 10, &counter, &digest);
    if (c.close_after_first_chunk) {
      std::vector<uint8_t> buf(CHUNK);
      ASSERT_GT(chain->read(chain.get(), buf.data(), CHUNK), 0);
      close(fd.release());
    }
    EXPECT_EQ(pull(chain.get(), {CHUNK}).last, STREAM_ERROR);
    EXPECT_LT(counter, block.size());
    EXPECT_EQ(digest, md5_of(block.substr(0, counter)));
  }
}

}  // namespace
