#ifndef HTTP2CLIENT_PLATFORMDEF_H
#define HTTP2CLIENT_PLATFORMDEF_H

/// @file
/// What depends on the platform. Of use inside the library only.

#include <pthread.h>

#include "error.h"

/// Marks what the shared library exports. Everything else is compiled with hidden visibility.
#define HTTP2CLIENT_API __attribute__((visibility("default")))

/// A plain mutex. It is not recursive: a thread that locks it twice blocks for ever.
class Lock {
public:
    Lock() { pthread_mutex_init(&m_mutex, nullptr); }
    /// The mutex must not be locked.
    ~Lock() { pthread_mutex_destroy(&m_mutex); }
    /// Not copyable.
    Lock(const Lock&) = delete;
    /// Not copyable.
    Lock& operator=(const Lock&) = delete;

    /// Locks the mutex, and waits for that as long as another thread has it locked.
    void lock() { pthread_mutex_lock(&m_mutex); }
    /// Unlocks the mutex. Only for the thread that has it locked.
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};

/// Locks a Lock from construction to destruction. The Lock must outlive it.
class SingleLock {
public:
    /// Locks `lock`, which must not be null.
    explicit SingleLock(Lock* lock) : m_lock(lock) { m_lock->lock(); }
    /// Unlocks it.
    ~SingleLock() { m_lock->unlock(); }
    /// Not copyable.
    SingleLock(const SingleLock&) = delete;
    /// Not copyable.
    SingleLock& operator=(const SingleLock&) = delete;

private:
    Lock* m_lock;  // never null; locked as long as this object lives
};

#endif  // HTTP2CLIENT_PLATFORMDEF_H
