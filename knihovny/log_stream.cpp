#include "knihovny/log_stream.h"

#include <unistd.h>

#include <cerrno>

void LogStream::write(std::string_view text) {
    MutexLock lock(mutex_);
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor_, text.data(), text.size());
        if (count > 0) text.remove_prefix(static_cast<size_t>(count));
        if (count == 0 || (count < 0 && errno != EINTR)) return;
    }
}
