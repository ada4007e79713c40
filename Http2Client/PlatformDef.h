#ifndef HTTP2CLIENT_PLATFORMDEF_H
#define HTTP2CLIENT_PLATFORMDEF_H

/// @file
/// What depends on the platform. Of use inside the library only.

#include <pthread.h>

/// Marks what the shared library exports. Everything else is compiled with hidden visibility.
#define HTTP2CLIENT_API __attribute__((visibility("default")))

/// A plain mutex. It is not recursive: a thread that takes it twice blocks for ever.
class Lock {
public:
    /// Free at first.
    Lock() { pthread_mutex_init(&m_mutex, nullptr); }
    /// Must be free.
    ~Lock() { pthread_mutex_destroy(&m_mutex); }
    /// A mutex stays where it is: it cannot be copied.
    Lock(const Lock&) = delete;
    /// Nor assigned.
    Lock& operator=(const Lock&) = delete;

    /// Takes the mutex; waits for it when another thread has it.
    void lock() { pthread_mutex_lock(&m_mutex); }
    /// Gives the mutex back. For the thread that has it.
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};

/// Holds a Lock from construction to destruction. The Lock must outlive it.
class SingleLock {
public:
    /// Takes `lock`, which must not be null.
    explicit SingleLock(Lock* lock) : m_lock(lock) { m_lock->lock(); }
    /// Gives the lock back.
    ~SingleLock() { m_lock->unlock(); }
    /// Holds a lock for one place: it cannot be copied.
    SingleLock(const SingleLock&) = delete;
    /// Nor assigned.
    SingleLock& operator=(const SingleLock&) = delete;

private:
    Lock* m_lock;  // never null; locked as long as this object lives
};

#endif  // HTTP2CLIENT_PLATFORMDEF_H
