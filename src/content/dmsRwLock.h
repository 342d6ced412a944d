// A reader/writer lock that lets a waiting writer in before new readers.
//
// std::shared_mutex on glibc prefers readers: with Browse requests arriving
// back to back, adding a shared folder or a change from the monitor could wait
// indefinitely.  This one is built on a pthread rwlock set to prefer writers;
// a thread must not take it shared twice (a waiting writer would block the
// second hold).  It satisfies the SharedMutex requirements, so std::shared_lock
// and std::unique_lock work with it.
#ifndef DMS_CONTENT_DMS_RW_LOCK_H
#define DMS_CONTENT_DMS_RW_LOCK_H

#include <pthread.h>

class dmsRwLock {
 public:
  dmsRwLock() {
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attributes);
    pthread_rwlockattr_destroy(&attributes);
  }
  ~dmsRwLock() { pthread_rwlock_destroy(&lock_); }
  dmsRwLock(const dmsRwLock &) = delete;
  dmsRwLock &operator=(const dmsRwLock &) = delete;

  void lock() { pthread_rwlock_wrlock(&lock_); }
  bool try_lock() { return pthread_rwlock_trywrlock(&lock_) == 0; }
  void unlock() { pthread_rwlock_unlock(&lock_); }
  void lock_shared() { pthread_rwlock_rdlock(&lock_); }
  bool try_lock_shared() { return pthread_rwlock_tryrdlock(&lock_) == 0; }
  void unlock_shared() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

#endif  // DMS_CONTENT_DMS_RW_LOCK_H
