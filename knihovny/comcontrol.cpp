#include "knihovny/comcontrol.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "knihovny/debugerror.h"
#include "knihovny/error_repeats.h"
#include "knihovny/generalfce.h"
#include "knihovny/socketfce.h"

namespace {

constexpr char kIdentity[] = "comcontrol";
constexpr int kClosed = -1;
constexpr int kBlock = 512;
constexpr int kIdleMilliseconds = 200;
constexpr int kConnectSeconds = 5;
constexpr int kSendSeconds = 3;
constexpr int kOpenFlags = O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
constexpr cc_t kReadTenths = 10;

struct SpeedRow {
    int speed;
    speed_t value;
    const char* failure;
};

constexpr SpeedRow kSpeeds[] = {
    {50, B50, "DBG: B50 cfsetspeed failed."},
    {75, B75, "DBG: B75 cfsetspeed failed."},
    {110, B110, "DBG: B110 cfsetspeed failed."},
    {134, B134, "DBG: B134 cfsetspeed failed."},
    {150, B150, "DBG: B150 cfsetspeed failed."},
    {200, B50, "DBG: B200 cfsetspeed failed."},
    {300, B300, "DBG: B300 cfsetspeed failed."},
    {600, B600, "DBG: B600 cfsetspeed failed."},
    {1200, B1200, "DBG: B1200 cfsetspeed failed."},
    {1800, B1800, "DBG: B1800 cfsetspeed failed."},
    {2400, B2400, "DBG: B2400 cfsetspeed failed."},
    {4800, B4800, "DBG: B4800 cfsetspeed failed."},
    {9600, B9600, "DBG: B9600 cfsetspeed failed."},
    {19200, B19200, "DBG: B19200 cfsetspeed failed."},
    {38400, B38400, "DBG: B38400 cfsetspeed failed."},
    {57600, B57600, "DBG: B57600 cfsetspeed failed."},
    {115200, B115200, "DBG: B115200 cfsetspeed failed."},
    {230400, B230400, "DBG: B230400 cfsetspeed failed."},
    {460800, 460800, "DBG: B460800 cfsetspeed failed."},
};
constexpr char kOtherSpeedFailure[] = "DBG: xxx cfsetspeed failed.";

void setBits(tcflag_t& flags, tcflag_t bits) {
    flags |= bits;
}

void clearBits(tcflag_t& flags, tcflag_t bits) {
    flags &= ~bits;
}

bool applySpeed(termios& record, int speed) {
    if (speed < 0) return true;
    SpeedRow row{speed, static_cast<speed_t>(speed), kOtherSpeedFailure};
    for (const SpeedRow& known : kSpeeds) {
        if (known.speed == speed) row = known;
    }
    if (cfsetspeed(&record, row.value) == 0) return true;
    systemLog(kIdentity, row.failure);
    return false;
}

void applyParity(termios& record, int parity) {
    switch (parity) {
        case 1:
        case 4:
            clearBits(record.c_cflag, PARENB);
            break;
        case 2:
            setBits(record.c_cflag, PARENB);
            clearBits(record.c_cflag, PARODD);
            break;
        case 3:
            setBits(record.c_cflag, PARENB | PARODD);
            break;
        default:
            return;
    }
    clearBits(record.c_cflag, CSIZE);
}

void applyBits(termios& record, int stopbits, int databits) {
    if (stopbits == 1) clearBits(record.c_cflag, CSTOPB);
    if (stopbits == 2) setBits(record.c_cflag, CSTOPB);
    if (databits == 8) setBits(record.c_cflag, CS8);
    if (databits == 7) setBits(record.c_cflag, CS7);
    if (databits == 6) setBits(record.c_cflag, CS6);
}

void applyRaw(termios& record) {
    constexpr int kCharacters[] = {VINTR,  VQUIT, VERASE, VKILL,    VEOF,    VEOL,
                                   VSTART, VSTOP, VSUSP,  VREPRINT, VWERASE, VLNEXT};
    clearBits(record.c_lflag, ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | ECHOCTL | ECHOKE | IEXTEN);
    clearBits(record.c_cflag, HUPCL);
    setBits(record.c_cflag, CREAD);
    clearBits(record.c_oflag, ONLCR | OPOST);
    clearBits(record.c_iflag, IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    for (const int character : kCharacters) record.c_cc[character] = 0;
}

// A code of 1 switches the bits on, 2 off.
void applySwitch(tcflag_t& flags, tcflag_t bits, int code) {
    if (code == 1) setBits(flags, bits);
    if (code == 2) clearBits(flags, bits);
}

}  // namespace

ComControl::ComControl() {
    sem_init(&sendLock, 0, 1);
}

ComControl::~ComControl() {
    StopReading();
    sem_destroy(&sendLock);
}

void ComControl::SetCom(int speed, int parity, int databits, int stopbits, int flow, int mode, int xflow,
                        const std::string& device) {
    MutexLock lock(mutex_);
    settings_ = {speed, parity, databits, stopbits, flow, xflow, mode, device};
}

void ComControl::SetCom(int speed, int parity, int flow, int mode, int xflow, const std::string& device) {
    SetCom(speed, parity, 8, 1, flow, mode, xflow, device);
}

void ComControl::NastavUkonceni(std::atomic<bool>* flag) {
    stopFlag = flag;
}

void ComControl::NastavUkonceni(bool value) {
    *stopFlag.load() = value;
}

std::string ComControl::getDevice() const {
    MutexLock lock(mutex_);
    return settings_.device;
}

bool ComControl::Connect() {
    if (!connected) {
        Start(0);
        waitOnConditionSleep(&connected, kConnectSeconds, 0);
    }
    return connected;
}

bool ComControl::Disconnect() {
    stopRequested = true;
    finished = false;
    Stop();
    waitOnConditionSleep(&finished, kConnectSeconds, 0);
    connected = false;
    stopRequested = false;
    return finished;
}

void ComControl::StopReading() {
    stopRequested = true;
    Stop();
    connected = false;
    stopRequested = false;
}

std::shared_ptr<Descriptor> ComControl::port() const {
    MutexLock lock(mutex_);
    return port_;
}

bool ComControl::SetComProperties(int descriptor, const Settings& settings) {
    if (settings.speed == 0) {
        systemLog(kIdentity, "DBG: Default values.");
        return true;
    }
    termios record{};
    tcgetattr(descriptor, &record);
    if (!applySpeed(record, settings.speed)) return false;
    setBits(record.c_cflag, CLOCAL | CREAD);
    applyParity(record, settings.parity);
    applyBits(record, settings.stopbits, settings.databits);
    applySwitch(record.c_cflag, CRTSCTS, settings.flow);
    if (settings.mode == 1) setBits(record.c_lflag, ICANON | ECHO | ECHOE);
    if (settings.mode == 2) applyRaw(record);
    applySwitch(record.c_iflag, IXON | IXANY | IXOFF, settings.xflow);
    record.c_cc[VMIN] = 0;
    record.c_cc[VTIME] = kReadTenths;
    if (tcsetattr(descriptor, TCSANOW, &record) == 0) return true;
    systemLog(kIdentity, "DBG: tcsetattr failed.");
    return false;
}

bool ComControl::OpenPort() {
    Settings settings;
    {
        MutexLock lock(mutex_);
        settings = settings_;
    }
    const char* const path = settings.device.c_str();
    {
        // The first opening gives the device its settings, the second one works with a device that has them.
        const Descriptor first(open(path, kOpenFlags));
        SetComProperties(first.get(), settings);
    }
    auto device = std::make_shared<Descriptor>(open(path, kOpenFlags));
    if (device->get() == kClosed) {
        fd = kClosed;
        systemLog(kIdentity, ("DBG: OpenPort: Unable to open" + settings.device + "\n").c_str());
        return false;
    }
    fcntl(device->get(), F_SETFL, 0);
    SetComProperties(device->get(), settings);
    {
        MutexLock lock(mutex_);
        port_ = device;
    }
    fd = device->get();
    PrintLine("Seriovy port otevren");
    return true;
}

void ComControl::ExecuteThread() {
    if (!OpenPort()) return;
    readUntilStopped(fd);
    {
        // Closed after the lock is given back: a device may take its time.
        std::shared_ptr<Descriptor> closing;
        MutexLock lock(mutex_);
        closing.swap(port_);
    }
    finished = true;
}

// A thread that waits in the device sees a byte at once. It wakes by itself only to look at the stop flags,
// which a signal handler may raise: even a hundred looks a second are half a percent of a core.
int ComControl::readWhenReady(int descriptor, char* data, ErrorRepeats& repeats) {
    pollfd readable{descriptor, POLLIN, 0};
    const bool ready = poll(&readable, 1, kIdleMilliseconds) != 0;
    // Also when nothing is told to be there: a terminal that was full while its mode changed may need a read
    // to take in more.
    const int length = SockRead2(descriptor, data, kBlock, &repeats);
    // A device that fails or was unplugged is ready for ever.
    if (ready && length <= 0) MySleep(0, kIdleMilliseconds * 1000000L);
    return length;
}

void ComControl::readUntilStopped(int descriptor) {
    fcntl(descriptor, F_SETFL, O_NONBLOCK);
    char data[kBlock + 1];
    ErrorRepeats repeats;
    while (!*stopFlag.load() && !stopRequested) {
        connected = true;
        const int length = readWhenReady(descriptor, data, repeats);
        if (length > 0) deliver(length, data);
        if (length == 0 || length == kSockTimedOut) OnInterval();
        if (length == kSockFailed && repeats.logged()) DumpError("Comcontrol: chyba v SockReadTimeout\n");
    }
}

void ComControl::deliver(int length, char* data) {
    data[length] = '\0';
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data);
    ZpracujPacket(length, bytes);
    char one[2] = {0, 0};
    for (int i = 0; i < length; ++i) {
        one[0] = data[i];
        one[1] = '\0';
        ZpracujByte(one);
        ZpracujByte(bytes[i]);
    }
}

template <class Write>
void ComControl::sendInTurn(const char* data, int length, const Write& write) {
    if (*stopFlag.load()) return;
    while (sem_wait(&sendLock) != 0 && errno == EINTR) {
    }
    BeforeSend(data, length);
    write();
    AfterSend();
    AfterSend(data, length);
    sem_post(&sendLock);
}

int ComControl::SendBinary(const char* data, int length) {
    unsigned long taken = 0;
    sendInTurn(data, length, [=, this, &taken] {
        const std::shared_ptr<Descriptor> device = port();
        const auto bytes = static_cast<unsigned long>(std::max(length, 0));
        SockWriteTimeout(device ? device->get() : kClosed, data, bytes, kSendSeconds, 0, &taken);
    });
    return static_cast<int>(taken);
}

int ComControl::Send(const char* text) {
    return SendBinary(text, static_cast<int>(strlen(text)));
}

int ComControl::Send(const std::string& text) {
    return SendBinary(text.data(), static_cast<int>(text.size()));
}

bool ComControl::TrySendByte(char byte) {
    bool taken = false;
    sendInTurn(&byte, 1, [&] { taken = writeByte(&byte); });
    return taken;
}

bool ComControl::writeByte(const char* byte) const {
    const std::shared_ptr<Descriptor> device = port();
    return write(device ? device->get() : kClosed, byte, 1) == 1;
}

void ComControl::SendByte(const char* byte) {
    sendInTurn(byte, 1, [&] {
        while (!writeByte(byte)) MySleep(1, 0);
    });
}

void ComControl::ZpracujByte(char* /*c*/) {}
void ComControl::ZpracujByte(unsigned char /*c*/) {}
void ComControl::ZpracujPacket(int /*length*/, const unsigned char* /*data*/) {}
void ComControl::OnInterval() {}
void ComControl::AfterSend() {}
void ComControl::AfterSend(const char* /*data*/, int /*length*/) {}
void ComControl::BeforeSend(const char* /*data*/, int /*length*/) {}
void ComControl::BeforeStop() {}
