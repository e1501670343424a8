// One connection: the key exchange, then requests read, dispatched and
// answered until the peer leaves or misbehaves. Whatever the connection
// held (its user's lock, open uploads and reads, listings) is given up
// when it ends.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <utility>
#include <vector>

#include "kfs/client/kfs.h"
#include "kfs/server/kfsd_internal.h"
#include "lib/alloc.h"

namespace {

// A peer gets this long for the key exchange; a logged-in agent may pause
// much longer between requests (it walks and compresses in between).
constexpr int kHandshakeSeconds = 30;
constexpr int kIdleSeconds = 3600;

using handler_fn = int (*)(kfsd_request*);

struct route {
  uint8_t type;
  handler_fn fn;
};

constexpr route kRoutes[] = {
    {KFS_SESSION_AUTH, kfsd_request_auth},
    {KFS_USER_LOCK, kfsd_request_user_lock},
    {KFS_EMAIL, kfsd_request_email},
    {KFS_MKDIR, kfsd_request_mkdir},
    {KFS_FIND_FILES, kfsd_request_find_files},
    {KFS_FILE_WOPEN, kfsd_request_wopen},
    {KFS_FILE_WRITE, kfsd_request_write},
    {KFS_FILE_CLOSE, kfsd_request_close},
    {KFS_FILE_ROPEN, kfsd_request_ropen},
    {KFS_FILE_READ, kfsd_request_read},
};

void set_receive_timeout(int sock, int seconds) {
  struct timeval tv = {seconds, 0};
  // Without it a silent peer only holds its own thread; not fatal.
  if (setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) {
  }
}

// Close and data-only writes are never answered, whatever happens to them.
bool is_answered(const kfs_message* in) {
  if (in->type == KFS_FILE_CLOSE) {
    return false;
  }
  return !(in->type == KFS_FILE_WRITE && in->data_length >= 2 &&
           (in->buffer[1] & KFS_WRITE_NO_ACK) != 0);
}

}  // namespace

int kfsd_dispatch(kfsd_request* req, const kfs_message* in) {
  handler_fn fn = nullptr;
  for (const route& r : kRoutes) {
    if (r.type == in->type) {
      fn = r.fn;
    }
  }
  // Requests that look at what queued writes change wait for those
  // themselves (kfsd_writer): the rest never wait for the disk.
  if (fn == nullptr) {
    req->status = ERR_INVARG;
  } else if (in->type != KFS_SESSION_AUTH && !req->conn->authenticated) {
    // Nothing is held before a login, the lock included.
    req->status = ERR_ACCESS;
  } else {
    return fn(req);
  }
  return is_answered(in) ? KFSD_REPLY : KFSD_SILENT;
}

namespace {

void log_request(const kfsd_conn* conn, const kfs_message* in,
                 const kfsd_request* req, int action) {
  const char* result =
      action == KFSD_DROP ? "dropped: malformed" : kfs_err_name(req->status);
  kfsd_log("#%llu %s %s -> %s%s", static_cast<unsigned long long>(conn->id),
           kfs_type_name(in->type), req->note.c_str(), result,
           action == KFSD_SILENT ? " (no reply)" : "");
}

// Packets as they arrive: a client sends a block's data, its end and the
// file's close without waiting, so one read takes several at once instead
// of two reads a packet.
class packet_reader {
 public:
  explicit packet_reader(int sock) : sock_(sock), buffer_(kSize) {}

  // The next whole packet, deciphered into message: 0, or ERR_SCKREAD for
  // the end of the stream, a failed read or a packet that does not check.
  uint32_t next(kfs_packet_cipher* cipher, kfs_message* message) {
    if (!fill(KFS_HEADER_SIZE)) {
      return ERR_SCKREAD;
    }
    uint32_t length =
        static_cast<uint32_t>(buffer_[start_]) << 8 | buffer_[start_ + 1];
    size_t whole = KFS_HEADER_SIZE + (length == 0 ? 65536 : length);
    if (!fill(whole)) {
      return ERR_SCKREAD;
    }
    uint32_t rc =
        kfs_packet_decode(cipher, buffer_.data() + start_, whole, message);
    start_ += whole;
    return rc;
  }

 private:
  static constexpr size_t kSize = 4 * (KFS_HEADER_SIZE + 65536);

  // At least n bytes from start_ on: moves what is left to the front when
  // the rest would not fit, then reads what the socket has.
  bool fill(size_t n) {
    if (end_ - start_ >= n) {
      return true;
    }
    if (start_ + n > kSize) {
      memmove(buffer_.data(), buffer_.data() + start_, end_ - start_);
      end_ -= start_;
      start_ = 0;
    }
    while (end_ - start_ < n) {
      ssize_t got = recv(sock_, buffer_.data() + end_, kSize - end_, 0);
      if (got < 0 && errno == EINTR) {
        continue;
      }
      if (got <= 0) {
        return false;
      }
      end_ += static_cast<size_t>(got);
    }
    return true;
  }

  int sock_;
  std::vector<uint8_t> buffer_;
  size_t start_ = 0;
  size_t end_ = 0;
};

void serve(kfsd_conn* conn, kfs_packet_cipher* cipher) {
  malloc_ptr<kfs_message> in(
      static_cast<kfs_message*>(xzalloc(sizeof(kfs_message))));
  malloc_ptr<kfs_message> out(
      static_cast<kfs_message*>(xzalloc(sizeof(kfs_message))));
  bool verbose = conn->server->settings.verbose;
  packet_reader packets(conn->sock);
  for (;;) {
    if (packets.next(cipher, in.get()) != 0) {
      if (verbose) {
        kfsd_log("#%llu closed: end of stream or a bad packet",
                 static_cast<unsigned long long>(conn->id));
      }
      return;
    }
    if (in->type >= KFS_RESPONSE) {
      if (verbose) {
        kfsd_log("#%llu dropped: a response sent as a request",
                 static_cast<unsigned long long>(conn->id));
      }
      return;
    }
    kfsd_request req;
    req.conn = conn;
    kfs_reader_begin(in.get(), &req.in);
    kfs_body_begin(out.get(), &req.out);
    int action = kfsd_dispatch(&req, in.get());
    if (verbose) {
      log_request(conn, in.get(), &req, action);
    }
    if (action == KFSD_DROP) {
      return;
    }
    if (action == KFSD_REPLY) {
      out->sequence = in->sequence;
      out->status = static_cast<uint8_t>(req.status);
      kfs_request_finish(out.get(), in->type + KFS_RESPONSE, req.out.length);
      if (kfs_packet_send(conn->sock, cipher, out.get()) != 0) {
        return;
      }
    }
  }
}

}  // namespace

void kfsd_log(const char* format, ...) {
  // One write per line, so lines of different connections do not mix.
  char line[1024];
  int n = snprintf(line, sizeof line, "kfsd: ");
  va_list args;
  va_start(args, format);
  vsnprintf(line + n, sizeof line - static_cast<size_t>(n) - 1, format, args);
  va_end(args);
  size_t len = strlen(line);
  line[len] = '\n';
  if (fd_write_all(STDERR_FILENO, line, static_cast<int64_t>(len + 1)) < 0) {
    // Standard error is gone; the log is best effort.
  }
}

bool kfsd_get_text(kfs_reader* in, int len_size, std::string* out) {
  uint32_t n = len_size == 1 ? kfs_get_u8(in) : kfs_get_u16(in);
  if (!kfs_reader_ok(in) || n > in->length - in->pos) {
    in->failed = true;
    return false;
  }
  out->assign(reinterpret_cast<const char*>(in->data + in->pos), n);
  in->pos += n;
  return true;
}

bool kfsd_body_done(const kfs_reader* in) {
  return kfs_reader_ok(in) && in->pos == in->length;
}

bool kfsd_request_path(kfsd_request* req, const std::string& raw,
                       kfsd_path* out) {
  req->note = raw;
  req->status = kfsd_path_parse(raw, req->conn->uid, out);
  return req->status == 0;
}

std::string kfsd_user_prefix(uint32_t uid) {
  // Appended rather than "/" + ...: g++ 12 warns wrongly about the latter.
  std::string prefix = "/";
  prefix += std::to_string(uid);
  prefix += '/';
  return prefix;
}

bool kfsd_holds_lock(kfsd_conn* conn) {
  std::lock_guard<std::mutex> hold(conn->server->lock_mutex);
  auto it = conn->server->locks.find(conn->uid);
  return conn->authenticated && it != conn->server->locks.end() &&
         it->second.conn == conn->id;
}

void kfsd_handle_free(kfsd_conn* conn, kfsd_handle* handle) {
  handle->in_block = false;
  std::string().swap(handle->data);
  if (!handle->blocks.empty()) {
    kfsd_store_unpin(&conn->server->store, handle->blocks);
    handle->blocks.clear();
  }
}

void kfsd_connection_run(kfsd_server* server, uint64_t id, int sock) {
  kfsd_conn conn;
  conn.server = server;
  conn.id = id;
  conn.sock = sock;
  set_receive_timeout(sock, kHandshakeSeconds);
  kfs_packet_cipher* cipher = kfsd_handshake(server, sock);
  if (cipher == nullptr) {
    if (server->settings.verbose) {
      kfsd_log("#%llu dropped: failed key exchange",
               static_cast<unsigned long long>(id));
    }
    return;
  }
  set_receive_timeout(sock, kIdleSeconds);
  serve(&conn, cipher);
  kfs_cipher_free(cipher);

  // Uploads still open stay as they are: incomplete, listed as such, and
  // resumable by a later upload of the same file.
  for (auto& [handle, h] : conn.handles) {
    kfsd_handle_free(&conn, h.get());
  }
  {
    std::lock_guard<std::mutex> hold(server->lock_mutex);
    auto it = server->locks.find(conn.uid);
    if (conn.authenticated && it != server->locks.end() &&
        it->second.conn == id) {
      server->locks.erase(it);
    }
  }
  // The lock goes at once: an agent that lost its link logs in again and
  // retries its lock within moments, and whatever it then looks at waits
  // for the writes it depends on anyway. The flush still follows.
  if (conn.authenticated) {
    server->writer->drain(kfsd_user_prefix(conn.uid));
  }
}
