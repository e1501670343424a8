// Requests about the session rather than files: login, the user lock with
// its stamp, and e-mail to the outbox.
#include <errno.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <openssl/crypto.h>

#include "kfs/server/kfsd_internal.h"

namespace {

constexpr uint8_t kLockRelease = 0x01;
constexpr uint8_t kLockStamp = 0x04;
constexpr char kPlanName[] = "kfsd";

void release_lock(kfsd_conn* conn) {
  std::lock_guard<std::mutex> hold(conn->server->lock_mutex);
  auto it = conn->server->locks.find(conn->uid);
  if (it != conn->server->locks.end() && it->second.conn == conn->id) {
    conn->server->locks.erase(it);
  }
}

// The login reply; user is null when the login is only redirected.
void put_login_reply(kfsd_request* req, const kfsd_user* user) {
  kfsd_server* server = req->conn->server;
  kfs_body* out = &req->out;
  kfs_put_u8(out, server->settings.redirect ? 1 : 0);
  for (size_t i = 0; i < 2; ++i) {
    const kfsd_announce* a = i < server->settings.announce.size()
                                 ? &server->settings.announce[i]
                                 : nullptr;
    kfs_put_str8(out, a ? a->host.c_str() : "");
    kfs_put_u16(out, a ? a->port : 0);
  }
  kfsd_user none;
  const kfsd_user& u = user ? *user : none;
  kfs_put_u32(out, u.id);  // one account per user: its id is the user's
  kfs_put_str8(out, u.account.c_str());
  kfs_put_u8(out, ACC_TYPE_REGULAR);
  kfs_put_str8(out, user ? kPlanName : "");
  kfs_put_u32(out, 0);
  kfs_put_str8(out, u.name.c_str());
  kfs_put_str8(out, u.email.c_str());
  kfs_put_u8(out, 0);
  kfs_put_u8(out, 0);
  kfs_put_str8(out, "");
  kfs_put_str8(out, "");
  kfs_put_u64(out, u.quota);
  kfs_put_u64(out, user ? kfsd_store_bytes_used(&server->store, u.id) : 0);
  kfs_put_u8(out, 0);
  kfs_put_u8(out, 0);  // account flag
  kfs_put_u32(out, u.stamp);
}

// One outbox file per recipient; a relay, when there is one, is told.
uint32_t post(kfsd_request* req, uint8_t kind, const std::string& recipient,
              const std::string& subject, const std::string& text) {
  kfsd_server* server = req->conn->server;
  kfsd_outbox_message m;
  m.user = req->conn->uid;
  m.kind = kind;
  m.recipient = recipient;
  m.subject = subject;
  m.job = req->conn->job;
  m.text = text;
  if (kfsd_outbox_put(server->store.dir + "/" + KFSD_OUTBOX_DIR,
                      kfsd_temp_path(&server->store), m) != 0) {
    return ERR_IO;
  }
  if (server->mailer) {
    server->mailer->poke();
  }
  return 0;
}

}  // namespace

int kfsd_request_auth(kfsd_request* req) {
  kfsd_conn* conn = req->conn;
  kfsd_store* store = &conn->server->store;
  kfs_reader* in = &req->in;
  uint8_t mode = kfs_get_u8(in);
  uint8_t token[20];
  uint8_t client[20];
  std::string name, password, text_1, text_2;
  kfsd_user user;
  uint32_t status = ERR_AUTH_FAILURE;
  if (mode == AUTH_MODE_AGENT) {
    user.id = kfs_get_u32(in);
    kfs_get_bytes(in, token, sizeof token);
    kfs_get_bytes(in, client, sizeof client);
    kfs_get_u32(in);  // marker: the client tells whether it takes our stamp
    kfsd_get_text(in, 2, &text_1);
    kfsd_get_text(in, 2, &text_2);
    if (!kfsd_body_done(in)) {
      return KFSD_DROP;
    }
    status = kfsd_store_get_user(store, user.id, &user);
    if (status == 0 && CRYPTO_memcmp(token, user.key_sha1, 20) != 0) {
      status = ERR_AUTH_FAILURE;
    }
    req->note = "user " + std::to_string(user.id) + " job " + text_1;
  } else if (mode == AUTH_MODE_USER) {
    // No passwords are kept here: a user login is the name and the digest
    // of the account key.
    kfsd_get_text(in, 1, &name);
    kfsd_get_text(in, 1, &password);
    kfs_get_bytes(in, token, sizeof token);
    kfs_get_bytes(in, client, sizeof client);
    if (!kfsd_body_done(in)) {
      return KFSD_DROP;
    }
    status = kfsd_store_find_user(store, name, token, &user);
    req->note = "name " + name;
  } else {
    req->note = "mode " + std::to_string(mode);  // not offered here
  }

  if (conn->authenticated) {
    release_lock(conn);  // a new login starts without the old one's lock
    conn->authenticated = false;
  }
  if (conn->server->settings.redirect) {
    // Logins only go elsewhere from here, whoever asks.
    put_login_reply(req, status == 0 ? &user : nullptr);
    req->status = 0;
    return KFSD_REPLY;
  }
  req->status = status;
  if (status == 0) {
    conn->authenticated = true;
    conn->uid = user.id;
    conn->auth_mode = mode;
    conn->job = text_1;
    conn->job_file = text_2;
    put_login_reply(req, &user);
  }
  return KFSD_REPLY;
}

int kfsd_request_user_lock(kfsd_request* req) {
  kfsd_conn* conn = req->conn;
  kfs_reader* in = &req->in;
  uint8_t flags = kfs_get_u8(in);
  if ((flags & kLockRelease) == 0) {
    uint16_t count = kfs_get_u16(in);
    bool own = true;
    for (uint16_t i = 0; i < count; ++i) {
      own = kfs_get_u32(in) == conn->uid && own;
    }
    if (!kfsd_body_done(in)) {
      return KFSD_DROP;
    }
    req->note = "acquire, flags " + std::to_string(flags);
    if (!own) {
      req->status = ERR_ACCESS;
      return KFSD_REPLY;
    }
    std::lock_guard<std::mutex> hold(conn->server->lock_mutex);
    auto it = conn->server->locks.find(conn->uid);
    if (count > 0 && it != conn->server->locks.end() &&
        it->second.conn != conn->id) {
      req->status = ERR_ACCESS;
    } else if (count > 0 && it == conn->server->locks.end()) {
      // An operator's command on the user (kfsd user remove) holds the
      // file meanwhile: the user is as good as locked by another.
      unique_fd file(
          kfsd_user_lock_take(conn->server->settings.dir, conn->uid));
      if (file) {
        conn->server->locks[conn->uid] = {conn->id, std::move(file)};
        conn->lock_flags = flags;
      } else {
        req->status = ERR_ACCESS;
      }
    } else if (count > 0) {
      conn->lock_flags = flags;
    }
    return KFSD_REPLY;
  }

  bool has_stamp =
      conn->auth_mode == AUTH_MODE_AGENT && (flags & kLockStamp) != 0;
  uint32_t stamp = has_stamp ? kfs_get_u32(in) : 0;
  if (!kfsd_body_done(in)) {
    return KFSD_DROP;
  }
  req->note = has_stamp ? "release, stamp " + std::to_string(stamp) : "release";
  bool held_elsewhere = false;
  {
    std::lock_guard<std::mutex> hold(conn->server->lock_mutex);
    auto it = conn->server->locks.find(conn->uid);
    if (it != conn->server->locks.end()) {
      held_elsewhere = it->second.conn != conn->id;
      if (!held_elsewhere) {
        conn->server->locks.erase(it);
      }
    }
  }
  // A release re-sent after a dropped connection no longer holds the lock
  // but must still store its stamp; only another holder's run wins. The
  // stamp says the run's files are kept: they are on disk before it is.
  if (!held_elsewhere) {
    conn->server->writer->drain(kfsd_user_prefix(conn->uid));
    req->status =
        kfsd_store_release_stamp(&conn->server->store, conn->uid, has_stamp,
                                 stamp, conn->job, conn->job_file);
    if (has_stamp && req->status == 0) {
      // The user's retention policy, if any, after the run, off the
      // request path.
      kfsd_write_job job;
      job.path = kfsd_user_prefix(conn->uid);
      job.retention = conn->uid;
      conn->server->writer->push(std::move(job));
    }
  }
  return KFSD_REPLY;
}

int kfsd_request_email(kfsd_request* req) {
  kfs_reader* in = &req->in;
  uint8_t kind = kfs_get_u8(in);
  std::vector<std::string> recipients;
  std::string subject, text;
  if (kind == 0) {
    kfs_get_u32(in);
    kfs_get_u32(in);
    uint16_t count = kfs_get_u16(in);
    for (uint16_t i = 0; i < count && kfs_reader_ok(in); ++i) {
      recipients.emplace_back();
      kfsd_get_text(in, 1, &recipients.back());
    }
    kfsd_get_text(in, 1, &subject);
  } else if (kind == 1) {
    kfs_get_u32(in);
    kfs_get_u8(in);
    kfs_get_u8(in);
  } else if (kind != 2) {
    req->status = ERR_INVARG;
    return KFSD_REPLY;
  }
  kfsd_get_text(in, 2, &text);
  if (!kfsd_body_done(in)) {
    return KFSD_DROP;
  }
  if (kind != 0) {
    recipients.emplace_back();  // to the account itself
  }
  req->note = "kind " + std::to_string(kind) + ", " +
              std::to_string(recipients.size()) + " recipient(s)";
  for (const std::string& to : recipients) {
    if (req->status == 0) {
      req->status = post(req, kind, to, subject, text);
    }
  }
  return KFSD_REPLY;
}
