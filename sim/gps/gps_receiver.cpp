#include "sim/gps/gps_receiver.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <future>
#include <numbers>
#include <stdexcept>
#include <utility>

namespace sim {
namespace {

constexpr double kKilometresPerNauticalMile = 1.852;
constexpr double kMinutesPerDegree = 60;
constexpr double kTurn = 1;        // degrees a second: the receiver goes round in a wide circle
constexpr int kLongestWait = 200;  // milliseconds, until it is noticed that a program has opened the port

struct Satellite {
    int number, elevation, azimuth, strength;
};

constexpr Satellite kGps[] = {{2, 74, 42, 45},   {5, 58, 281, 43},  {12, 47, 118, 41}, {15, 33, 63, 38},
                              {20, 29, 214, 36}, {25, 21, 305, 34}, {29, 14, 187, 30}, {31, 8, 341, 0}};
constexpr Satellite kGlonass[] = {{66, 62, 97, 42}, {67, 41, 17, 40}, {76, 35, 240, 37}, {82, 18, 331, 31}};
constexpr size_t kSatellitesInSentence = 4;
constexpr size_t kSatelliteColumns = 12;  // of GSA

template <class... Values>
std::string format(const char* pattern, Values... values) {
    char text[128];
    snprintf(text, sizeof text, pattern, values...);
    return text;
}

// Degrees and minutes, and the letter of the hemisphere.
std::string angle(double degrees, int width, const char* hemispheres) {
    const double minutes = std::round(std::abs(degrees) * kMinutesPerDegree * 10000) / 10000;
    const double whole = std::floor(minutes / kMinutesPerDegree);
    return format("%0*d%07.4f,%c", width, static_cast<int>(whole), minutes - whole * kMinutesPerDegree,
                  degrees < 0 ? hemispheres[1] : hemispheres[0]);
}

std::string position(const GpsFix& fix) {
    if (!fix.valid) return ",,,";
    return angle(fix.latitude, 2, "NS") + "," + angle(fix.longitude, 3, "EW");
}

tm utc(const GpsFix& fix) {
    const auto seconds = static_cast<time_t>(fix.time);
    tm parts{};
    gmtime_r(&seconds, &parts);
    return parts;
}

std::string timeOfDay(const GpsFix& fix) {
    const tm parts = utc(fix);
    return format("%02d%02d%02d.00", parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::string gga(const GpsFix& fix) {
    const std::string head = "GGA," + timeOfDay(fix) + "," + position(fix);
    if (!fix.valid) return head + ",0,00,,,M,,M,,";
    return head + format(",1,%02zu,0.9,235.4,M,44.7,M,,", std::size(kGps) - 1);
}

std::string rmc(const GpsFix& fix) {
    const tm parts = utc(fix);
    const std::string motion = fix.valid ? format("%.1f,%.1f", fix.speed, fix.course) : ",";
    return "RMC," + timeOfDay(fix) + (fix.valid ? ",A," : ",V,") + position(fix) + "," + motion +
           format(",%02d%02d%02d,,,%c", parts.tm_mday, parts.tm_mon + 1, parts.tm_year % 100,
                  fix.valid ? 'A' : 'N');
}

std::string vtg(const GpsFix& fix) {
    if (!fix.valid) return "VTG,,T,,M,,N,,K,N";
    return "VTG," +
           format("%.1f,T,,M,%.1f,N,%.1f,K,A", fix.course, fix.speed, fix.speed * kKilometresPerNauticalMile);
}

// The satellites in use: those that are heard.
template <size_t count>
std::string gsa(const GpsFix& fix, const Satellite (&satellites)[count]) {
    std::string text = fix.valid ? "GSA,A,3" : "GSA,A,1";
    size_t columns = 0;
    for (const Satellite& satellite : satellites) {
        if (!fix.valid || satellite.strength == 0) continue;
        text += format(",%02d", satellite.number);
        ++columns;
    }
    text.append(kSatelliteColumns - columns, ',');
    return text + (fix.valid ? ",1.6,0.9,1.3" : ",,,");
}

template <size_t count>
void addGsv(const char* talker, const Satellite (&satellites)[count], std::vector<std::string>& sentences) {
    constexpr size_t kTotal = (count + kSatellitesInSentence - 1) / kSatellitesInSentence;
    for (size_t number = 0; number < kTotal; ++number) {
        std::string text = talker + format("GSV,%zu,%zu,%02zu", kTotal, number + 1, count);
        for (size_t i = number * kSatellitesInSentence;
             i < std::min(count, (number + 1) * kSatellitesInSentence); ++i) {
            const Satellite& one = satellites[i];
            text += format(",%02d,%02d,%03d,", one.number, one.elevation, one.azimuth);
            if (one.strength > 0) text += format("%02d", one.strength);
        }
        sentences.push_back(nmeaSentence(text));
    }
}

}  // namespace

std::string nmeaSentence(std::string_view content) {
    unsigned checksum = 0;
    for (const char c : content) checksum ^= static_cast<unsigned char>(c);
    return "$" + std::string(content) + format("*%02X", checksum);
}

std::vector<std::string> gpsSentences(const GpsFix& fix) {
    const std::string talker = fix.glonass ? "GN" : "GP";
    std::vector<std::string> sentences;
    sentences.push_back(nmeaSentence(talker + gga(fix)));
    sentences.push_back(nmeaSentence(talker + rmc(fix)));
    sentences.push_back(nmeaSentence(talker + gsa(fix, kGps)));
    if (fix.glonass) sentences.push_back(nmeaSentence(talker + gsa(fix, kGlonass)));
    addGsv("GP", kGps, sentences);
    if (fix.glonass) addGsv("GL", kGlonass, sentences);
    sentences.push_back(nmeaSentence(talker + vtg(fix)));
    return sentences;
}

// ---------------------------------------------------------------------------------------------------------------

GpsReceiver::GpsReceiver(const Options& options, const EventLog& log)
    : log_(log),
      interval_(options.interval),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      link_(options.link),
      fix_{.latitude = 50.0755, .longitude = 14.4378, .speed = 12, .glonass = options.glonass} {
    if (options.plugged) doPlug();
}

void GpsReceiver::start() {
    if (pty_) tellPort("plugged");
    thread_ = std::thread([this] { run(); });
}

GpsReceiver::~GpsReceiver() {
    end_ = true;
    wake();
    if (thread_.joinable()) thread_.join();
}

void GpsReceiver::wake() const {
    const uint64_t one = 1;
    if (write(wake_.get(), &one, sizeof one) < 0) return;  // full: it wakes anyway
}

void GpsReceiver::call(const std::function<void()>& action) {
    std::packaged_task<void()> task(action);
    std::future<void> done = task.get_future();
    {
        MutexLock lock(mutex_);
        tasks_.emplace_back([&task] { task(); });
    }
    wake();
    done.get();
}

void GpsReceiver::plug() {
    call([this] {
        if (pty_) return;
        doPlug();
        tellPort("plugged");
    });
}

void GpsReceiver::unplug() {
    call([this] {
        if (!pty_) return;
        link_.remove();
        pty_.reset();
        opened_ = false;
        tellPort("unplugged");
    });
}

void GpsReceiver::setSilent(bool silent) {
    call([&] { silent_ = silent; });
}

void GpsReceiver::setCorrupt(int sentences) {
    call([&] { corrupt_ = sentences; });
}

void GpsReceiver::setValid(bool valid) {
    call([&] { fix_.valid = valid; });
}

void GpsReceiver::moveTo(double latitude, double longitude) {
    call([&] {
        fix_.latitude = latitude;
        fix_.longitude = longitude;
    });
}

void GpsReceiver::say(const std::string& bytes) {
    call([&] {
        if (pty_ && pty_->opened()) pty_->write(bytes);
    });
}

std::string GpsReceiver::device() {
    if (!thread_.joinable()) return deviceNow();
    std::string device;
    call([&] { device = deviceNow(); });
    return device;
}

int64_t GpsReceiver::sentences() {
    int64_t sentences = 0;
    call([&] { sentences = sentences_; });
    return sentences;
}

// ---------------------------------------------------------------------------------------------------------------
// The receiver's thread

void GpsReceiver::run() {
    Clock::time_point next = Clock::now() + interval_;
    while (!end_) {
        runTasks();
        noteOpened();
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
        pollfd polled{wake_.get(), POLLIN, 0};
        poll(&polled, 1, static_cast<int>(std::clamp<int64_t>(left, 0, kLongestWait)));
        uint64_t count = 0;
        while (read(wake_.get(), &count, sizeof count) > 0) {
        }
        if (Clock::now() < next) continue;
        next += interval_;
        move();
        sayFix();
    }
}

void GpsReceiver::runTasks() {
    std::deque<std::function<void()>> tasks;
    {
        MutexLock lock(mutex_);
        tasks.swap(tasks_);
    }
    for (const auto& task : tasks) task();
}

// What is written to the receiver is of no interest to it.
void GpsReceiver::noteOpened() {
    if (!pty_) return;
    const bool opened = pty_->opened();
    if (opened) pty_->read();
    if (opened == std::exchange(opened_, opened)) return;
    tellPort(opened ? "opened" : "closed");
}

void GpsReceiver::move() {
    constexpr double kRadians = std::numbers::pi / 180;
    constexpr double kSecondsPerHour = 3600;
    fix_.time = realMicroseconds() / 1000000;
    // A minute of latitude is a nautical mile.
    const double miles = fix_.speed / kSecondsPerHour;
    const double parallel = std::max(std::cos(fix_.latitude * kRadians), 0.01);
    fix_.latitude += miles * std::cos(fix_.course * kRadians) / kMinutesPerDegree;
    fix_.latitude = std::clamp(fix_.latitude, -90.0, 90.0);
    fix_.longitude += miles * std::sin(fix_.course * kRadians) / kMinutesPerDegree / parallel;
    fix_.longitude = std::remainder(fix_.longitude, 360);
    fix_.course = std::fmod(fix_.course + kTurn, 360);
}

// A port keeps nothing for later, and what the reader has no room for is lost.
void GpsReceiver::sayFix() {
    if (silent_ || !pty_ || !pty_->opened()) return;
    Json::Value said = Json::arrayValue;
    std::string bytes;
    for (std::string sentence : gpsSentences(fix_)) {
        if (corrupt_ > 0) {
            --corrupt_;
            sentence.back() = sentence.back() == '0' ? '1' : '0';
        }
        ++sentences_;
        said.append(sentence);
        bytes += sentence + "\r\n";
    }
    pty_->write(bytes);
    Json::Value members;
    members["sentences"] = said;
    log_.tell("fix", fix_.valid ? "gps fix " + position(fix_) : "gps finds no satellites", members);
}

void GpsReceiver::doPlug() {
    auto pty = std::make_unique<Pty>();
    link_.pointTo(pty->device());
    pty_ = std::move(pty);
}

void GpsReceiver::tellPort(const char* what) const {
    Json::Value members;
    members["what"] = what;
    members["device"] = deviceNow();
    log_.tell("port", std::string("gps port ") + what, members);
}

// ---------------------------------------------------------------------------------------------------------------
// Events

namespace {

constexpr int kWithoutEnd = 1 << 30;

constexpr struct {
    const char* word;
    void (*action)(GpsReceiver&, const Json::Value&);
} kActions[] = {
    {"unplug", [](GpsReceiver& gps, const Json::Value&) { gps.unplug(); }},
    {"plug", [](GpsReceiver& gps, const Json::Value&) { gps.plug(); }},
    {"silent", [](GpsReceiver& gps, const Json::Value&) { gps.setSilent(true); }},
    {"corrupt", [](GpsReceiver& gps,
                   const Json::Value& event) { gps.setCorrupt(event.get("count", kWithoutEnd).asInt()); }},
    {"no fix", [](GpsReceiver& gps, const Json::Value&) { gps.setValid(false); }},
    {"normal",
     [](GpsReceiver& gps, const Json::Value&) {
         gps.setSilent(false);
         gps.setCorrupt(0);
         gps.setValid(true);
     }},
    {"at",
     [](GpsReceiver& gps, const Json::Value& event) {
         gps.moveTo(event["latitude"].asDouble(), event["longitude"].asDouble());
     }},
    {"noise",
     [](GpsReceiver& gps, const Json::Value& event) { gps.say(noiseBytes(event["count"].asInt())); }},
    {"says", [](GpsReceiver& gps, const Json::Value& event) { gps.say(eventBytes(event)); }},
    {"line", [](GpsReceiver& gps, const Json::Value& event) { gps.say(eventBytes(event) + "\r\n"); }},
};

}  // namespace

void handleGpsEvents(Dispatcher& dispatcher, GpsReceiver& receiver, const EventLog& log) {
    dispatcher.handle("gps", [&](const Json::Value& event) {
        const std::string word = event["gps"].asString();
        log.tell("gps", "gps " + word, event);
        for (const auto& entry : kActions) {
            if (word == entry.word) entry.action(receiver, event);
        }
        return Json::Value();
    });
    dispatcher.handle("query", [&](const Json::Value& event) {
        if (event["query"].asString() != "state") {
            throw std::runtime_error("\"query\": \"" + event["query"].asString() +
                                     "\" is not for this program");
        }
        Json::Value answer;
        answer["device"] = receiver.device();
        answer["plugged"] = !answer["device"].asString().empty();
        answer["sentences"] = Json::Int64{receiver.sentences()};
        return answer;
    });
}

}  // namespace sim
