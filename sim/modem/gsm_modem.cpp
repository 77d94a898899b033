#include "sim/modem/gsm_modem.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <utility>

namespace sim {

Json::Value lineJson(const LineRecord& record) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const char c : record.bytes) {
        const auto byte = static_cast<unsigned char>(c);
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 15];
    }
    Json::Value json;
    json["at"] = roundToMicroseconds(record.at);
    json["time"] = momentJson(record.time);
    json["from"] = record.from_host ? "host" : "modem";
    json["hex"] = hex;
    json["shown"] = printable(record.bytes, record.bytes.size());
    return json;
}

GsmModem::GsmModem(const Options& options, const EventLog& log)
    : log_(log),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      link_(options.link),
      modem_(*options.model, {.send = [this](std::string_view bytes) { send(bytes); },
                              .tell = [this](const char* name, const std::string& text,
                                             const Json::Value& members) { log_.tell(name, text, members); },
                              .now = [this] { return log_.elapsed(); }}) {
    modem_.powerDown();
    modem_.world.sim = options.sim;
    modem_.world.pin = options.pin;
    if (options.plugged) doPlug();
}

void GsmModem::start() {
    if (pty_) tellPort("plugged");
    thread_ = std::thread([this] { run(); });
}

GsmModem::~GsmModem() {
    end_ = true;
    wake();
    if (thread_.joinable()) thread_.join();
}

void GsmModem::wake() const {
    const uint64_t one = 1;
    if (write(wake_.get(), &one, sizeof one) < 0) return;  // full: it wakes anyway
}

void GsmModem::call(const std::function<void(AtModem&)>& action) {
    std::packaged_task<void()> task([&] { action(modem_); });
    std::future<void> done = task.get_future();
    {
        MutexLock lock(mutex_);
        tasks_.emplace_back([&task] { task(); });
    }
    wake();
    done.get();
}

void GsmModem::plug() {
    call([this](AtModem&) {
        if (pty_) return;
        doPlug();
        tellPort("plugged");
    });
}

void GsmModem::unplug() {
    call([this](AtModem&) { doUnplug(); });
}

void GsmModem::unplugAfter(const std::string& bytes) {
    call([&](AtModem&) {
        trigger_ = bytes;
        seen_.clear();
    });
}

void GsmModem::setDeaf(bool deaf) {
    call([&](AtModem&) { deaf_ = deaf; });
}

std::string GsmModem::device() {
    if (!thread_.joinable()) return deviceNow();
    std::string device;
    call([&](AtModem&) { device = deviceNow(); });
    return device;
}

std::vector<LineRecord> GsmModem::line() {
    std::vector<LineRecord> records;
    call([&](AtModem&) { records.assign(line_.begin(), line_.end()); });
    return records;
}

void GsmModem::forgetLine() {
    call([this](AtModem&) { line_.clear(); });
}

// ---------------------------------------------------------------------------------------------------------------
// The modem's thread

void GsmModem::run() {
    while (!end_) {
        runTasks();
        modem_.run();
        writeLine();
        pollOnce();
        readLine();
        writeLine();
    }
}

void GsmModem::runTasks() {
    std::deque<std::function<void()>> tasks;
    {
        MutexLock lock(mutex_);
        tasks.swap(tasks_);
    }
    for (const auto& task : tasks) task();
}

void GsmModem::pollOnce() {
    // A port that nobody has open is never waited for, since poll() would return at once, but looked at now
    // and then.
    double seconds = std::min(modem_.wait(), 0.2);
    pollfd polled[] = {{wake_.get(), POLLIN, 0}, {-1, 0, 0}};
    if (pty_ && opened_) {
        polled[1].fd = pty_->fd();
        polled[1].events = static_cast<short>((deaf_ ? 0 : POLLIN) | (unsent_.empty() ? 0 : POLLOUT));
    } else if (pty_) {
        seconds = std::min(seconds, 0.01);
    }
    poll(polled, 2, static_cast<int>(seconds * 1000 + 0.999));
    uint64_t count = 0;
    while (read(wake_.get(), &count, sizeof count) > 0) {
    }
}

// The other side is noticed before its bytes are read, so that the events come in that order.
void GsmModem::readLine() {
    if (!pty_) return;
    noteOpened();
    if (deaf_) return;
    const std::string bytes = pty_->read();
    if (!bytes.empty()) take(bytes);
}

void GsmModem::noteOpened() {
    const bool opened = pty_->opened();
    if (opened == std::exchange(opened_, opened)) return;
    if (!opened) unsent_.clear();
    tellPort(opened ? "opened" : "closed");
}

void GsmModem::take(const std::string& bytes) {
    if (trigger_.empty()) {
        record(true, bytes);
        modem_.receive(bytes);
        return;
    }
    const size_t before = seen_.size();
    seen_ += bytes;
    const size_t found = seen_.find(trigger_);
    if (found == std::string::npos) {
        record(true, bytes);
        modem_.receive(bytes);
        seen_.erase(0, seen_.size() - std::min(seen_.size(), trigger_.size() - 1));
        return;
    }
    record(true, std::string_view(bytes).substr(0, found + trigger_.size() - before));
    doUnplug();
}

void GsmModem::send(std::string_view bytes) {
    if (!pty_ || !pty_->opened()) return;  // a port keeps nothing for later
    if (unsent_.size() + bytes.size() > kMostUnsent) return;
    unsent_ += bytes;
    writeLine();
}

void GsmModem::writeLine() {
    if (!pty_ || unsent_.empty()) return;
    const size_t written = pty_->write(unsent_);
    if (written == 0) return;
    record(false, std::string_view(unsent_).substr(0, written));
    unsent_.erase(0, written);
}

void GsmModem::record(bool from_host, std::string_view bytes) {
    line_.push_back({log_.elapsed(), realMicroseconds(), from_host, std::string(bytes)});
    if (line_.size() > kMostRecords) line_.pop_front();
}

void GsmModem::doPlug() {
    auto pty = std::make_unique<Pty>();
    link_.pointTo(pty->device());
    pty_ = std::move(pty);
    modem_.powerUp();
}

void GsmModem::doUnplug() {
    if (!pty_) return;
    link_.remove();
    pty_.reset();
    opened_ = false;
    unsent_.clear();
    trigger_.clear();
    modem_.powerDown();
    tellPort("unplugged");
}

void GsmModem::tellPort(const char* what) const {
    Json::Value members;
    members["what"] = what;
    members["device"] = deviceNow();
    log_.tell("port", std::string("modem port ") + what, members);
}

}  // namespace sim
