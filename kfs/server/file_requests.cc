// Requests on the user's files: uploads block by block, and reading a
// complete file back.
#include <string.h>

#include <algorithm>

#include "kfs/server/kfsd_internal.h"

namespace {

// Write sub-operations, without the no-acknowledgement bit.
constexpr uint8_t kBeginBlock = 1;
constexpr uint8_t kBlockData = 0;
constexpr uint8_t kEndBlock = 2;
constexpr size_t kMaxAttr = 255;  // far above the agent's 13 bytes
constexpr uint8_t kPieceEndsBlock = 0x01;
constexpr uint8_t kPieceEndsFile = 0x02;

kfsd_handle* find_handle(kfsd_conn* conn, uint8_t h, bool writing) {
  auto it = conn->handles.find(h);
  return it != conn->handles.end() && it->second->writing == writing
             ? it->second.get()
             : nullptr;
}

// The most a block's stream may take: deflate's worst case and the
// cipher's padding stay far below it, and a client that sends more is not
// held in memory.
uint64_t stream_limit(uint32_t block_size) {
  return uint64_t{block_size} + block_size / 8 + 65536;
}

// Drops the data of a block that was begun but not ended.
void abandon_block(kfsd_handle* h) {
  h->in_block = false;
  std::string().swap(h->data);
}

uint32_t begin_block(kfsd_conn* conn, kfsd_handle* h, const uint8_t* md5) {
  abandon_block(h);
  if (h->block + 1 >= h->block_count) {
    return ERR_BADKEY;
  }
  ++h->block;
  if (md5 != nullptr) {
    if (h->rows_queued) {  // the digests are compared with the upload's rows
      conn->server->writer->drain(h->path);
      h->rows_queued = false;
    }
    uint32_t r = kfsd_store_skip_block(&conn->server->store, h->version,
                                       static_cast<uint32_t>(h->block), md5);
    if (r != 0) {
      return r;  // ERR_UP2DATE: skipped and counted as received
    }
  }
  if (!h->sha256) {
    h->sha256.reset(EVP_MD_CTX_new());
  }
  if (!h->sha256 ||
      EVP_DigestInit_ex(h->sha256.get(), EVP_sha256(), nullptr) != 1) {
    return ERR_IO;
  }
  h->in_block = true;
  h->data.clear();
  return 0;
}

uint32_t block_data(kfsd_handle* h, const uint8_t* data, uint16_t n) {
  if (!h->in_block) {
    return ERR_BADKEY;
  }
  if (h->data.size() + n > stream_limit(h->block_size) ||
      EVP_DigestUpdate(h->sha256.get(), data, n) != 1) {
    abandon_block(h);  // the block stays missing; the close says so
    return ERR_IO;
  }
  h->data.append(reinterpret_cast<const char*>(data), n);
  return 0;
}

// Queues the block for the store; an answered end waits for it and
// answers its result, the usual unanswered one goes on at once.
uint32_t end_block(kfsd_conn* conn, kfsd_handle* h, const uint8_t* md5,
                   bool answered) {
  if (!h->in_block) {
    return ERR_BADKEY;
  }
  uint8_t digest[32];
  unsigned int digest_length = 0;
  bool ok = EVP_DigestFinal_ex(h->sha256.get(), digest, &digest_length) == 1;
  h->in_block = false;
  if (!ok) {
    abandon_block(h);
    return ERR_IO;
  }
  uint32_t status = 0;
  kfsd_write_job job;
  job.version = h->version;
  job.path = h->path;
  job.index = static_cast<uint32_t>(h->block);
  job.has_md5 = md5 != nullptr;
  if (md5 != nullptr) {
    memcpy(job.md5, md5, sizeof job.md5);
  }
  job.data = std::move(h->data);
  h->data = std::string();
  char hex[65];
  for (unsigned i = 0; i < 32; ++i) {
    snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  }
  job.sha256_hex = hex;
  job.status = answered ? &status : nullptr;
  kfsd_writer* writer = conn->server->writer.get();
  writer->push(std::move(job));
  if (answered) {
    writer->drain(h->path);
  }
  return status;
}

}  // namespace

int kfsd_request_wopen(kfsd_request* req) {
  kfsd_conn* conn = req->conn;
  kfs_reader* in = &req->in;
  std::string raw, attr;
  kfs_get_u8(in);  // open flags: always "for writing"
  // The agent sends the low 32 bits of its (sign-extended) time.
  int64_t mtime = static_cast<int32_t>(kfs_get_u32(in));
  kfsd_get_text(in, 2, &raw);
  uint64_t size = static_cast<uint64_t>(kfs_get_u32(in)) << 32;
  size |= kfs_get_u32(in);
  kfsd_get_text(in, 2, &attr);
  if (!kfsd_body_done(in)) {
    return KFSD_DROP;
  }
  kfsd_path path;
  if (!kfsd_request_path(req, raw, &path)) {
    return KFSD_REPLY;
  }
  if (!kfsd_holds_lock(conn) || path.read_only()) {
    req->status = ERR_ACCESS;  // the past is not written to
    return KFSD_REPLY;
  }
  // Other files' uploads may still be finishing; this one's must be done
  // before its versions are looked at.
  conn->server->writer->drain(path.full);
  uint8_t handle = kfsd_free_handle(conn->handles);
  if (attr.size() > kMaxAttr) {
    req->status = ERR_INVARG;
    return KFSD_REPLY;
  }
  if (conn->handles.size() >= KFSD_MAX_HANDLES || handle == 0) {
    req->status = ERR_FDMAX;
    return KFSD_REPLY;
  }
  kfsd_wopen_result r;
  req->status =
      kfsd_store_wopen(&conn->server->store, conn->uid, path, mtime, size, attr,
                       conn->server->settings.block_size, &r);
  if (req->status != 0) {
    return KFSD_REPLY;
  }
  kfsd_write_job job;
  job.version = r.version;
  job.path = path.full;
  job.open = std::move(r.rows);
  conn->server->writer->push(std::move(job));
  auto h = std::make_unique<kfsd_handle>();
  h->writing = true;
  h->rows_queued = true;
  h->version = r.version;
  h->path = path.full;
  h->block_count = r.block_count;
  h->block_size = r.block_size;
  conn->handles[handle] = std::move(h);
  kfs_put_u8(&req->out, handle);
  kfs_put_u16(&req->out, static_cast<uint16_t>(r.block_count));
  kfs_put_u32(&req->out, r.block_size);
  kfs_put_u16(&req->out, static_cast<uint16_t>(r.comparable));
  return KFSD_REPLY;
}

int kfsd_request_write(kfsd_request* req) {
  kfs_reader* in = &req->in;
  uint8_t handle = kfs_get_u8(in);
  uint8_t flags = kfs_get_u8(in);
  uint16_t n = kfs_get_u16(in);
  const uint8_t* data = in->data + std::min(in->pos, in->length);
  if (!kfs_reader_ok(in) || n != in->length - in->pos) {
    return KFSD_DROP;
  }
  uint8_t op = flags & static_cast<uint8_t>(~KFS_WRITE_NO_ACK);
  req->note = "handle " + std::to_string(handle) + " op " + std::to_string(op) +
              " " + std::to_string(n) + " bytes";
  kfsd_handle* h = find_handle(req->conn, handle, true);
  if (h == nullptr) {
    req->status = ERR_BADKEY;
  } else if (op == kBeginBlock && (n == 0 || n == 16)) {
    req->status = begin_block(req->conn, h, n == 16 ? data : nullptr);
  } else if (op == kBlockData) {
    req->status = block_data(h, data, n);
  } else if (op == kEndBlock && (n == 0 || n == 16)) {
    req->status = end_block(req->conn, h, n == 16 ? data : nullptr,
                            (flags & KFS_WRITE_NO_ACK) == 0);
  } else {
    req->status = ERR_INVARG;
  }
  if ((flags & KFS_WRITE_NO_ACK) != 0) {
    return KFSD_SILENT;
  }
  bool taken = req->status == 0 || req->status == ERR_UP2DATE;
  kfs_put_u16(&req->out, taken ? n : 0);
  return KFSD_REPLY;
}

int kfsd_request_close(kfsd_request* req) {
  kfsd_conn* conn = req->conn;
  uint8_t handle = kfs_get_u8(&req->in);
  if (!kfsd_body_done(&req->in)) {
    return KFSD_DROP;
  }
  req->note = "handle " + std::to_string(handle);
  auto it = conn->handles.find(handle);
  if (it == conn->handles.end()) {
    req->status = ERR_BADKEY;
    return KFSD_SILENT;
  }
  kfsd_handle* h = it->second.get();
  kfsd_handle_free(conn, h);  // a block begun but not ended stays missing
  if (h->writing) {
    kfsd_write_job job;
    job.version = h->version;
    job.path = h->path;
    job.close = true;
    conn->server->writer->push(std::move(job));  // a close is never answered
  }
  conn->handles.erase(it);
  return KFSD_SILENT;
}

int kfsd_request_ropen(kfsd_request* req) {
  kfsd_conn* conn = req->conn;
  std::string raw;
  kfsd_get_text(&req->in, 2, &raw);
  if (!kfsd_body_done(&req->in)) {
    return KFSD_DROP;
  }
  kfsd_path path;
  if (!kfsd_request_path(req, raw, &path)) {
    return KFSD_REPLY;
  }
  uint8_t handle = kfsd_free_handle(conn->handles);
  if (conn->handles.size() >= KFSD_MAX_HANDLES || handle == 0) {
    req->status = ERR_FDMAX;
    return KFSD_REPLY;
  }
  conn->server->writer->drain(path.full);  // an upload just closed
  kfsd_ropen_result r;
  req->status = kfsd_store_ropen(&conn->server->store, path, &r);
  if (req->status != 0) {
    return KFSD_REPLY;
  }
  auto h = std::make_unique<kfsd_handle>();
  h->blocks = std::move(r.blocks);
  kfs_put_u8(&req->out, handle);
  kfs_put_u32(&req->out, static_cast<uint32_t>(r.mtime));
  kfs_put_u16(&req->out, static_cast<uint16_t>(h->blocks.size()));
  kfs_put_u64(&req->out, r.size);
  kfs_put_u16(&req->out, static_cast<uint16_t>(r.attr.size()));
  kfs_put_bytes(&req->out, r.attr.data(), static_cast<uint32_t>(r.attr.size()));
  conn->handles[handle] = std::move(h);
  return KFSD_REPLY;
}

int kfsd_request_read(kfsd_request* req) {
  kfs_reader* in = &req->in;
  uint8_t handle = kfs_get_u8(in);
  uint16_t max = kfs_get_u16(in);
  if (in->length - std::min(in->pos, in->length) == 17) {
    uint8_t digest[17];  // a zero byte and a digest: accepted, not used
    kfs_get_bytes(in, digest, sizeof digest);
  }
  if (!kfsd_body_done(in)) {
    return KFSD_DROP;
  }
  req->note = "handle " + std::to_string(handle);
  kfsd_handle* h = find_handle(req->conn, handle, false);
  if (h == nullptr) {
    req->status = ERR_BADKEY;
    return KFSD_REPLY;
  }
  size_t count = h->blocks.size();
  if (h->read_block >= count) {
    kfs_put_u8(&req->out, kPieceEndsFile);
    kfs_put_u16(&req->out, 0);
    return KFSD_REPLY;
  }
  const kfsd_stream_loc& loc = h->blocks[h->read_block];
  uint64_t left = loc.length - h->read_offset;
  size_t want =
      static_cast<size_t>(std::min<uint64_t>({max, left, KFS_MAX_BODY - 3}));
  // Straight into the reply: the body has room for the piece's header and
  // KFS_MAX_BODY - 3 bytes.
  kfs_put_u8(&req->out, 0);
  kfs_put_u16(&req->out, static_cast<uint16_t>(want));
  if (!kfsd_stream_read(&req->conn->server->store, &h->reader, loc,
                        h->read_offset, req->out.data + req->out.length,
                        want)) {
    req->out.length = 0;
    req->status = ERR_IO;
    return KFSD_REPLY;
  }
  req->out.length += static_cast<uint32_t>(want);
  h->read_offset += want;
  uint8_t piece = 0;
  if (h->read_offset == loc.length) {
    piece = kPieceEndsBlock;
    h->read_offset = 0;
    if (++h->read_block == count) {
      piece |= kPieceEndsFile;
    }
  }
  req->out.data[0] = piece;
  return KFSD_REPLY;
}
