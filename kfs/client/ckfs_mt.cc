// The optional OpenSSL locking set-up for threaded users of the client.
// OpenSSL 3 locks itself: CRYPTO_num_locks() is 1 and the callback setters
// are no-op macros. The set-up is still made as the interface promises (the
// mutexes exist and the callbacks would lock them), so a program built
// against an older library behaves the same; here it simply costs nothing.
#include <pthread.h>

#include <openssl/crypto.h>

#include "kfs/client/kfs.h"

namespace {

pthread_mutex_t* locks = nullptr;
long* lock_counts = nullptr;
int lock_total = 0;

[[maybe_unused]] void locking_callback(int mode, int n, const char*, int) {
  if ((mode & CRYPTO_LOCK) != 0) {
    pthread_mutex_lock(&locks[n]);
    ++lock_counts[n];
  } else {
    pthread_mutex_unlock(&locks[n]);
  }
}

[[maybe_unused]] unsigned long thread_id() {
  return static_cast<unsigned long>(pthread_self());
}

}  // namespace

int kfs_openssl_threads_setup() {
  lock_total = CRYPTO_num_locks();
  locks = static_cast<pthread_mutex_t*>(OPENSSL_malloc(
      static_cast<size_t>(lock_total) * sizeof(pthread_mutex_t)));
  lock_counts = static_cast<long*>(
      OPENSSL_malloc(static_cast<size_t>(lock_total) * sizeof(long)));
  for (int i = 0; i < lock_total; ++i) {
    lock_counts[i] = 0;
    pthread_mutex_init(&locks[i], nullptr);
  }
  CRYPTO_set_id_callback(thread_id);
  CRYPTO_set_locking_callback(locking_callback);
  return 0;
}

void kfs_openssl_threads_cleanup() {
  CRYPTO_set_locking_callback(nullptr);
  for (int i = 0; i < lock_total; ++i) {
    pthread_mutex_destroy(&locks[i]);
  }
  OPENSSL_free(locks);
  OPENSSL_free(lock_counts);
  locks = nullptr;
  lock_counts = nullptr;
  lock_total = 0;
}
