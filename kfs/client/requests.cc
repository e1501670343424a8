// One function per request type: the body in, the reply's fields out.
#include <string.h>

#include <algorithm>

#include "kfs/client/kfs.h"
#include "kfs/client/kfs_internal.h"
#include "lib/alloc.h"
#include "lib/proc.h"

namespace {

constexpr size_t kMaxDirectory = 255;  // a str8
constexpr size_t kMaxOption = 4000;
constexpr uint8_t kMaxMgntCode = 24;

// Sends the body built in b as a request of the given type. The result is
// kfs_transact's code, else the response's status.
uint32_t run(kfs_session* s, uint8_t type, const kfs_body& b,
             bool expects_response = true) {
  if (!kfs_body_ok(&b)) {
    return ERR_DATAMAX;
  }
  kfs_request_finish(&s->message, type, b.length);
  if (!expects_response) {
    s->message.flags &= ~KFS_FLAG_EXPECTS_RESPONSE;
  }
  uint32_t rc = kfs_transact(s);
  if (rc != 0 || !expects_response) {
    return rc;
  }
  return s->message.status;
}

kfs_body begin(kfs_session* s) {
  kfs_body b;
  kfs_body_begin(&s->message, &b);
  return b;
}

kfs_reader reply(const kfs_session* s) {
  kfs_reader r;
  kfs_reader_begin(&s->message, &r);
  return r;
}

bool fits_str16(const char* text) {
  return strlen(text) <= 0xFFFF;
}

// A name of a listing entry: str8 or str16, possibly empty. Points into the
// reply; false when the reply ends first.
bool take_name(kfs_reader* r, bool long_name, const uint8_t** at,
               uint32_t* len) {
  *len = long_name ? kfs_get_u16(r) : kfs_get_u8(r);
  *at = r->data + r->pos;
  if (!kfs_reader_ok(r) || *len > r->length - r->pos) {
    return false;
  }
  r->pos += *len;
  return true;
}

void free_entry(void* data, uint32_t, int32_t) {
  free_owned_name(data);
}

uint32_t find(kfs_session* s, uint8_t type, kfs_find_args* a) {
  a->entries = nullptr;
  if (strlen(a->directory) > kMaxDirectory || !fits_str16(a->pattern)) {
    return ERR_INVARG;
  }
  kfs_body b = begin(s);
  kfs_put_u8(&b, a->handle);
  kfs_put_u8(&b, a->flags);
  kfs_put_str8(&b, a->directory);
  kfs_put_str16(&b, a->pattern);
  uint32_t rc = run(s, type, b);
  if (rc != 0) {
    return rc;
  }
  kfs_reader r = reply(s);
  a->count = kfs_get_u16(&r);
  a->remaining = kfs_get_u32(&r);
  a->next_handle = kfs_get_u8(&r);
  if (!kfs_reader_ok(&r)) {
    return ERR_SEQUENCE;
  }
  a->entries = str_list_new(a->count, 1, free_entry);
  for (uint16_t i = 0; i < a->count; ++i) {
    kfs_find_entry e = {};
    e.kind = kfs_get_u8(&r);
    e.word = kfs_get_u32(&r);
    e.mtime = kfs_get_u64(&r);
    e.size = kfs_get_u64(&r);
    const uint8_t* name;
    if (!take_name(&r, (a->flags & KFS_FIND_LONG_NAMES) != 0, &name,
                   &e.name_len)) {
      kfs_find_release(a);
      return ERR_SEQUENCE;
    }
    e.name = static_cast<char*>(xmalloc(e.name_len + 1));
    memcpy(e.name, name, e.name_len);
    e.name[e.name_len] = '\0';
    str_list_insert(a->entries, &e, sizeof e, str_list_count(a->entries));
  }
  return 0;
}

// Copies the whole reply body out, for requests whose reply is opaque here.
void copy_reply(const kfs_session* s, uint8_t* out, size_t out_size,
                uint32_t* out_len) {
  size_t n = std::min<size_t>(s->message.data_length, out_size);
  if (out != nullptr) {
    memcpy(out, s->message.buffer, n);
  }
  if (out_len != nullptr) {
    *out_len = s->message.data_length;
  }
}

}  // namespace

uint32_t kfs_user_lock(kfs_session* s, const kfs_lock_args* a) {
  kfs_body b = begin(s);
  kfs_put_u8(&b, a->flags);
  if ((a->flags & 0x01) == 0) {
    kfs_put_u16(&b, a->count);
    for (uint16_t i = 0; i < a->count; ++i) {
      kfs_put_u32(&b, a->values[i]);
    }
  } else if (s->auth_mode == AUTH_MODE_AGENT && (a->flags & 0x04) != 0) {
    kfs_put_u32(&b, s->agent_time);
  }
  return kfs_body_ok(&b) ? run(s, KFS_USER_LOCK, b) : uint32_t{ERR_INVARG};
}

uint32_t kfs_mkdir(kfs_session* s, uint8_t flags, const char* path) {
  if (!fits_str16(path)) {
    return ERR_INVARG;
  }
  kfs_body b = begin(s);
  kfs_put_u8(&b, flags);
  kfs_put_str16(&b, path);
  return run(s, KFS_MKDIR, b);
}

uint32_t kfs_find_files(kfs_session* s, kfs_find_args* a) {
  return find(s, KFS_FIND_FILES, a);
}

uint32_t kfs_find_users(kfs_session* s, kfs_find_args* a) {
  return find(s, KFS_FIND_USERS, a);
}

void kfs_find_release(kfs_find_args* a) {
  str_list_free(a->entries);
  a->entries = nullptr;
}

uint32_t kfs_file_wopen(kfs_session* s, kfs_wopen_args* a) {
  if (!fits_str16(a->path)) {
    return ERR_INVARG;
  }
  kfs_body b = begin(s);
  kfs_put_u8(&b, a->flags);
  kfs_put_u32(&b, a->value_a);
  kfs_put_str16(&b, a->path);
  kfs_put_u32(&b, a->value_b);
  kfs_put_u32(&b, a->value_c);
  kfs_put_u16(&b, a->extra_len);
  if (a->extra_len > 0) {
    kfs_put_bytes(&b, a->extra, a->extra_len);
  }
  uint32_t rc = run(s, KFS_FILE_WOPEN, b);
  if (rc != 0) {
    return rc;
  }
  kfs_reader r = reply(s);
  a->handle = kfs_get_u8(&r);
  a->block_count = kfs_get_u16(&r);
  a->block_size = kfs_get_u32(&r);
  a->comparable = kfs_get_u16(&r);
  return kfs_reader_ok(&r) ? 0u : uint32_t{ERR_SEQUENCE};
}

uint32_t kfs_file_write(kfs_session* s, kfs_write_args* a) {
  uint32_t rc =
      kfs_build_file_write(&s->message, a->handle, a->flags, a->data, a->n);
  if (rc != 0) {
    return rc;
  }
  bool answered = (s->message.flags & KFS_FLAG_EXPECTS_RESPONSE) != 0;
  rc = kfs_transact(s);
  if (rc != 0) {
    return rc;
  }
  if (!answered) {
    a->written = a->n;
    return 0;
  }
  if (s->message.status != 0) {
    return s->message.status;
  }
  kfs_reader r = reply(s);
  a->written = kfs_get_u16(&r);
  return kfs_reader_ok(&r) ? 0u : uint32_t{ERR_SEQUENCE};
}

uint32_t kfs_file_close(kfs_session* s, uint8_t handle) {
  kfs_body b = begin(s);
  kfs_put_u8(&b, handle);
  return run(s, KFS_FILE_CLOSE, b, false);
}

uint32_t kfs_email(kfs_session* s, const kfs_email_args* a) {
  kfs_body b = begin(s);
  kfs_put_u8(&b, a->kind);
  switch (a->kind) {
    case 0: {
      int32_t count = str_list_count(a->recipients);
      if (count < 0 || count > 0xFFFF) {
        count = 0;
      }
      kfs_put_u32(&b, a->word1);
      kfs_put_u32(&b, a->word2);
      kfs_put_u16(&b, static_cast<uint16_t>(count));
      for (int32_t i = 0; i < count; ++i) {
        kfs_put_str8(&b, str_list_get(a->recipients, i));
      }
      kfs_put_str8(&b, a->subject != nullptr ? a->subject : "");
      kfs_put_str16(&b, a->text);
      break;
    }
    case 1:
      kfs_put_u32(&b, a->word1);
      kfs_put_u8(&b, a->byte1);
      kfs_put_u8(&b, a->byte2);
      kfs_put_str16(&b, a->text);
      break;
    case 2:
      kfs_put_str16(&b, a->text);
      break;
    default:
      return ERR_INVARG;
  }
  return run(s, KFS_EMAIL, b);
}

uint32_t kfs_stat(kfs_session* s, kfs_stat_args* a) {
  if (!fits_str16(a->path)) {
    return ERR_INVARG;
  }
  kfs_body b = begin(s);
  kfs_put_u8(&b, a->flags);
  kfs_put_str16(&b, a->path);
  uint32_t rc = run(s, KFS_STAT, b);
  if (rc != 0) {
    return rc;
  }
  kfs_reader r = reply(s);
  if ((a->flags & 0x01) == 0) {
    for (uint64_t& v : a->values) {
      v = kfs_get_u64(&r);
    }
  } else {
    a->kind = kfs_get_u8(&r);
    a->word = kfs_get_u32(&r);
    a->values[0] = kfs_get_u64(&r);
    a->values[1] = kfs_get_u64(&r);
    if (kfs_get_str8(&r, a->name, sizeof a->name) != 0) {
      a->name[0] = '\0';
    }
  }
  return kfs_reader_ok(&r) ? 0u : uint32_t{ERR_SEQUENCE};
}

uint32_t kfs_move(kfs_session* s, const char* from, const char* to) {
  kfs_body b = begin(s);
  kfs_put_str16(&b, from);
  kfs_put_str16(&b, to);
  return kfs_body_ok(&b) ? run(s, KFS_MOVE, b) : uint32_t{ERR_INVARG};
}

uint32_t kfs_copy(kfs_session* s, uint8_t flags, const char* from,
                  const char* to, uint64_t values[3]) {
  kfs_body b = begin(s);
  kfs_put_u8(&b, flags);
  kfs_put_str16(&b, from);
  kfs_put_str16(&b, to);
  if (!kfs_body_ok(&b)) {
    return ERR_INVARG;
  }
  uint32_t rc = run(s, KFS_COPY, b);
  if (rc != 0) {
    return rc;
  }
  kfs_reader r = reply(s);
  for (int i = 0; i < 3; ++i) {
    values[i] = kfs_get_u64(&r);
  }
  return kfs_reader_ok(&r) ? 0u : uint32_t{ERR_SEQUENCE};
}

uint32_t kfs_delete(kfs_session* s, uint8_t flags, const char* path) {
  kfs_body b = begin(s);
  kfs_put_u8(&b, flags);
  kfs_put_str16(&b, path);
  return kfs_body_ok(&b) ? run(s, KFS_DELETE, b) : uint32_t{ERR_INVARG};
}

uint32_t kfs_file_ropen(kfs_session* s, kfs_ropen_args* a) {
  kfs_body b = begin(s);
  kfs_put_str16(&b, a->path);
  if (!kfs_body_ok(&b)) {
    return ERR_INVARG;
  }
  uint32_t rc = run(s, KFS_FILE_ROPEN, b);
  if (rc != 0) {
    return rc;
  }
  kfs_reader r = reply(s);
  a->handle = kfs_get_u8(&r);
  a->mtime = kfs_get_u32(&r);
  a->block_count = kfs_get_u16(&r);
  a->size = kfs_get_u64(&r);
  uint16_t n = kfs_get_u16(&r);
  a->attr_len = std::min<uint16_t>(n, sizeof a->attr);
  kfs_get_bytes(&r, a->attr, a->attr_len);
  return kfs_reader_ok(&r) ? 0u : uint32_t{ERR_SEQUENCE};
}

uint32_t kfs_file_read(kfs_session* s, kfs_read_args* a) {
  kfs_body b = begin(s);
  kfs_put_u8(&b, a->handle);
  kfs_put_u16(&b, a->max_length);
  if (a->digest != nullptr) {
    kfs_put_u8(&b, 0);
    kfs_put_bytes(&b, a->digest, 16);
  }
  uint32_t rc = run(s, KFS_FILE_READ, b);
  if (rc != 0) {
    return rc;
  }
  kfs_reader r = reply(s);
  a->flags = kfs_get_u8(&r);
  a->n = kfs_get_u16(&r);
  if (!kfs_reader_ok(&r) || a->n > a->max_length) {
    return ERR_SEQUENCE;
  }
  kfs_get_bytes(&r, a->data, a->n);
  return kfs_reader_ok(&r) ? 0u : uint32_t{ERR_SEQUENCE};
}

uint32_t kfs_setopt(kfs_session* s, const str_list* options, uint8_t* out,
                    size_t out_size, uint32_t* out_len) {
  int32_t count = str_list_count(options);
  if (count < 0 || count > 0xFF) {
    return ERR_INVARG;
  }
  kfs_body b = begin(s);
  kfs_put_u8(&b, static_cast<uint8_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    const char* option = str_list_get(options, i);
    if (strlen(option) > kMaxOption) {
      return ERR_INVARG;
    }
    kfs_put_str16(&b, option);
  }
  uint32_t rc = run(s, KFS_SETOPT, b);
  if (rc == 0) {
    copy_reply(s, out, out_size, out_len);
  }
  return rc;
}

uint32_t kfs_session_close(kfs_session* s) {
  return run(s, KFS_SESSION_CLOSE, begin(s));
}

uint32_t kfs_mgnt(kfs_session* s, const kfs_mgnt_item* items, uint8_t count,
                  uint8_t* out, size_t out_size, uint32_t* out_len) {
  kfs_body b = begin(s);
  kfs_put_u8(&b, count);
  for (uint8_t i = 0; i < count; ++i) {
    if (items[i].code > kMaxMgntCode || !fits_str16(items[i].value)) {
      return ERR_INVARG;
    }
    kfs_put_u8(&b, items[i].code);
    kfs_put_str16(&b, items[i].value);
  }
  uint32_t rc = run(s, KFS_MGNT, b);
  if (rc == 0) {
    copy_reply(s, out, out_size, out_len);
  }
  return rc;
}
