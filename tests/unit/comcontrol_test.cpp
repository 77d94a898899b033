#include "knihovny/comcontrol.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>

#include "tests/support/fake_syslog.h"

namespace {

// Stands between the channel and the terminal interface where a test asks for it: a pseudo terminal keeps
// neither data bits nor parity.
struct TerminalProbe {
    Mutex mutex;
    std::optional<termios> read GUARDED_BY(mutex);     // what tcgetattr gives
    std::optional<termios> written GUARDED_BY(mutex);  // what tcsetattr got
    bool fail GUARDED_BY(mutex) = false;
};
TerminalProbe probe;

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int tcgetattr(int fd, termios* record) noexcept {
    {
        MutexLock lock(probe.mutex);
        if (probe.read) {
            *record = *probe.read;
            return 0;
        }
    }
    return next<int(int, termios*)>("tcgetattr")(fd, record);
}

extern "C" int tcsetattr(int fd, int actions, const termios* record) noexcept {
    {
        MutexLock lock(probe.mutex);
        if (actions == TCSANOW) probe.written = *record;
        if (probe.fail) return -1;
        if (probe.read) return 0;
    }
    return next<int(int, int, const termios*)>("tcsetattr")(fd, actions, record);
}

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

using Calls = std::vector<std::string>;

// Writes down the hooks' calls. The reading can be held in a hook.
class Channel : public ComControl {
  public:
    ~Channel() { StopReading(); }

    Calls calls() {
        MutexLock lock(mutex_);
        return calls_;
    }
    std::string received() {
        MutexLock lock(mutex_);
        return received_;
    }
    void waitForReceived(size_t length) {
        while (received().size() < length) usleep(1000);
    }
    void holdReading() {
        hold_ = true;
        while (!held_) usleep(1000);
    }
    void releaseReading() { hold_ = false; }

    std::atomic<int> intervals{0};
    std::atomic<bool> write_down_bytes{false};
    std::atomic<bool> hold_send{false};
    std::atomic<bool> send_held{false};

  protected:
    void ZpracujPacket(int length, const unsigned char* data) override {
        note("packet " + std::to_string(length) + " then " + std::to_string(data[length]));
        MutexLock lock(mutex_);
        received_.append(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
    }
    void ZpracujByte(char* c) override {
        if (write_down_bytes) note("text " + std::string(1, *c) + " then " + std::to_string(c[1]));
    }
    void ZpracujByte(unsigned char c) override {
        if (write_down_bytes) note("byte " + std::to_string(c));
    }
    void OnInterval() override {
        ++intervals;
        while (hold_) {
            held_ = true;
            usleep(1000);
        }
        held_ = false;
    }
    void BeforeSend(const char* data, int length) override {
        note("before " + std::string(data, static_cast<size_t>(length)));
        while (hold_send) {
            send_held = true;
            usleep(1000);
        }
    }
    void AfterSend() override { note("after"); }
    void AfterSend(const char* data, int length) override {
        note("after " + std::string(data, static_cast<size_t>(length)));
    }

  private:
    void note(const std::string& call) {
        MutexLock lock(mutex_);
        calls_.push_back(call);
    }

    Mutex mutex_;
    Calls calls_ GUARDED_BY(mutex_);
    std::string received_ GUARDED_BY(mutex_);
    std::atomic<bool> hold_{false};
    std::atomic<bool> held_{false};
};

// A pseudo terminal. The test is the device at its other end.
class ComControlTest : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        device_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_GE(device_, 0);
        ASSERT_EQ(grantpt(device_), 0);
        ASSERT_EQ(unlockpt(device_), 0);
        path_ = ptsname(device_);
        port_ = open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_GE(port_, 0);
        CaptureStdout();
    }
    void TearDown() override {
        const std::string text = output();
        if (HasFailure()) fputs(text.c_str(), stderr);
        unplug();
        fake_syslog.take();
        MutexLock lock(probe.mutex);
        probe.read.reset();
        probe.written.reset();
        probe.fail = false;
    }

    void unplug() {
        close(port_);
        close(device_);
        port_ = device_ = -1;
    }
    // What was printed.
    const std::string& output() {
        if (!output_) output_ = GetCapturedStdout();
        return *output_;
    }
    void setRaw(ComControl& channel) const { channel.SetCom(115200, 1, 8, 1, 2, 2, 2, path_); }
    void connect(ComControl& channel) const {
        setRaw(channel);
        ASSERT_TRUE(channel.Connect());
    }
    void writeFromDevice(const std::string& text) const {
        ASSERT_EQ(write(device_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string readAtDevice(size_t length) const {
        std::string text;
        char block[4096];
        pollfd readable{device_, POLLIN, 0};
        while (text.size() < length && poll(&readable, 1, 30000) == 1) {
            const ssize_t count = read(device_, block, sizeof block);
            if (count <= 0) break;
            text.append(block, static_cast<size_t>(count));
        }
        return text;
    }
    // Writes to the port until it takes nothing more. The system moves bytes on to the device's side in
    // between.
    void fillPort() const {
        const std::string block(4096, 'x');
        for (int quiet = 0; quiet < 20; ++quiet) {
            while (write(port_, block.data(), block.size()) > 0 || write(port_, "x", 1) > 0) quiet = 0;
            usleep(1000);
        }
    }
    bool deviceHasSomething() const {
        pollfd readable{device_, POLLIN, 0};
        return poll(&readable, 1, 20) == 1;
    }
    termios portSettings() const {
        termios record{};
        tcgetattr(port_, &record);
        return record;
    }

    int device_ = -1;
    int port_ = -1;
    std::string path_;

  private:
    std::optional<std::string> output_;
};

size_t openDescriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

std::string errorLine(const std::string& message, pthread_t thread) {
    return "ERROR: " + message + " , in thread " + std::to_string(static_cast<unsigned long>(thread)) + "\n";
}

// ---------------------------------------------------------------------------------------------------------------
// Opening and closing.

TEST_F(ComControlTest, IsClosedAndWithoutDeviceAtFirst) {
    const Channel channel;
    EXPECT_EQ(channel.fd, -1);
    EXPECT_EQ(channel.getDevice(), "");
}

TEST_F(ComControlTest, ConnectOpensTheDeviceAndPrintsIt) {
    Channel channel;
    connect(channel);
    EXPECT_EQ(channel.getDevice(), path_);
    const int descriptor = channel.fd;
    ASSERT_NE(descriptor, -1);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)), path_);
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    while (channel.intervals == 0) usleep(1000);
    EXPECT_NE(fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(output(), "Seriovy port otevren\n");
    EXPECT_EQ(fake_syslog.takeMessages(), Calls{});
}

TEST_F(ComControlTest, ConnectOnAConnectedChannelKeepsItsThread) {
    Channel channel;
    connect(channel);
    const pthread_t thread = channel.threadID();
    EXPECT_TRUE(channel.Connect());
    EXPECT_EQ(channel.threadID(), thread);
    EXPECT_EQ(output(), "Seriovy port otevren\n");
}

TEST_F(ComControlTest, AMissingDeviceIsLoggedAndNotConnected) {
    Channel channel;
    channel.SetCom(9600, 1, 8, 1, 2, 2, 2, "/dev/none/100%s%n");
    EXPECT_FALSE(channel.Connect());
    EXPECT_EQ(channel.fd, -1);
    EXPECT_EQ(output(), "");
    const std::vector<SyslogEntry> entries = fake_syslog.take();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].message, "DBG: tcsetattr failed.");
    EXPECT_EQ(entries[1].message, "DBG: OpenPort: Unable to open/dev/none/100%s%n\n");
    EXPECT_EQ(entries[1].identity, "comcontrol");
    EXPECT_EQ(entries[1].priority, 6);
}

TEST_F(ComControlTest, ADeviceThatAppearsLaterIsOpenedByTheNextConnect) {
    Channel channel;
    channel.SetCom(9600, 1, 2, 2, 2, "/dev/none");
    channel.Start(0);
    channel.Stop();
    EXPECT_EQ(channel.fd, -1);
    connect(channel);
    EXPECT_NE(channel.fd, -1);
}

TEST_F(ComControlTest, DisconnectClosesTheDeviceAndKeepsTheNumber) {
    Channel channel;
    connect(channel);
    const int descriptor = channel.fd;
    EXPECT_TRUE(channel.Disconnect());
    EXPECT_EQ(channel.fd, descriptor);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    EXPECT_EQ(channel.threadID(), 0U);
}

TEST_F(ComControlTest, DisconnectWithoutAReadingThreadGivesFalse) {
    Channel channel;
    EXPECT_FALSE(channel.Disconnect());
}

TEST_F(ComControlTest, CanConnectAgain) {
    Channel channel;
    for (int i = 0; i < 3; ++i) {
        connect(channel);
        writeFromDevice("x");
        channel.waitForReceived(static_cast<size_t>(i) + 1);
        EXPECT_TRUE(channel.Disconnect());
    }
    EXPECT_EQ(output(), "Seriovy port otevren\nSeriovy port otevren\nSeriovy port otevren\n");
}

TEST_F(ComControlTest, TheCallersStopFlagEndsTheReading) {
    std::atomic<bool> stop{false};
    Channel channel;
    channel.NastavUkonceni(&stop);
    connect(channel);
    const int descriptor = channel.fd;
    stop = true;
    channel.Stop();
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    EXPECT_EQ(channel.fd, descriptor);
}

TEST_F(ComControlTest, WritesTheFlagThatItHas) {
    std::atomic<bool> stop{false};
    Channel channel;
    channel.NastavUkonceni(&stop);
    channel.NastavUkonceni(true);
    EXPECT_TRUE(stop);
    channel.NastavUkonceni(false);
    EXPECT_FALSE(stop);
    Channel with_own_flag;
    connect(with_own_flag);
    with_own_flag.NastavUkonceni(true);
    with_own_flag.Stop();
    EXPECT_EQ(fcntl(with_own_flag.fd, F_GETFD), -1);
}

TEST_F(ComControlTest, ReconfiguringAndDestroyingLeaksNoDescriptor) {
    const size_t before = openDescriptors();
    for (int i = 0; i < 5; ++i) {
        Channel channel;
        for (int k = 0; k < 3; ++k) {
            connect(channel);
            channel.Disconnect();
        }
        connect(channel);
    }
    EXPECT_EQ(openDescriptors(), before);
}

// ---------------------------------------------------------------------------------------------------------------
// Settings.

struct Settings {
    int speed = 9600, parity = 1, databits = 8, stopbits = 1, flow = 2, mode = 2, xflow = 2;
};

class ComControlSettings : public ComControlTest {
  protected:
    // What the channel writes to a device that has these settings.
    termios apply(const Settings& settings, const termios& device) {
        {
            MutexLock lock(probe.mutex);
            probe.read = device;
            probe.written.reset();
        }
        Channel channel;
        channel.SetCom(settings.speed, settings.parity, settings.databits, settings.stopbits, settings.flow,
                       settings.mode, settings.xflow, path_);
        EXPECT_TRUE(channel.Connect());
        channel.Disconnect();
        MutexLock lock(probe.mutex);
        EXPECT_TRUE(probe.written);
        return probe.written ? *probe.written : termios{};
    }

    static termios cleared() { return {}; }
    static termios full() {
        termios record{};
        record.c_iflag = record.c_oflag = record.c_lflag = ~tcflag_t{0};
        record.c_iflag &= ~tcflag_t{1U << 31};  // the C library's own note of an input speed
        record.c_cflag = ~tcflag_t{CBAUD | CBAUDEX};
        memset(record.c_cc, 0x55, sizeof record.c_cc);
        return record;
    }
    static constexpr tcflag_t kNothing = 0;
};

TEST_F(ComControlSettings, SpeedsAreSetByTheTable) {
    const std::pair<int, speed_t> rows[] = {
        {50, B50},       {75, B75},         {110, B110},       {134, B134},       {150, B150},
        {200, B50},      {300, B300},       {600, B600},       {1200, B1200},     {1800, B1800},
        {2400, B2400},   {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400},
        {57600, B57600}, {115200, B115200}, {230400, B230400}, {460800, B460800}, {921600, B921600}};
    for (const auto& [speed, expected] : rows) {
        const termios record = apply({.speed = speed}, cleared());
        EXPECT_EQ(cfgetospeed(&record), expected) << speed;
        EXPECT_EQ(cfgetispeed(&record), expected) << speed;
    }
    EXPECT_EQ(fake_syslog.takeMessages(), Calls{});
}

TEST_F(ComControlTest, ASpeedThatTheSystemRejectsLeavesThePortAsItWas) {
    const termios before = portSettings();
    Channel channel;
    channel.SetCom(1000, 1, 8, 1, 2, 2, 2, path_);
    EXPECT_TRUE(channel.Connect());
    const termios after = portSettings();
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(fake_syslog.takeMessages(),
              (Calls{"DBG: xxx cfsetspeed failed.", "DBG: xxx cfsetspeed failed."}));
    writeFromDevice("works\n");
    channel.waitForReceived(6);
}

TEST_F(ComControlTest, SpeedZeroLeavesTheDeviceAlone) {
    const termios before = portSettings();
    Channel channel;
    channel.SetCom(0, 1, 8, 1, 1, 2, 1, path_);
    EXPECT_TRUE(channel.Connect());
    const termios after = portSettings();
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(fake_syslog.takeMessages(), (Calls{"DBG: Default values.", "DBG: Default values."}));
}

TEST_F(ComControlSettings, ANegativeSpeedSetsEverythingElse) {
    termios device = cleared();
    cfsetspeed(&device, B4800);
    const termios record = apply({.speed = -1}, device);
    EXPECT_EQ(cfgetospeed(&record), speed_t{B4800});
    EXPECT_EQ(record.c_cflag & (CLOCAL | CREAD | CS8), tcflag_t{CLOCAL | CREAD | CS8});
    EXPECT_EQ(fake_syslog.takeMessages(), Calls{});
}

TEST_F(ComControlSettings, AFailedSettingIsLoggedAndThePortUsed) {
    {
        MutexLock lock(probe.mutex);
        probe.fail = true;
    }
    Channel channel;
    connect(channel);
    EXPECT_EQ(fake_syslog.takeMessages(), (Calls{"DBG: tcsetattr failed.", "DBG: tcsetattr failed."}));
}

TEST_F(ComControlSettings, ParityCodes) {
    constexpr tcflag_t kParity = PARENB | PARODD;
    EXPECT_EQ(apply({.parity = 1}, full()).c_cflag & kParity, tcflag_t{PARODD});
    EXPECT_EQ(apply({.parity = 2}, full()).c_cflag & kParity, tcflag_t{PARENB});
    EXPECT_EQ(apply({.parity = 2}, cleared()).c_cflag & kParity, tcflag_t{PARENB});
    EXPECT_EQ(apply({.parity = 3}, cleared()).c_cflag & kParity, kParity);
    EXPECT_EQ(apply({.parity = 4}, full()).c_cflag & kParity, tcflag_t{PARODD});
    EXPECT_EQ(apply({.parity = 5}, full()).c_cflag & kParity, kParity);
    EXPECT_EQ(apply({.parity = 0}, cleared()).c_cflag & kParity, kNothing);
}

TEST_F(ComControlSettings, DataBitsReplaceTheSizeThatAParityCodeCleared) {
    for (int parity = 1; parity <= 4; ++parity) {
        EXPECT_EQ(apply({.parity = parity, .databits = 8}, full()).c_cflag & CSIZE, tcflag_t{CS8});
        EXPECT_EQ(apply({.parity = parity, .databits = 7}, full()).c_cflag & CSIZE, tcflag_t{CS7});
        EXPECT_EQ(apply({.parity = parity, .databits = 6}, full()).c_cflag & CSIZE, tcflag_t{CS6});
        EXPECT_EQ(apply({.parity = parity, .databits = 5}, full()).c_cflag & CSIZE, tcflag_t{CS5});
        EXPECT_EQ(apply({.parity = parity, .databits = 9}, full()).c_cflag & CSIZE, tcflag_t{CS5});
    }
}

TEST_F(ComControlSettings, WithoutAParityCodeDataBitsAreAddedToTheSizeOfTheDevice) {
    termios device = cleared();
    device.c_cflag = CS6;
    EXPECT_EQ(apply({.parity = 9, .databits = 7}, device).c_cflag & CSIZE, tcflag_t{CS6 | CS7});
    EXPECT_EQ(apply({.parity = 9, .databits = 5}, device).c_cflag & CSIZE, tcflag_t{CS6});
}

TEST_F(ComControlSettings, StopBitsAndFlowControl) {
    EXPECT_EQ(apply({.stopbits = 1}, full()).c_cflag & CSTOPB, kNothing);
    EXPECT_EQ(apply({.stopbits = 2}, cleared()).c_cflag & CSTOPB, tcflag_t{CSTOPB});
    EXPECT_EQ(apply({.stopbits = 3}, full()).c_cflag & CSTOPB, tcflag_t{CSTOPB});
    EXPECT_EQ(apply({.flow = 1}, cleared()).c_cflag & CRTSCTS, tcflag_t{CRTSCTS});
    EXPECT_EQ(apply({.flow = 2}, full()).c_cflag & CRTSCTS, kNothing);
    EXPECT_EQ(apply({.flow = 0}, full()).c_cflag & CRTSCTS, tcflag_t{CRTSCTS});
}

TEST_F(ComControlSettings, SoftwareFlowControlIsSetAfterTheMode) {
    constexpr tcflag_t kFlow = IXON | IXANY | IXOFF;
    EXPECT_EQ(apply({.mode = 2, .xflow = 1}, cleared()).c_iflag & kFlow, kFlow);
    EXPECT_EQ(apply({.mode = 2, .xflow = 2}, full()).c_iflag & kFlow, kNothing);
    EXPECT_EQ(apply({.mode = 2, .xflow = 3}, full()).c_iflag & kFlow, tcflag_t{IXANY | IXOFF});
    EXPECT_EQ(apply({.mode = 3, .xflow = 3}, full()).c_iflag & kFlow, kFlow);
}

TEST_F(ComControlSettings, RawModeClearsWhatChangesBytes) {
    const termios device = full();
    const termios record = apply({.xflow = 0}, device);
    EXPECT_EQ(device.c_lflag & ~record.c_lflag,
              tcflag_t{ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | ECHOCTL | ECHOKE | IEXTEN});
    EXPECT_EQ(device.c_oflag & ~record.c_oflag, tcflag_t{ONLCR | OPOST});
    EXPECT_EQ(device.c_iflag & ~record.c_iflag,
              tcflag_t{IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON});
    EXPECT_EQ(record.c_cflag & (HUPCL | CREAD | CLOCAL), tcflag_t{CREAD | CLOCAL});
}

TEST_F(ComControlSettings, RawModeClearsTheControlCharactersButThree) {
    const termios device = full();
    const termios record = apply({}, device);
    for (const int index :
         {VINTR, VQUIT, VERASE, VKILL, VEOF, VEOL, VSTART, VSTOP, VSUSP, VREPRINT, VWERASE, VLNEXT}) {
        EXPECT_EQ(record.c_cc[index], 0) << index;
    }
    for (const int index : {VDISCARD, VEOL2, VSWTC}) EXPECT_EQ(record.c_cc[index], 0x55) << index;
    EXPECT_EQ(record.c_cc[VMIN], 0);
    EXPECT_EQ(record.c_cc[VTIME], 10);
}

TEST_F(ComControlSettings, CanonicalModeSetsLinesAndEcho) {
    const termios record = apply({.mode = 1}, cleared());
    EXPECT_EQ(record.c_lflag, tcflag_t{ICANON | ECHO | ECHOE});
    EXPECT_EQ(record.c_oflag, kNothing);
    EXPECT_EQ(apply({.mode = 1}, full()).c_lflag, full().c_lflag);
}

TEST_F(ComControlSettings, AnotherModeLeavesTheLocalFlags) {
    EXPECT_EQ(apply({.mode = 3}, full()).c_lflag, full().c_lflag);
    EXPECT_EQ(apply({.mode = 3}, cleared()).c_lflag, kNothing);
    EXPECT_EQ(apply({.mode = 3}, full()).c_cc[VINTR], 0x55);
}

TEST_F(ComControlSettings, TheShortFormHasEightDataBitsAndOneStopBit) {
    {
        MutexLock lock(probe.mutex);
        probe.read = full();
    }
    Channel channel;
    channel.SetCom(19200, 1, 1, 1, 1, path_);
    EXPECT_TRUE(channel.Connect());
    channel.Disconnect();
    MutexLock lock(probe.mutex);
    ASSERT_TRUE(probe.written);
    EXPECT_EQ(probe.written->c_cflag & (CSIZE | CSTOPB | CRTSCTS), tcflag_t{CS8 | CRTSCTS});
    EXPECT_EQ(probe.written->c_lflag & ICANON, tcflag_t{ICANON});
    EXPECT_EQ(probe.written->c_iflag & IXON, tcflag_t{IXON});
    EXPECT_EQ(cfgetospeed(&*probe.written), speed_t{B19200});
}

TEST_F(ComControlTest, TheSettingsReachTheDevice) {
    Channel channel;
    channel.SetCom(200, 1, 8, 2, 1, 2, 1, path_);
    EXPECT_TRUE(channel.Connect());
    const termios record = portSettings();
    EXPECT_EQ(cfgetospeed(&record), speed_t{B50});
    EXPECT_EQ(record.c_lflag & (ICANON | ECHO), tcflag_t{0});
    EXPECT_EQ(record.c_cflag & (CSTOPB | CRTSCTS), tcflag_t{CSTOPB | CRTSCTS});
    EXPECT_EQ(record.c_iflag & IXON, tcflag_t{IXON});
}

// ---------------------------------------------------------------------------------------------------------------
// Reading.

TEST_F(ComControlTest, APacketComesBeforeItsBytesInBothForms) {
    Channel channel;
    channel.write_down_bytes = true;
    connect(channel);
    writeFromDevice("A");
    while (channel.calls().size() < 3) usleep(1000);
    EXPECT_EQ(channel.calls(), (Calls{"packet 1 then 0", "text A then 0", "byte 65"}));
}

TEST_F(ComControlTest, AReadGivesAtMost512Bytes) {
    Channel channel;
    channel.write_down_bytes = true;
    connect(channel);
    channel.holdReading();
    std::string sent;
    for (int i = 0; i < 513; ++i) sent += static_cast<char>('a' + i % 26);
    writeFromDevice(sent);
    int waiting = 0;
    while (waiting < 513) ASSERT_EQ(ioctl(channel.fd, FIONREAD, &waiting), 0);
    channel.releaseReading();
    while (channel.calls().size() < 2 + 2 * 513) usleep(1000);

    Calls expected;
    for (size_t i = 0; i < sent.size(); ++i) {
        if (i == 0) expected.push_back("packet 512 then 0");
        if (i == 512) expected.push_back("packet 1 then 0");
        expected.push_back("text " + std::string(1, sent[i]) + " then 0");
        expected.push_back("byte " + std::to_string(sent[i]));
    }
    EXPECT_EQ(channel.calls(), expected);
}

TEST_F(ComControlTest, EveryByteValueArrives) {
    Channel channel;
    connect(channel);
    std::string sent;
    for (int i = 0; i < 256; ++i) sent += static_cast<char>(i);
    writeFromDevice(sent);
    channel.waitForReceived(sent.size());
    EXPECT_EQ(channel.received(), sent);
}

TEST_F(ComControlTest, OnIntervalIsCalledWhileTheLineIsIdle) {
    Channel channel;
    connect(channel);
    while (channel.intervals < 3) usleep(1000);
    EXPECT_EQ(channel.calls(), Calls{});
}

TEST_F(ComControlTest, AnIdleLineAndAnUnpluggedDeviceWakeTheThreadFewTimesASecond) {
    Channel channel;
    connect(channel);
    for (int round = 0; round < 2; ++round) {
        const int intervals = channel.intervals;
        usleep(1000000);
        EXPECT_LE(channel.intervals - intervals, 6);
        unplug();
    }
    EXPECT_TRUE(channel.Disconnect());
}

TEST_F(ComControlTest, ARepeatedReadErrorIsToldOnce) {
    Channel channel;
    // The first page of the own memory is never mapped, so each read gives an input error.
    channel.SetCom(9600, 1, 8, 1, 2, 2, 2, "/proc/self/mem");
    ASSERT_TRUE(channel.Connect());
    const pthread_t thread = channel.threadID();
    usleep(700000);  // several errors
    EXPECT_TRUE(channel.Disconnect());
    EXPECT_EQ(output(), "Seriovy port otevren\n" + errorLine("SockRead EIO", thread) +
                            errorLine("Comcontrol: chyba v SockReadTimeout\n", thread));
}

TEST_F(ComControlTest, ADeviceThatIsUnpluggedDoesNotFillTheLog) {
    Channel channel;
    connect(channel);
    unplug();
    const int intervals = channel.intervals;
    while (channel.intervals < intervals + 3) usleep(1000);
    EXPECT_TRUE(channel.Disconnect());
    EXPECT_EQ(output(), "Seriovy port otevren\n");
}

// ---------------------------------------------------------------------------------------------------------------
// Sending.

TEST_F(ComControlTest, SendsTextsStringsAndBytes) {
    Channel channel;
    connect(channel);
    char text[] = "AT\r";
    EXPECT_EQ(channel.Send(text), 3);
    EXPECT_EQ(channel.Send("AT+CMGF=1\r"), 10);
    EXPECT_EQ(channel.Send(std::string("a\0b", 3)), 3);
    EXPECT_EQ(channel.SendBinary("\x1a\0\xff", 3), 3);
    channel.SendByte("Z");
    EXPECT_EQ(readAtDevice(20), std::string("AT\rAT+CMGF=1\ra\0b\x1a\0\xffZ", 20));
}

TEST_F(ComControlTest, HooksSurroundEachWrite) {
    Channel channel;
    connect(channel);
    channel.Send("one");
    channel.SendByte("2");
    channel.TrySendByte('3');
    EXPECT_EQ(channel.calls(), (Calls{"before one", "after", "after one", "before 2", "after", "after 2",
                                      "before 3", "after", "after 3"}));
}

TEST_F(ComControlTest, SendersTakeTurns) {
    constexpr int kMessages = 20;
    Channel channel;
    connect(channel);
    std::vector<std::thread> senders;
    for (char name = 'a'; name < 'e'; ++name) {
        senders.emplace_back([&channel, name] {
            for (int i = 0; i < kMessages; ++i) channel.Send(std::string(200, name));
        });
    }
    const std::string text = readAtDevice(size_t{4} * kMessages * 200);
    for (std::thread& sender : senders) sender.join();
    ASSERT_EQ(text.size(), size_t{4} * kMessages * 200);
    for (size_t i = 0; i < text.size(); i += 200) ASSERT_EQ(text.substr(i, 200), std::string(200, text[i]));
}

TEST_F(ComControlTest, ASendAfterTheStopFlagWritesNothingAndDoesNotWait) {
    std::atomic<bool> stop{false};
    Channel channel;
    channel.NastavUkonceni(&stop);
    connect(channel);
    channel.hold_send = true;
    std::thread sender([&] { channel.Send("first"); });
    while (!channel.send_held) usleep(1000);
    stop = true;
    EXPECT_EQ(channel.Send("second"), 0);
    EXPECT_EQ(channel.Send(std::string("third")), 0);
    channel.SendByte("4");
    EXPECT_FALSE(channel.TrySendByte('5'));
    channel.hold_send = false;
    sender.join();
    EXPECT_EQ(channel.calls().size(), 3U);
    EXPECT_EQ(channel.calls()[0], "before first");
}

TEST_F(ComControlTest, AFullDeviceBlocksASendForThreeSeconds) {
    Channel channel;
    connect(channel);
    const std::string much(200000, 'x');
    const int taken = channel.Send(much);
    EXPECT_EQ(channel.calls().size(), 3U);
    std::string text = readAtDevice(1);
    while (deviceHasSomething()) text += readAtDevice(1);
    EXPECT_LT(text.size(), much.size());
    EXPECT_EQ(text.size(), static_cast<size_t>(taken));
    channel.Send("afterwards");
    EXPECT_EQ(readAtDevice(10), "afterwards");
    EXPECT_EQ(output(), "Seriovy port otevren\n");
}

TEST_F(ComControlTest, SendByteTriesUntilTheDeviceTakesTheByte) {
    Channel channel;
    connect(channel);
    fillPort();
    std::thread sender([&] { channel.SendByte("Z"); });
    while (channel.calls().empty()) usleep(1000);
    EXPECT_EQ(channel.calls().size(), 1U);
    std::string last;
    while (last != "Z") {
        const std::string text = readAtDevice(1);
        ASSERT_FALSE(text.empty());
        last = text.substr(text.size() - 1);
    }
    sender.join();
}

TEST_F(ComControlTest, AByteThatTheDeviceDoesNotTakeIsToldToTheCallerAlone) {
    Channel channel;
    EXPECT_FALSE(channel.TrySendByte('a'));
    connect(channel);
    EXPECT_TRUE(channel.TrySendByte('Z'));
    EXPECT_EQ(readAtDevice(1), "Z");
    fillPort();
    EXPECT_FALSE(channel.TrySendByte('b'));
    unplug();
    EXPECT_FALSE(channel.TrySendByte('c'));
    channel.Disconnect();
    EXPECT_EQ(output(), "Seriovy port otevren\n");
}

TEST_F(ComControlTest, ASendOnAClosedChannelTouchesNoOtherFile) {
    Channel channel;
    connect(channel);
    channel.Disconnect();
    int pipe_ends[2];
    ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC | O_NONBLOCK), 0);
    // The channel's number now belongs to the writing end.
    ASSERT_GE(dup3(pipe_ends[1], channel.fd, O_CLOEXEC), 0);
    channel.Send("secret");
    char byte = 0;
    EXPECT_EQ(read(pipe_ends[0], &byte, 1), -1);
    EXPECT_EQ(output(), "Seriovy port otevren\n" + errorLine("SockWriteTimeout EBADF", pthread_self()));
    if (channel.fd != pipe_ends[0] && channel.fd != pipe_ends[1]) close(channel.fd);
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

TEST_F(ComControlTest, AWriteToAnUnpluggedDeviceIsTold) {
    Channel channel;
    connect(channel);
    unplug();
    EXPECT_EQ(channel.Send("AT\r"), 0);
    channel.Disconnect();
    EXPECT_EQ(output(), "Seriovy port otevren\n" + errorLine("SockWriteTimeout EIO", pthread_self()));
}

}  // namespace
