// The serving process: opens the data folder, listens, runs a thread per
// connection, and on SIGTERM or SIGINT stops accepting, shuts the live
// connections down and waits for their threads before closing the store.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>

#include "kfs/server/kfsd_internal.h"

namespace {

struct thread_start {
  kfsd_server* server;
  uint64_t id;
  int sock;
};

void* connection_thread(void* arg) {
  std::unique_ptr<thread_start> start(static_cast<thread_start*>(arg));
  kfsd_server* server = start->server;
  kfsd_connection_run(server, start->id, start->sock);
  // OpenSSL's state of this thread (its random generators) goes now, not
  // after the stop has been told this thread is done and the process ends.
  OPENSSL_thread_stop();
  // Closed under the registry's mutex, so a stop never shuts down a
  // descriptor number that has been handed out again.
  std::lock_guard<std::mutex> hold(server->conn_mutex);
  server->conns.erase(start->id);
  close(start->sock);
  server->conn_gone.notify_all();
  return nullptr;
}

void accept_one(kfsd_server* server, int listener) {
  int sock = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (sock >= 0) {
    // Replies are small and answer small requests: without this, Nagle's
    // rule holds them until the client's delayed acknowledgement.
    int on = 1;
    if (setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
      // Only slower, never wrong.
    }
  }
  if (sock < 0) {
    return;  // the peer gave up already, or we are out of descriptors
  }
  uint64_t id = 0;
  {
    std::lock_guard<std::mutex> hold(server->conn_mutex);
    if (server->conns.size() >= KFSD_MAX_CONNECTIONS) {
      // Refused at once, so the client fails over instead of waiting.
      close(sock);
      if (server->settings.verbose) {
        kfsd_log("refused a connection: %d are open", KFSD_MAX_CONNECTIONS);
      }
      return;
    }
    id = server->next_conn_id++;
    server->conns[id] = sock;
  }
  auto* start = new thread_start{server, id, sock};
  pthread_t thread;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  int rc = pthread_create(&thread, &attr, connection_thread, start);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete start;
    std::lock_guard<std::mutex> hold(server->conn_mutex);
    server->conns.erase(id);
    close(sock);
  }
}

int open_listener(const kfsd_settings& s, uint16_t* port) {
  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(s.listen_port);
  if (inet_pton(AF_INET, s.listen_host.c_str(), &addr.sin_addr) != 1) {
    errno = EINVAL;
    return -1;
  }
  unique_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int on = 1;
  socklen_t len = sizeof addr;
  if (!sock ||
      setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(sock.get(), reinterpret_cast<struct sockaddr*>(&addr),
           sizeof addr) != 0 ||
      listen(sock.get(), 64) != 0 ||
      getsockname(sock.get(), reinterpret_cast<struct sockaddr*>(&addr),
                  &len) != 0) {
    return -1;
  }
  *port = ntohs(addr.sin_port);
  return sock.release();
}

// Written beside and renamed into place, so a reader never sees half.
bool write_port_file(const std::string& path, uint16_t port) {
  std::string temp = path + ".tmp";
  file_ptr f(fopen(temp.c_str(), "w"));
  if (!f || fprintf(f.get(), "%u\n", port) < 0 || fclose(f.release()) != 0) {
    return false;
  }
  return rename(temp.c_str(), path.c_str()) == 0;
}

int load(kfsd_server* server) {
  const std::string& dir = server->settings.dir;
  std::string error;
  if (kfsd_store_open(dir, &server->store, &error) != 0) {
    fprintf(stderr, "kfsd: %s\n", error.c_str());
    return -1;
  }
  server->folder_lock.reset(kfsd_datadir_lock(dir));
  if (!server->folder_lock) {
    fprintf(stderr, "kfsd: %s: %s\n", dir.c_str(),
            errno == EWOULDBLOCK ? "another kfsd is using this data folder"
                                 : strerror(errno));
    return -1;
  }
  // Made when missing: a folder from an older kfsd lacks packs/, and a
  // copied one may lack the empty ones.
  for (const char* sub :
       {KFSD_PACKS_DIR, KFSD_TMP_DIR, KFSD_OUTBOX_DIR, KFSD_LOCKS_DIR}) {
    std::string path = dir + "/" + sub;
    struct stat st;
    if ((mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) ||
        stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      fprintf(stderr, "kfsd: %s: not a folder; the data folder is damaged\n",
              path.c_str());
      return -1;
    }
  }
  server->key = kfsd_key_load(dir, &server->public_pem, &error);
  if (server->key == nullptr) {
    fprintf(stderr, "kfsd: %s\n", error.c_str());
    return -1;
  }
  kfsd_store_sweep(&server->store);
  {
    // What a prune freed while no server ran, or while this one was down.
    std::lock_guard<std::mutex> packing(server->store.pack_mutex);
    kfsd_store_compact(&server->store);
  }
  bool unclean = false;
  if (kfsd_store_mark_running(&server->store, true, &unclean) != 0) {
    fprintf(stderr, "kfsd: %s: cannot be written\n", dir.c_str());
    return -1;
  }
  if (unclean) {
    kfsd_log(
        "the last server did not stop cleanly: each user's next run "
        "compares every folder");
  }
  return 0;
}

}  // namespace

int kfsd_serve(const kfsd_settings& settings) {
  auto server = std::make_unique<kfsd_server>();
  server->settings = settings;
  if (load(server.get()) != 0) {
    kfsd_store_close(&server->store);
    return 1;
  }
  // The signals arrive through a descriptor the accept loop polls; every
  // thread created later inherits the mask.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  server->writer = std::make_unique<kfsd_writer>(server.get());
  if (!server->writer->start()) {
    // Slower, never wrong: each connection then stores its own writes.
    kfsd_log("no thread for the writer; storing on the request path");
  }
  if (!settings.smtp.host.empty()) {
    server->mailer = std::make_unique<kfsd_mailer>(settings.dir, settings.smtp,
                                                   &server->store);
    if (!server->mailer->start()) {
      kfsd_log("no thread for mail delivery; reports stay in the outbox");
    }
  }
  unique_fd signals(signalfd(-1, &stop_signals, SFD_CLOEXEC));

  uint16_t port = 0;
  unique_fd listener(open_listener(settings, &port));
  int status = 0;
  if (!signals || !listener) {
    fprintf(stderr, "kfsd: cannot listen on %s:%u: %s\n",
            settings.listen_host.c_str(), settings.listen_port,
            strerror(errno));
    status = 1;
  } else {
    printf("kfsd: listening on %s:%u\n", settings.listen_host.c_str(), port);
    fflush(stdout);
    if (!settings.port_file.empty() &&
        !write_port_file(settings.port_file, port)) {
      fprintf(stderr, "kfsd: %s: %s\n", settings.port_file.c_str(),
              strerror(errno));
      status = 1;
    }
  }
  while (status == 0) {
    struct pollfd fds[2] = {{listener.get(), POLLIN, 0},
                            {signals.get(), POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) {
      break;
    }
    if (fds[1].revents != 0) {
      break;
    }
    if (fds[0].revents != 0) {
      accept_one(server.get(), listener.get());
    }
  }
  listener.reset();
  {
    std::unique_lock<std::mutex> hold(server->conn_mutex);
    for (const auto& [id, sock] : server->conns) {
      shutdown(sock, SHUT_RDWR);
    }
    server->conn_gone.wait(hold, [&] { return server->conns.empty(); });
  }
  server->writer.reset();  // stores everything queued
  server->mailer.reset();
  bool unclean = false;
  if (kfsd_store_mark_running(&server->store, false, &unclean) != 0) {
    // The next start then withholds one stamp per user: only slower.
  }
  kfsd_store_close(&server->store);
  EVP_PKEY_free(server->key);
  if (settings.verbose) {
    kfsd_log("stopped");
  }
  return status;
}
