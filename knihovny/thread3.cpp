#include "knihovny/thread3.h"

#include <cerrno>

#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

namespace {

constexpr long kStartLookNanoseconds = 10000;

}  // namespace

Thread3::~Thread3() noexcept {
    Stop();
}

int Thread3::create(const pthread_attr_t* attributes) {
    pthread_t handle = 0;
    const int result = pthread_create(&handle, attributes, EntryPoint, this);
    if (result == 0) {
        handle_ = handle;
    } else {
        errno = result;
        PrintSystemError("Thread3::start failed creating thread!\n");
    }
    // A thread that could not be made never begins: the owner waits here, it cannot do its work without it.
    while (!started_) MySleep(0, kStartLookNanoseconds);
    return result;
}

int Thread3::Start(int argument) {
    start_argument_ = argument;
    detached_ = false;
    Stop();
    started_ = false;
    joinable_ = true;
    return create(nullptr);
}

int Thread3::StartDetatched() {
    detached_ = true;
    started_ = false;
    joinable_ = false;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const int result = create(&attributes);
    pthread_attr_destroy(&attributes);
    return result;
}

void Thread3::Stop() {
    if (handle_ == 0) return;
    BeforeStop();
    if (!detached_) {
        // The join of a detached thread cannot succeed. It is not tried: the thread may be gone, its memory
        // too.
        const int result = joinable_ ? pthread_join(handle_, nullptr) : EINVAL;
        errno = result;
        if (result != 0) PrintSystemError("Pthread_join error ... \n");
    }
    handle_ = 0;
    started_ = false;
}

void Thread3::Exit() {
    if (started_) pthread_exit(nullptr);
}

void Thread3::Run() {
    started_ = true;
    SetupThread();
    ExecuteThread();
}

void* Thread3::EntryPoint(void* object) {
    static_cast<Thread3*>(object)->Run();
    return object;
}
