#include "knihovny/error_repeats.h"

#include "knihovny/generalfce.h"

namespace {

constexpr int64_t kPauseSeconds = 60;

}  // namespace

bool ErrorRepeats::due(int error) {
    const int64_t now = MonotonicTime().tv_sec;
    const auto [entry, first] = next_.try_emplace(error, now);
    logged_ = first || now >= entry->second;
    if (logged_) entry->second = now + kPauseSeconds;
    return logged_;
}
