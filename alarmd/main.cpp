// The daemon: start-up, main loop, stop.
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <memory>

#include "alarmd/alarmd.h"
#include "alarmd/base/fatal.h"
#include "alarmd/command_line.h"
#include "alarmd/gps/gps_thread.h"
#include "alarmd/intake/history_poll.h"
#include "alarmd/intake/notification_queues.h"
#include "alarmd/intake/server_line.h"
#include "alarmd/mail/mail_channel.h"
#include "alarmd/mail/mail_thread.h"
#include "alarmd/requests/fcgi_responder.h"
#include "alarmd/requests/tcp_request_server.h"
#include "alarmd/settings/config.h"
#include "alarmd/settings/modem_settings.h"
#include "alarmd/signals.h"
#include "alarmd/sms/sms_thread.h"
#include "alarmd/waiting/wait_list.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

#ifdef KORVATO_COVERAGE
extern "C" void __gcov_dump();  // _exit would leave the counts behind
#endif

namespace {

constexpr unsigned kLoopPauseSeconds = 5;
constexpr std::chrono::seconds kLogPatience{5};
constexpr int kResendIntervalSeconds = 5;
constexpr long kSettleNanoseconds = 50000000;

std::unique_ptr<MyThread> th;    // mail
std::unique_ptr<MyThread2> th2;  // SMS
std::unique_ptr<MyThread3> th_gps;

// Never destroyed: the responder waits for one more request, and the process does not wait for that.
MyThreadFCGI* th_fcgi = nullptr;

// A descriptor 0, 1 or 2 that is closed would be taken by the next file or socket, and the log would go into
// it.
void openStandardDescriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

void startSmsThread() {
    if (gps_enable) modem_ready = nastavGPS;
    th2 = std::make_unique<MyThread2>();
    th2->NastavUkonceni(&konec);
    th2->Start(0);
}

void startGpsThread() {
    th_gps = std::make_unique<MyThread3>();
    th_gps->NastavUkonceni(&konec);
    th_gps->Start(0);
}

void startWorkers() {
    th_fcgi = new MyThreadFCGI;
    th_fcgi->NastavUkonceni(&konec);
    th_fcgi->Start(0);
    th = std::make_unique<MyThread>();
    th->NastavUkonceni(&konec);
    th->Start(0);
    if (sms) startSmsThread();
    if (gps_enable) startGpsThread();
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

// The C library by itself keeps what was freed below the last block in use: after the loading of a great
// project, or a burst of alarms, that is most of it.
void giveMemoryBack() {
    malloc_trim(0);
}

void start() {
    loadProjectFiles(true);
    giveMemoryBack();
    if (sms) readSMSset();
    startWorkers();
    last_timestamp = Now();
    openHistory();
    setUpServerLine();
    MySleep(0, kSettleNanoseconds);
}

void startTcpRequests(myTcpServer& server) {
    if (tcp_port == 0) return;
    server.Init(tcp_port, tcp_timeout, true);
    server.Start(0);
}

void reread() {
    fronta_mail.clear();
    fronta_sms.clear();
    loadProjectFiles(false);
    readSMSset();
    reload = false;
}

void runMainLoop() {
    last_resend = Now();
    while (!konec) {
        if (reload && !konec) reread();
        const bool poll_now = readok;
        tcps.PollIsHeldUp(!poll_now);
        if (poll_now) pollHistory();
        const time_t now = Now();
        if (last_resend + kResendIntervalSeconds < now) checkResend(now);
        dropStaleSms();
        if (alarmQueuesRanEmpty()) giveMemoryBack();
        if (!konec) sleep(kLoopPauseSeconds);
    }
}

// Behind the ends of the workers, wherever in their rounds the stop met them.
void tellUnsent() {
    const int mails = fronta_mail.size();
    if (mails > 0) PrintErrorLine("alarmd: stopping with ", mails, " mail queue entries unsent");
    const int messages = unsentSms();
    if (messages > 0) PrintErrorLine("alarmd: stopping with ", messages, " SMS queue entries unsent");
}

void stop() {
    stopServerLine(tcpc);
    stopServerLine(tcps);
    th_gps.reset();
    th.reset();
    th2.reset();
    tellUnsent();
    closeHistory();
    MySleep(0, kSettleNanoseconds);
}

// Ends the process without waiting for the responder's thread, and without the destructors of what that may
// still use.
[[noreturn]] void endProcess() {
    pthread_detach(th_fcgi->threadID());
#ifdef KORVATO_COVERAGE
    __gcov_dump();
#endif
    _exit(0);
}

}  // namespace

int main(int argc, char* argv[]) {
    openStandardDescriptors();
    dropLogWithoutRoom(kLogPatience);
    limitTermination(kLogPatience);
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
    {
        myTcpServer tcp_requests;
        startTcpRequests(tcp_requests);
        runMainLoop();
        stop();
    }
    endProcess();
}
