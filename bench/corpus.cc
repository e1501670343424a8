// bench/corpus.cc: the data the tools are compared on, and the physical
// limits on it.
//
//   corpus small DIR       ~50,000 files, ~1 GB, in 500 nested folders
//   corpus large DIR       8 files of 128 MiB, half text-like, half random
//   corpus tree DIR N      N tiny files in N/100 folders (the index at scale)
//   corpus mutate KIND DIR     change 1% of the small files / append to one
//                              large file
//   corpus unmutate KIND DIR   put back what mutate changed
//   corpus night DIR N     change another 1% of the small files (night N)
//   corpus deflate DIR     single-core deflate-9 over every file
//   corpus chain DIR       the agent's filter chain over every file
//   corpus echo N          N request-reply round trips over loopback TCP
//
// Every file is a pure function of the seed and its number, so the corpus
// is the same on every machine and unmutate restores it exactly (only the
// modification times of the restored files differ). deflate and chain print
// one line: "bytes seconds MB/s"; both work in the service's 1 MiB blocks,
// each block its own stream, as the agent sends them. echo prints "N
// server-CPU-seconds client-CPU-seconds": the least a server can spend on
// an answered request, whatever it does with it.
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include <zlib.h>

#include "agent/filters.h"
#include "bench/sample_data.h"
#include "lib/scoped.h"

namespace {

constexpr uint64_t SEED = 0x6b6f767261ULL;
constexpr uint32_t MUTATE_EVERY = 100;  // 1%
constexpr uint32_t LARGE_FILES = 8;
constexpr size_t BLOCK = size_t{1} << 20;
constexpr uint8_t KEY[32] = {7, 1, 4, 2, 8, 5, 7, 1, 4, 2, 8, 5, 7, 1, 4, 2,
                             8, 5, 7, 1, 4, 2, 8, 5, 7, 1, 4, 2, 8, 5, 7, 1};

const char* const NAMES[] = {"photos", "notes",  "src",     "mail", "music",
                             "backup", "docs",   "archive", "tmp",  "work",
                             "home",   "report", "draft",   "old",  "shared",
                             "data",   "scans",  "letters", "misc", "build"};
constexpr size_t NAME_COUNT = sizeof NAMES / sizeof NAMES[0];

uint64_t splitmix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// A uniform draw in [0, 1) from the stream `salt` of file i.
double uniform(uint32_t i, uint64_t salt) {
  return static_cast<double>(splitmix(SEED ^ (uint64_t{i} << 20) ^ salt) >>
                             11) /
         static_cast<double>(uint64_t{1} << 53);
}

// KOVRA_CORPUS_SCALE shrinks every corpus for a quick trial of the runner.
double scale() {
  const char* s = getenv("KOVRA_CORPUS_SCALE");
  double f = s != nullptr ? atof(s) : 1.0;
  return f > 0 && f <= 1 ? f : 1.0;
}

uint32_t scaled(uint32_t n) {
  return std::max<uint32_t>(1, static_cast<uint32_t>(n * scale()));
}

const uint32_t SMALL_FILES = scaled(50000);
const uint32_t SMALL_FOLDERS = scaled(500);
const size_t LARGE_SIZE = size_t{scaled(128)} << 20;
const size_t LARGE_APPEND = size_t{scaled(4)} << 20;

[[noreturn]] void die(const std::string& what) {
  perror(what.c_str());
  exit(1);
}

void make_dir(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    die(path);
  }
}

void write_file(const std::string& path, std::string_view data) {
  unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (!fd || write(fd.get(), data.data(), data.size()) !=
                 static_cast<ssize_t>(data.size())) {
    die(path);
  }
}

// Folder k hangs below a random earlier one, which nests them a few levels
// deep as real trees are: most shallow, some deep.
std::vector<std::string> small_folders(const std::string& root) {
  std::vector<std::string> folders = {root};
  for (uint32_t k = 1; k < SMALL_FOLDERS; ++k) {
    uint32_t parent = static_cast<uint32_t>(uniform(k, 1) * k);
    folders.push_back(folders[parent] + "/" +
                      NAMES[static_cast<size_t>(uniform(k, 2) * NAME_COUNT)] +
                      "-" + std::to_string(k));
  }
  return folders;
}

struct small_file {
  std::string path;
  size_t size;
  bool text;
};

// Mostly a few KiB (exponential, mean 4 KiB), one in fifty between 16 KiB
// and 4 MiB (log-uniform); three in four text-like.
small_file small_file_of(const std::vector<std::string>& folders, uint32_t i) {
  small_file f;
  f.text = uniform(i, 3) < 0.75;
  double u = uniform(i, 4);
  if (uniform(i, 5) < 0.02) {
    f.size = static_cast<size_t>(16384.0 * std::pow(256.0, u));
  } else {
    f.size = static_cast<size_t>(std::min(-4096.0 * std::log1p(-u), 65536.0));
  }
  const std::string& folder =
      folders[static_cast<size_t>(uniform(i, 6) * SMALL_FOLDERS)];
  f.path = folder + "/" + NAMES[i % NAME_COUNT] + "-" + std::to_string(i) +
           (f.text ? ".txt" : ".bin");
  return f;
}

std::string small_content(const small_file& f, uint32_t i) {
  std::string s;
  uint64_t seed = splitmix(SEED + i);
  if (f.text) {
    append_text(&s, f.size, seed);
  } else {
    append_random(&s, f.size, seed);
  }
  return s;
}

void make_small(const std::string& root) {
  std::vector<std::string> folders = small_folders(root);
  for (const std::string& d : folders) {
    make_dir(d);
  }
  uint64_t total = 0;
  for (uint32_t i = 0; i < SMALL_FILES; ++i) {
    small_file f = small_file_of(folders, i);
    write_file(f.path, small_content(f, i));
    total += f.size;
  }
  printf("small: %u files, %.1f MB in %u folders\n", SMALL_FILES,
         static_cast<double>(total) / 1e6, SMALL_FOLDERS);
}

// A change in the middle of the file, as an edit makes: up to 8 KiB of new
// content of the same kind; an empty file gets some.
// Night 0 is mutate's 1%; night N (1..99) changes another 1% of the files
// in the same way, so that nights after one another change different files.
void mutate_small(const std::string& root, bool undo, uint32_t night = 0) {
  std::vector<std::string> folders = small_folders(root);
  uint32_t changed = 0;
  for (uint32_t i = night % MUTATE_EVERY; i < SMALL_FILES;
       i += MUTATE_EVERY) {
    small_file f = small_file_of(folders, i);
    std::string s = small_content(f, i);
    if (!undo) {
      size_t at = s.size() / 3;
      size_t n = std::max<size_t>(std::min<size_t>(s.size() - at, 8192), 64);
      std::string edit;
      if (f.text) {
        append_text(&edit, n, splitmix(SEED + i) + 1);
      } else {
        append_random(&edit, n, splitmix(SEED + i) + 1);
      }
      s.replace(at, std::min(n, s.size() - at), edit);
    }
    write_file(f.path, s);
    ++changed;
  }
  printf("small: %s %u files\n", undo ? "restored" : "changed", changed);
}

std::string large_path(const std::string& root, uint32_t i) {
  return root + "/large-" + std::to_string(i) +
         (i < LARGE_FILES / 2 ? ".txt" : ".bin");
}

void make_large(const std::string& root) {
  make_dir(root);
  for (uint32_t i = 0; i < LARGE_FILES; ++i) {
    std::string s;
    if (i < LARGE_FILES / 2) {
      append_text(&s, LARGE_SIZE, splitmix(SEED + 1000 + i));
    } else {
      append_random(&s, LARGE_SIZE, splitmix(SEED + 1000 + i));
    }
    write_file(large_path(root, i), s);
  }
  printf("large: %u files of %zu MiB\n", LARGE_FILES, LARGE_SIZE >> 20);
}

void mutate_large(const std::string& root, bool undo) {
  std::string path = large_path(root, 0);
  if (undo) {
    if (truncate(path.c_str(), static_cast<off_t>(LARGE_SIZE)) != 0) {
      die(path);
    }
    printf("large: %s back to %zu MiB\n", path.c_str(), LARGE_SIZE >> 20);
    return;
  }
  std::string s;
  append_text(&s, LARGE_APPEND, splitmix(SEED + 2000));
  unique_fd fd(open(path.c_str(), O_WRONLY | O_APPEND));
  if (!fd ||
      write(fd.get(), s.data(), s.size()) != static_cast<ssize_t>(s.size())) {
    die(path);
  }
  printf("large: appended %zu MiB to %s\n", LARGE_APPEND >> 20, path.c_str());
}

void make_tree(const std::string& root, uint32_t files) {
  uint32_t folders = std::max<uint32_t>(files / 100, 1);
  make_dir(root);
  for (uint32_t k = 0; k < folders; ++k) {
    make_dir(root + "/d" + std::to_string(k / 100));
    make_dir(root + "/d" + std::to_string(k / 100) + "/s" + std::to_string(k));
  }
  for (uint32_t i = 0; i < files; ++i) {
    uint32_t k = i % folders;
    std::string s;
    append_text(&s, static_cast<size_t>(uniform(i, 7) * 200), SEED + i);
    write_file(root + "/d" + std::to_string(k / 100) + "/s" +
                   std::to_string(k) + "/f" + std::to_string(i) + ".txt",
               s);
  }
  printf("tree: %u files in %u folders\n", files, folders);
}

// Every regular file below dir, in a fixed order.
void list_files(const std::string& dir, std::vector<std::string>* out) {
  dir_ptr d(opendir(dir.c_str()));
  if (!d) {
    die(dir);
  }
  std::vector<std::string> names;
  while (dirent* e = readdir(d.get())) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
      names.push_back(e->d_name);
    }
  }
  std::sort(names.begin(), names.end());
  for (const std::string& n : names) {
    std::string path = dir + "/" + n;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
      die(path);
    }
    if (S_ISDIR(st.st_mode)) {
      list_files(path, out);
    } else if (S_ISREG(st.st_mode)) {
      out->push_back(path);
    }
  }
}

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Bare deflate-9 of one block read with pread: the compressor alone, one
// stream per block as the agent makes them, its state reset rather than
// allocated again so that only compressing is measured.
size_t deflate_block(int fd, off_t offset, std::vector<uint8_t>* in,
                     std::vector<uint8_t>* out) {
  static z_stream z = [] {
    z_stream s{};
    if (deflateInit(&s, 9) != Z_OK) {
      fprintf(stderr, "corpus: deflateInit failed\n");
      exit(1);
    }
    return s;
  }();
  ssize_t n = pread(fd, in->data(), BLOCK, offset);
  if (n < 0) {
    die("pread");
  }
  deflateReset(&z);
  z.next_in = in->data();
  z.avail_in = static_cast<uInt>(n);
  z.next_out = out->data();
  z.avail_out = static_cast<uInt>(out->size());
  if (deflate(&z, Z_FINISH) != Z_STREAM_END) {
    fprintf(stderr, "corpus: deflate failed\n");
    exit(1);
  }
  return z.total_out;
}

// The agent's chain for one block: file source, MD5, deflate-9, AES-256-CBC,
// pulled in the backup's chunk size.
size_t chain_block(int fd, off_t offset, std::vector<uint8_t>* out) {
  uint8_t digest[16];
  filter_stream* head = aes_filter_open(
      deflate_filter_open(md5_filter_open(
          file_source_open(fd, offset, BLOCK, nullptr), digest)),
      KEY);
  if (head == nullptr) {
    die("filter chain");
  }
  size_t produced = 0;
  int32_t n;
  while ((n = head->read(head, out->data(), 65466)) > 0) {
    produced += static_cast<size_t>(n);
  }
  filter_chain_free(head);
  if (n != STREAM_END) {
    fprintf(stderr, "corpus: filter chain failed\n");
    exit(1);
  }
  return produced;
}

int measure(const std::string& dir, bool chain) {
  std::vector<std::string> files;
  list_files(dir, &files);
  std::vector<uint8_t> in(BLOCK);
  std::vector<uint8_t> out(compressBound(BLOCK) + 64);
  uint64_t bytes = 0, produced = 0;
  double start = now_s();
  for (const std::string& path : files) {
    unique_fd fd(open(path.c_str(), O_RDONLY));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0) {
      die(path);
    }
    off_t size = st.st_size;
    // An empty file is still one (empty) block.
    for (off_t at = 0; at == 0 || at < size; at += BLOCK) {
      produced += chain ? chain_block(fd.get(), at, &out)
                        : deflate_block(fd.get(), at, &in, &out);
    }
    bytes += static_cast<uint64_t>(size);
  }
  double secs = now_s() - start;
  printf("%llu %.3f %.2f\n", static_cast<unsigned long long>(bytes), secs,
         static_cast<double>(bytes) / secs / 1e6);
  fprintf(stderr, "%s: %zu files, %.1f MB in, %.1f MB out\n",
          chain ? "chain" : "deflate-9", files.size(),
          static_cast<double>(bytes) / 1e6,
          static_cast<double>(produced) / 1e6);
  return 0;
}

// CPU seconds in a rusage.
double cpu_seconds(const struct rusage& u) {
  auto s = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return s(u.ru_utime) + s(u.ru_stime);
}

bool exactly(int fd, void* buffer, size_t n, bool sending) {
  auto* p = static_cast<char*>(buffer);
  while (n > 0) {
    ssize_t got = sending ? send(fd, p, n, MSG_NOSIGNAL) : recv(fd, p, n, 0);
    if (got <= 0) {
      return false;
    }
    p += got;
    n -= static_cast<size_t>(got);
  }
  return true;
}

// A child answers packets of a request's size with packets of a reply's,
// as a server that did nothing else would; its CPU comes from wait4.
int echo(long count) {
  constexpr size_t kRequest = 64;
  constexpr size_t kReply = 48;
  unique_fd listener(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (!listener ||
      bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(listener.get(), 1) != 0 ||
      getsockname(listener.get(), reinterpret_cast<sockaddr*>(&addr),
                  &len) != 0) {
    perror("corpus: echo");
    return 1;
  }
  pid_t child = fork();
  if (child == 0) {
    unique_fd peer(accept(listener.get(), nullptr, nullptr));
    int one = 1;
    setsockopt(peer.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    char buffer[kRequest] = {};
    while (exactly(peer.get(), buffer, kRequest, false) &&
           exactly(peer.get(), buffer, kReply, true)) {
    }
    _exit(0);
  }
  unique_fd link(socket(AF_INET, SOCK_STREAM, 0));
  int one = 1;
  setsockopt(link.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (connect(link.get(), reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    perror("corpus: echo");
    return 1;
  }
  char buffer[kRequest] = {};
  for (long i = 0; i < count; ++i) {
    if (!exactly(link.get(), buffer, kRequest, true) ||
        !exactly(link.get(), buffer, kReply, false)) {
      perror("corpus: echo");
      return 1;
    }
  }
  link.reset();
  int status = 0;
  struct rusage server = {};
  struct rusage client = {};
  wait4(child, &status, 0, &server);
  getrusage(RUSAGE_SELF, &client);
  printf("%ld %.3f %.3f\n", count, cpu_seconds(server), cpu_seconds(client));
  return 0;
}

int usage() {
  fputs(
      "usage: corpus small|large DIR\n"
      "       corpus tree DIR FILES\n"
      "       corpus mutate|unmutate small|large DIR\n"
      "       corpus night DIR N\n"
      "       corpus deflate|chain DIR\n"
      "       corpus echo ROUND_TRIPS\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> a(argv + 1, argv + argc);
  if (a.size() == 2 && a[0] == "small") {
    make_small(a[1]);
  } else if (a.size() == 2 && a[0] == "large") {
    make_large(a[1]);
  } else if (a.size() == 3 && a[0] == "tree") {
    make_tree(a[1], static_cast<uint32_t>(strtoul(a[2].c_str(), nullptr, 10)));
  } else if (a.size() == 3 && (a[0] == "mutate" || a[0] == "unmutate")) {
    bool undo = a[0] == "unmutate";
    if (a[1] == "small") {
      mutate_small(a[2], undo);
    } else if (a[1] == "large") {
      mutate_large(a[2], undo);
    } else {
      return usage();
    }
  } else if (a.size() == 3 && a[0] == "night") {
    mutate_small(a[1], false,
                 static_cast<uint32_t>(strtoul(a[2].c_str(), nullptr, 10)));
  } else if (a.size() == 2 && (a[0] == "deflate" || a[0] == "chain")) {
    return measure(a[1], a[0] == "chain");
  } else if (a.size() == 2 && a[0] == "echo") {
    return echo(strtol(a[1].c_str(), nullptr, 10));
  } else {
    return usage();
  }
  return 0;
}
