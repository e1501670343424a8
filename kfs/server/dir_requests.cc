// Requests on the user's directories: creating them, and listings that
// continue over as many replies as they need.
#include "kfs/server/kfsd_internal.h"

namespace {

// An entry: u8 kind, u32 attribute, u64 time, u64 size, the name's length.
constexpr size_t kEntryFixed = 1 + 4 + 8 + 8;
// A reply: u16 count, u32 remaining, u8 handle.
constexpr size_t kListingHeader = 2 + 4 + 1;

}  // namespace

int kfsd_request_mkdir(kfsd_request* req) {
  std::string raw;
  kfs_get_u8(&req->in);  // flags: none defined
  kfsd_get_text(&req->in, 2, &raw);
  if (!kfsd_body_done(&req->in)) {
    return KFSD_DROP;
  }
  kfsd_path path;
  if (!kfsd_request_path(req, raw, &path)) {
    return KFSD_REPLY;
  }
  if (!kfsd_holds_lock(req->conn) || path.read_only()) {
    req->status = ERR_ACCESS;  // the past is not written to
    return KFSD_REPLY;
  }
  req->conn->server->writer->drain(path.full);  // a file's entry may be queued
  req->status =
      kfsd_store_mkdir(&req->conn->server->store, req->conn->uid, path);
  return KFSD_REPLY;
}

int kfsd_request_find_files(kfsd_request* req) {
  kfsd_conn* conn = req->conn;
  uint8_t handle = kfs_get_u8(&req->in);
  uint8_t flags = kfs_get_u8(&req->in);
  std::string dir, pattern;
  kfsd_get_text(&req->in, 1, &dir);
  kfsd_get_text(&req->in, 2, &pattern);
  if (!kfsd_body_done(&req->in)) {
    return KFSD_DROP;
  }
  kfsd_listing fresh;
  kfsd_listing* listing = &fresh;
  if (handle == 0) {
    kfsd_path path;
    if (!kfsd_request_path(req, dir, &path)) {
      return KFSD_REPLY;
    }
    // Closes just sent; for the past, a run's end with its retention.
    conn->server->writer->drain(path.read_only() ? kfsd_user_prefix(conn->uid)
                                                 : path.full + "/");
    req->status =
        kfsd_store_list(&conn->server->store, path, pattern, &fresh.entries);
    if (req->status != 0) {
      return KFSD_REPLY;
    }
    fresh.wide_names = (flags & 0x01) != 0;
  } else {
    req->note = "continue " + std::to_string(handle);
    auto it = conn->listings.find(handle);
    if (it == conn->listings.end()) {
      req->status = ERR_BADKEY;
      return KFSD_REPLY;
    }
    listing = &it->second;
    // Names are coded as this request asks: the client reads each reply
    // by the flags of the request it sent, continuations included.
    listing->wide_names = (flags & 0x01) != 0;
  }

  const std::vector<kfsd_entry>& all = listing->entries;
  size_t name_field = listing->wide_names ? 2 : 1;
  size_t room = KFS_MAX_BODY - kListingHeader;
  size_t end = listing->next;
  while (end < all.size() &&
         kEntryFixed + name_field + all[end].name.size() <= room) {
    room -= kEntryFixed + name_field + all[end].name.size();
    ++end;
  }
  size_t remaining = all.size() - end;
  if (remaining > 0 && handle == 0) {
    if (conn->listings.size() >= KFSD_MAX_LISTINGS) {
      req->status = ERR_FINDMAX;
      return KFSD_REPLY;
    }
    handle = kfsd_free_handle(conn->listings);
    listing = &(conn->listings[handle] = std::move(fresh));
  }
  kfs_body* out = &req->out;
  kfs_put_u16(out, static_cast<uint16_t>(end - listing->next));
  kfs_put_u32(out, static_cast<uint32_t>(remaining));
  kfs_put_u8(out, remaining > 0 ? handle : 0);
  for (size_t i = listing->next; i < end; ++i) {
    const kfsd_entry& e = listing->entries[i];
    kfs_put_u8(out, e.kind);
    kfs_put_u32(out, e.attr);
    kfs_put_u64(out, static_cast<uint64_t>(e.mtime));
    kfs_put_u64(out, e.size);
    if (listing->wide_names) {
      kfs_put_str16(out, e.name.c_str());
    } else {
      kfs_put_str8(out, e.name.c_str());
    }
  }
  listing->next = end;
  if (remaining == 0 && handle != 0) {
    conn->listings.erase(handle);
  }
  return KFSD_REPLY;
}
