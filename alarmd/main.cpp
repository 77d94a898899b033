// The daemon: start-up, main loop, stop.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>

#include "alarmd/alarmd.h"
#include "alarmd/command_line.h"
#include "alarmd/intake/history_poll.h"
#include "alarmd/intake/notification_queues.h"
#include "alarmd/intake/server_line.h"
#include "alarmd/mail/mail.h"
#include "alarmd/mail/mail_thread.h"
#include "alarmd/settings/config.h"
#include "alarmd/settings/modem_settings.h"
#include "alarmd/signals.h"
#include "alarmd/sms/sms_thread.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

namespace {

constexpr unsigned kLoopPauseSeconds = 5;
constexpr int kResendIntervalSeconds = 5;
constexpr long kSettleNanoseconds = 50000000;

std::unique_ptr<MyThread> th;    // mail
std::unique_ptr<MyThread2> th2;  // SMS

// A descriptor 0, 1 or 2 that is closed would be taken by the next file or socket, and the log would go into
// it.
void openStandardDescriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

void startWorkers() {
    th = std::make_unique<MyThread>();
    th->NastavUkonceni(&konec);
    th->Start(0);
    if (!sms) return;
    th2 = std::make_unique<MyThread2>();
    th2->NastavUkonceni(&konec);
    th2->Start(0);
}

// The client connects when an acknowledge is to be sent.
void setUpServerLine() {
    tcps.Init(ip_stack, port_stack);
    tcps.SetConnectFailSleep(timeconnect);
}

void stopServerLine(MyTcpClient& client) {
    client.NastavUkonceni(true);
    client.Stop();
}

void start() {
    loadProjectFiles(true);
    if (sms) readSMSset();
    startWorkers();
    last_timestamp = time(nullptr);
    openHistory();
    setUpServerLine();
    MySleep(0, kSettleNanoseconds);
    last_resend = time(nullptr);
}

void reread() {
    fronta_mail.clear();
    fronta_sms.clear();
    loadProjectFiles(false);
    readSMSset();
    reload = false;
}

void runMainLoop() {
    while (!konec) {
        if (reload && !konec) reread();
        if (readok) pollHistory();
        const time_t now = time(nullptr);
        if (last_resend + kResendIntervalSeconds < now) checkResend(now);
        if (!konec) sleep(kLoopPauseSeconds);
    }
}

void stop() {
    stopServerLine(tcpc);
    stopServerLine(tcps);
    th.reset();
    th2.reset();
    closeHistory();
    MySleep(0, kSettleNanoseconds);
}

}  // namespace

int main(int argc, char* argv[]) {
    openStandardDescriptors();
    installSignalHandlers();
    if (!parseCommandLine(argc, argv)) return 0;
    debug_level = dbglev;
    system_setting = "/etc/korvato/settings.json";
    readConfigFiles();
    if (test_send && !test_user.empty()) {
        sendTestMail();
        return 0;
    }
    start();
    runMainLoop();
    stop();
    return 0;
}
