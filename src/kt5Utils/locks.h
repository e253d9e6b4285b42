// Scoped holds of the POSIX locks that live in zero-filled C records, where a
// C++ mutex object cannot: every path out of a scope releases the lock.
#ifndef UOZ_KT5UTILS_LOCKS_H
#define UOZ_KT5UTILS_LOCKS_H

#include <pthread.h>

template <typename Lock, int (*Acquire)(Lock *), int (*Release)(Lock *)>
class ScopedHold {
  public:
    explicit ScopedHold(Lock *lock) : lock_(lock) { Acquire(lock_); }
    ~ScopedHold() { Release(lock_); }
    ScopedHold(const ScopedHold &) = delete;
    ScopedHold &operator=(const ScopedHold &) = delete;

  private:
    Lock *lock_;
};

using MutexHold = ScopedHold<pthread_mutex_t, pthread_mutex_lock, pthread_mutex_unlock>;
using SharedHold = ScopedHold<pthread_rwlock_t, pthread_rwlock_rdlock, pthread_rwlock_unlock>;
using ExclusiveHold = ScopedHold<pthread_rwlock_t, pthread_rwlock_wrlock, pthread_rwlock_unlock>;

#endif
