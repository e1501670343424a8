// The per-file backup: the index check, the remote open, the blocks (offered
// by digest where the service can compare them, else streamed through the
// filter chain), the close and the index record.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/config.h"
#include "agent/fci/fci.h"
#include "agent/filters.h"
#include "agent/job.h"
#include "agent/report.h"
#include "agent/walk.h"
#include "agent/walk_internal.h"
#include "lib/scoped.h"

namespace {

// The largest piece of a block's stream sent in one write request: the size
// the service has always received from the agent, which leaves the
// protocol's own limit some room.
constexpr uint32_t CHUNK_SIZE = 65466;
static_assert(CHUNK_SIZE <= KFS_MAX_WRITE_DATA);

// Restarts after transient failures end here, so a service that keeps
// dropping the link cannot hold the walk on one file for ever.
constexpr int MAX_ATTEMPTS = 20;
constexpr uint32_t DIGEST_SIZE = 16;  // MD5
constexpr uint16_t ATTRIBUTE_SIZE = 13;
constexpr uint8_t WOPEN_FLAGS = 1;

// One per process: chunks are sent one at a time, and 64 KiB is too much
// for the stack of a deep walk.
uint8_t transfer[CHUNK_SIZE];

// How one attempt at a file, or one block of it, ended.
enum : int {
  SENT = 0,     // all went through
  RESTART = 1,  // the service lost the handle or the link: start over
  FAILED = 2,   // reported already; the remote file is to be closed
};

// The open file of one attempt.
struct upload {
  kfs_session* session;
  const uint8_t* key;
  const char* local_path;
  int fd;
  const kfs_wopen_args* layout;  // the open's reply: handle, blocks
};

// After these the service no longer knows our handle (a re-connection or a
// forgotten upload); the file is worth another attempt from the start.
bool is_transient(uint32_t rc) {
  return rc == ERR_BADKEY || rc == ERR_SCKREAD;
}

uint32_t write_piece(const upload* u, uint8_t op, const void* data,
                     uint32_t n) {
  kfs_write_args args = {u->layout->handle, op, n, data, 0};
  return kfs_file_write(u->session, &args);
}

// Owner, group and mode as the restore will set them, each 32 bits in the
// box's byte order behind a present byte. Taken with stat (through links)
// just before the open; without it the open carries no record.
uint16_t attribute_record(const char* path, uint8_t out[ATTRIBUTE_SIZE]) {
  struct stat st;
  if (stat(path, &st) != 0) {
    return 0;
  }
  uint32_t uid = st.st_uid;
  uint32_t gid = st.st_gid;
  uint32_t mode = st.st_mode;
  out[0] = 1;
  memcpy(out + 1, &uid, 4);
  memcpy(out + 5, &gid, 4);
  memcpy(out + 9, &mode, 4);
  return ATTRIBUTE_SIZE;
}

// Pulls the block's stream from the chain and sends it in chunks.
int send_stream(const upload* u, filter_stream* head) {
  for (;;) {
    int32_t n = head->read(head, transfer, CHUNK_SIZE);
    if (n == STREAM_FATAL) {
      report_failure_message("Internal fatal error! Backup aborted.");
      exit(1);
    }
    if (n < 0) {
      // The end, or a local read error: the block then ends short, and the
      // digest sent with its end covers exactly what was sent.
      return SENT;
    }
    ++job_progress_tick;
    uint32_t rc = write_piece(u, KFS_WRITE_BLOCK_DATA, transfer,
                              static_cast<uint32_t>(n));
    if (is_transient(rc)) {
      return RESTART;
    }
    if (rc != 0) {
      report_error_code(u->local_path, rc);
      return FAILED;
    }
    if (n == 0) {
      return SENT;
    }
  }
}

int send_block(const upload* u, uint32_t index) {
  ++job_progress_tick;
  const kfs_wopen_args* layout = u->layout;
  int64_t offset = int64_t{index} * layout->block_size;
  // A single block is never compared: the service keeps no digest for it.
  bool single = layout->block_count == 1;
  bool comparable = !single && index < layout->comparable;
  bool digest_while_streaming = !single && !comparable;
  uint8_t digest[DIGEST_SIZE] = {};
  if (comparable &&
      fci_range_md5(u->fd, offset, layout->block_size, digest) != 0) {
    report_error_errno(u->local_path, errno);
    return FAILED;
  }
  uint32_t rc = write_piece(u, KFS_WRITE_BEGIN_BLOCK, digest,
                            comparable ? DIGEST_SIZE : 0);
  if (rc == ERR_UP2DATE) {
    return SENT;  // the service holds this block as it is
  }
  if (is_transient(rc)) {
    return RESTART;
  }
  if (rc != 0) {
    report_error_code(u->local_path, rc);
    return FAILED;
  }

  filter_stream* plain =
      file_source_open(u->fd, offset, layout->block_size, nullptr);
  if (digest_while_streaming) {
    plain = md5_filter_open(plain, digest);
  }
  filter_stream* head = aes_filter_open(deflate_filter_open(plain), u->key);
  if (head == nullptr) {
    report_error_errno(u->local_path, -1);
    return FAILED;
  }
  int sent = send_stream(u, head);
  filter_chain_free(head);
  if (sent != SENT) {
    return sent;
  }

  rc = write_piece(u, KFS_WRITE_END_BLOCK, digest, single ? 0 : DIGEST_SIZE);
  if (is_transient(rc)) {
    return RESTART;
  }
  if (rc != 0) {
    report_error_code(u->local_path, rc);
    return FAILED;
  }
  return SENT;
}

}  // namespace

void backup_file_with_key(kfs_session* session, const uint8_t* key,
                          const char* local_path, const char* remote_path,
                          const struct stat* st) {
  assert(key != nullptr);
  ++job_progress_tick;
  // The index and the service keep 32-bit times.
  uint32_t mtime = static_cast<uint32_t>(st->st_mtime);
  uint64_t size = static_cast<uint64_t>(st->st_size);
  int unchanged = 0;
  if (fci_lookup(fci_run_context(), local_path, mtime,
                 static_cast<uint32_t>(size), static_cast<uint32_t>(size >> 32),
                 &unchanged) != 0) {
    unchanged = 0;  // the index failed: the service decides instead
  }
  if (unchanged != 0) {
    index_record(local_path, mtime, size);
    report_file_up_to_date(local_path);
    return;
  }

  unique_fd fd;
  for (int attempts = 0;;) {
    uint8_t attributes[ATTRIBUTE_SIZE];
    kfs_wopen_args layout = {};
    layout.flags = WOPEN_FLAGS;
    layout.value_a = mtime;
    layout.path = remote_path;
    layout.value_b = static_cast<uint32_t>(size >> 32);
    layout.value_c = static_cast<uint32_t>(size);
    layout.extra_len = attribute_record(local_path, attributes);
    layout.extra = layout.extra_len != 0 ? attributes : nullptr;
    uint32_t rc = retry_open_remote_file(session, &layout);
    if (rc == ERR_UP2DATE) {
      // The service has just confirmed this very version; recording it
      // spares an open request on every later run.
      index_record(local_path, mtime, size);
      report_file_up_to_date(local_path);
      return;
    }
    if (rc != 0) {
      report_error_code(local_path, rc);
      return;
    }
    if (!fd) {
      fd.reset(open(local_path, O_RDONLY));
      if (!fd) {
        int error = errno;
        kfs_file_close(session, layout.handle);
        if (error != ENOENT) {  // a file gone since the walk is no error
          report_error_errno(local_path, error);
        }
        return;
      }
    }

    upload u = {session, key, local_path, fd.get(), &layout};
    int outcome = SENT;
    for (uint32_t i = 0; i < layout.block_count && outcome == SENT; ++i) {
      outcome = send_block(&u, i);
    }
    if (outcome == RESTART) {
      // The remote handle is not closed: after a dropped link it went with
      // the connection, and the next open hands out a fresh one.
      if (++attempts == MAX_ATTEMPTS) {
        report_error_code(local_path, ERR_BADKEY);
        return;
      }
      if (lseek(fd.get(), 0, SEEK_SET) != 0) {
        // Harmless: every block's source seeks to its own offset.
      }
      continue;
    }
    kfs_file_close(session, layout.handle);
    if (outcome == SENT) {
      index_record(local_path, mtime, size);
      report_file_sent(local_path);
    }
    return;
  }
}

void backup_file(kfs_session* session, const char* local_path,
                 const char* remote_path, const struct stat* st) {
  const job_settings* settings = job_config();
  assert(settings != nullptr);
  backup_file_with_key(session, settings->account_key, local_path, remote_path,
                       st);
}
