// bench/filters_bench.cc: the whole filter chain (file source over a real
// file, MD5, deflate-9, AES-256-CBC, pulled in the backup's 65466-byte
// chunks) against bare deflate-9 over the same 64 MiB, for text-like and for
// random data. MD5 and AES alone are timed too, so the table at the end tells
// the chain's own cost apart from the digest and the cipher it must run.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <zlib.h>

#include "agent/filters.h"
#include "bench/sample_data.h"
#include "lib/scoped.h"

namespace {

constexpr size_t DATA_SIZE = 64 << 20;
constexpr uint32_t CHUNK = 65466;  // what the per-file backup pulls
constexpr uint8_t KEY[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                             12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
                             23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

enum data_kind { TEXT = 0, RANDOM = 1 };
const char* const KIND_NAMES[] = {"text", "random"};

std::string make_text(size_t n) {
  std::string s;
  append_text(&s, n, 20240611);
  return s;
}

std::string make_random(size_t n) {
  std::string s;
  append_random(&s, n, 42);
  return s;
}

std::string temp_dir;

struct bench_data {
  std::string bytes;
  std::string path;
};

// Made once per kind; the file is read through the page cache after the
// first pass, as a file just walked would be.
const bench_data& data_of(data_kind kind) {
  static std::map<data_kind, bench_data> made;
  auto it = made.find(kind);
  if (it != made.end()) {
    return it->second;
  }
  bench_data d;
  d.bytes = kind == TEXT ? make_text(DATA_SIZE) : make_random(DATA_SIZE);
  d.path = temp_dir + "/" + KIND_NAMES[kind];
  file_ptr f(fopen(d.path.c_str(), "wb"));
  if (!f ||
      fwrite(d.bytes.data(), 1, d.bytes.size(), f.get()) != d.bytes.size()) {
    perror(d.path.c_str());
    exit(1);
  }
  return made.emplace(kind, std::move(d)).first->second;
}

void BM_Chain(benchmark::State& state, data_kind kind) {
  const bench_data& d = data_of(kind);
  unique_fd fd(open(d.path.c_str(), O_RDONLY));
  std::vector<uint8_t> out(CHUNK);
  uint8_t digest[16];
  size_t produced = 0;
  for (auto _ : state) {
    filter_stream* head = aes_filter_open(
        deflate_filter_open(md5_filter_open(
            file_source_open(fd.get(), 0, DATA_SIZE, nullptr), digest)),
        KEY);
    produced = 0;
    int32_t n;
    while ((n = head->read(head, out.data(), CHUNK)) >= 0) {
      produced += static_cast<size_t>(n);
    }
    if (n != STREAM_END) {
      state.SkipWithError("chain failed");
    }
    filter_chain_free(head);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_SIZE));
  state.counters["ratio"] = static_cast<double>(DATA_SIZE) / produced;
}

// One deflate stream over the data fed in the chain's chunk size.
size_t deflate_all(const std::string& data, std::string* keep) {
  z_stream z{};
  if (deflateInit(&z, 9) != Z_OK) {
    return 0;
  }
  std::vector<uint8_t> out(CHUNK);
  size_t produced = 0;
  size_t pos = 0;
  int rc = Z_OK;
  while (rc != Z_STREAM_END) {
    size_t take = std::min<size_t>(CHUNK, data.size() - pos);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data() + pos));
    z.avail_in = static_cast<uInt>(take);
    int flush = pos + take == data.size() ? Z_FINISH : Z_NO_FLUSH;
    do {
      z.next_out = out.data();
      z.avail_out = CHUNK;
      rc = deflate(&z, flush);
      produced += CHUNK - z.avail_out;
      if (keep != nullptr) {
        keep->append(reinterpret_cast<char*>(out.data()), CHUNK - z.avail_out);
      }
    } while (z.avail_out == 0 || (flush == Z_FINISH && rc != Z_STREAM_END));
    pos += take;
  }
  deflateEnd(&z);
  return produced;
}

void BM_Deflate(benchmark::State& state, data_kind kind) {
  const bench_data& d = data_of(kind);
  size_t produced = 0;
  for (auto _ : state) {
    produced = deflate_all(d.bytes, nullptr);
    benchmark::DoNotOptimize(produced);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_SIZE));
  state.counters["ratio"] = static_cast<double>(DATA_SIZE) / produced;
}

void BM_Md5(benchmark::State& state, data_kind kind) {
  const bench_data& d = data_of(kind);
  uint8_t digest[16];
  for (auto _ : state) {
    EVP_Digest(d.bytes.data(), d.bytes.size(), digest, nullptr, EVP_md5(),
               nullptr);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_SIZE));
}

// Encrypts the deflated data, as the chain's last stage does; counted per
// byte of the original data so its rate adds up with the others.
void BM_Aes(benchmark::State& state, data_kind kind) {
  std::string compressed;
  deflate_all(data_of(kind).bytes, &compressed);
  std::vector<uint8_t> out(compressed.size() + 16);
  const uint8_t iv[16] = {};
  for (auto _ : state) {
    cipher_ctx_ptr c(EVP_CIPHER_CTX_new());
    int n = 0, last = 0;
    EVP_EncryptInit_ex(c.get(), EVP_aes_256_cbc(), nullptr, KEY, iv);
    EVP_EncryptUpdate(c.get(), out.data(), &n,
                      reinterpret_cast<const uint8_t*>(compressed.data()),
                      static_cast<int>(compressed.size()));
    EVP_EncryptFinal_ex(c.get(), out.data() + n, &last);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_SIZE));
}

// Keeps the bytes-per-second of every run for the table at the end, in
// plain text: the output is mostly read from logs.
class table_reporter : public benchmark::ConsoleReporter {
 public:
  table_reporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto it = run.counters.find("bytes_per_second");
      if (it != run.counters.end() && !run.error_occurred) {
        mb_per_s[run.run_name.function_name] = it->second.value / 1e6;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> mb_per_s;
};

}  // namespace

int main(int argc, char** argv) {
  char templ[] = "/tmp/filters_bench-XXXXXX";
  if (mkdtemp(templ) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  temp_dir = templ;
  for (data_kind kind : {TEXT, RANDOM}) {
    std::string k = KIND_NAMES[kind];
    // A pass over 64 MiB is long enough that three give a steady figure
    // and the whole program stays within a few minutes.
    for (benchmark::internal::Benchmark* b : {
             benchmark::RegisterBenchmark(("chain/" + k).c_str(), BM_Chain,
                                          kind),
             benchmark::RegisterBenchmark(("deflate/" + k).c_str(), BM_Deflate,
                                          kind),
             benchmark::RegisterBenchmark(("md5/" + k).c_str(), BM_Md5, kind),
             benchmark::RegisterBenchmark(("aes/" + k).c_str(), BM_Aes, kind),
         }) {
      b->Iterations(3)->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::Initialize(&argc, argv);
  table_reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  printf("\n%-7s %9s %9s %9s %9s %11s %11s %11s\n", "data", "chain",
         "deflate-9", "md5", "aes", "chain/defl", "floor/defl", "chain/floor");
  for (data_kind kind : {TEXT, RANDOM}) {
    std::string k = KIND_NAMES[kind];
    double chain = reporter.mb_per_s["chain/" + k];
    double defl = reporter.mb_per_s["deflate/" + k];
    double md5 = reporter.mb_per_s["md5/" + k];
    double aes = reporter.mb_per_s["aes/" + k];
    if (chain <= 0 || defl <= 0 || md5 <= 0 || aes <= 0) {
      continue;
    }
    // Ratios of time per byte: 1.04 is 4% slower. The floor is deflate,
    // MD5 and AES run back to back: what any chain must spend; chain/floor
    // is what the stages themselves add.
    double floor = 1 / defl + 1 / md5 + 1 / aes;
    printf("%-7s %9.1f %9.1f %9.1f %9.1f %11.3f %11.3f %11.3f\n", k.c_str(),
           chain, defl, md5, aes, defl / chain, floor * defl,
           1 / chain / floor);
  }
  printf("(MB/s of input, 1 MB = 10^6 bytes; ratios of time per byte)\n");

  for (data_kind kind : {TEXT, RANDOM}) {
    unlink((temp_dir + "/" + KIND_NAMES[kind]).c_str());
  }
  rmdir(temp_dir.c_str());
  benchmark::Shutdown();
  return 0;
}
