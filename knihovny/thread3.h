#pragma once

#include <pthread.h>

#include <atomic>

// One POSIX thread around a virtual body. A derived class overrides ExecuteThread and sees to it that the
// body returns within bounded time once its own end condition holds: Stop waits for it and never cancels.
//
// Start, StartDetatched and Stop are for one controlling thread, never for the thread itself. Exit is for the
// thread itself only.
//
// The destructor stops the thread and is not virtual: delete an object through its own class. A derived class
// whose body uses its own members calls Stop in its own destructor, since the base destructor runs when those
// are gone.
class Thread3 {
  public:
    Thread3() = default;
    ~Thread3() noexcept;
    Thread3(const Thread3&) = delete;
    Thread3& operator=(const Thread3&) = delete;

    // Ends a thread that this object may still run, starts a joinable one and waits until it has really
    // begun. An earlier thread that was started detached goes on: its join, which cannot be, is reported as
    // failed ("Pthread_join error ..."). Returns the result of pthread_create. A failed creation is reported
    // on standard error
    // ("Thread3::start failed creating thread!") and then waited for without end. The argument is kept and
    // not used.
    int Start(int argument);

    // Starts a thread that is never joined. Otherwise as Start, without ending an earlier thread.
    int StartDetatched();

    // Calls BeforeStop, joins the thread (unless detached) and makes the object idle. Does nothing without a
    // thread.
    void Stop();

    // Ends the calling thread at once when the object's thread has begun; otherwise does nothing.
    void Exit();

    // The thread's handle, 0 when there is none.
    pthread_t threadID() const { return handle_; }

    // The body of the new thread.
    void Run();

    // The start routine: object is a Thread3*, and is returned.
    static void* EntryPoint(void* object);

  protected:
    virtual void BeforeStop() {}
    virtual void SetupThread() {}
    virtual void ExecuteThread() {}

  private:
    int create(const pthread_attr_t* attributes);

    // Written by the controlling thread, also read by the thread itself.
    std::atomic<pthread_t> handle_{0};
    bool detached_ = false;  // Stop has nothing to join
    bool joinable_ = false;  // the present thread can be joined
    int start_argument_ = 0;
    std::atomic<bool> started_{false};
};
