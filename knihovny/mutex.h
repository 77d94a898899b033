// A mutex that clang's thread-safety analysis understands.
//
// Shared data is declared with GUARDED_BY(its_mutex); clang then refuses every access outside a MutexLock on
// that mutex. Other compilers see an ordinary POSIX mutex.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define KORVATO_TSA(x) __attribute__((x))
#else
#define KORVATO_TSA(x)
#endif

#define CAPABILITY(x) KORVATO_TSA(capability(x))
#define SCOPED_CAPABILITY KORVATO_TSA(scoped_lockable)
#define GUARDED_BY(x) KORVATO_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) KORVATO_TSA(pt_guarded_by(x))
#define REQUIRES(...) KORVATO_TSA(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) KORVATO_TSA(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KORVATO_TSA(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) KORVATO_TSA(release_capability(__VA_ARGS__))
#define EXCLUDES(...) KORVATO_TSA(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS KORVATO_TSA(no_thread_safety_analysis)

// Not recursive. Neither copied nor moved.
class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    ~Mutex() { pthread_mutex_destroy(&mutex_); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() RELEASE() { pthread_mutex_unlock(&mutex_); }

    // For waiting on a condition variable, see waitOnCondition.
    pthread_mutex_t* native() { return &mutex_; }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a mutex for the length of a block.
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};
