#ifndef HTTP2CLIENT_PLATFORMDEF_H
#define HTTP2CLIENT_PLATFORMDEF_H

#include <pthread.h>

// Marks what the shared library exports. Everything else is compiled with hidden visibility.
#define HTTP2CLIENT_API __attribute__((visibility("default")))

// A plain mutex. It is not recursive: a thread that takes it twice blocks for ever.
class Lock {
public:
    Lock() { pthread_mutex_init(&m_mutex, nullptr); }
    ~Lock() { pthread_mutex_destroy(&m_mutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock() { pthread_mutex_lock(&m_mutex); }
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};

// Holds a Lock from construction to destruction. The Lock must outlive it.
class SingleLock {
public:
    explicit SingleLock(Lock* lock) : m_lock(lock) { m_lock->lock(); }
    ~SingleLock() { m_lock->unlock(); }
    SingleLock(const SingleLock&) = delete;
    SingleLock& operator=(const SingleLock&) = delete;

private:
    Lock* m_lock;  // never null; locked as long as this object lives
};

#endif  // HTTP2CLIENT_PLATFORMDEF_H
