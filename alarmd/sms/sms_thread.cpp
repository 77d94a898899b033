#include "alarmd/sms/sms_thread.h"

#include <cstdio>
#include <ctime>

#include "alarmd/alarmd.h"
#include "alarmd/sms/modem.h"
#include "alarmd/sms/sms_reception.h"
#include "alarmd/sms/sms_sending.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

bool ret_connect = false;
void (*modem_ready)() = nullptr;

namespace {

constexpr int kRawMode = 2;
constexpr int kInitialised = 2;  // acknowledged commands that make an initialisation a success
constexpr int kPassSeconds = 2;

std::string modemDevice() {
    MutexLock lock(settings_mutex);
    return modemPort;
}

bool modemOpen() {
    return MyModem.fd != -1;
}

void initialiseModem() {
    while (!modemInit && !konec) {
        if (nastavModem() >= kInitialised) {
            PrintLine(color_modem, "MODEM INITIALIZATION SUCCESSFULL", color_off);
            modemInit = true;
            if (modem_ready != nullptr) modem_ready();
        } else {
            PrintLine(color_modem, "MODEM INITIALIZATION FAILED", color_off);
        }
        MySleep(1, 0);
    }
}

void openModem(const std::string& device) {
    while (!modemOpen() && !konec) {
        MyModem.NastavUkonceni(&konecModem);
        MyModem.SetCom(modem_speed, modem_parity, modem_databit, modem_stopbit, modem_flow, kRawMode,
                       modem_xflow, device);
        ret_connect = MyModem.Connect();
        MySleep(2, 0);
        if (modemOpen()) {
            PrintLine("Openning Modem port....OK");
            initialiseModem();
        } else {
            PrintLine("INFO: Can't open modem port.");
        }
    }
}

void printPassHeader(const char* queue, int size) {
    char line[128];
    snprintf(line, sizeof line, "%c[%d;%d;%dm-->%s (%s:%d) %c[%d;%d;%dm\n", 27, 0, 0, 32, "Thread sms", queue,
             size, 27, 0, 0, 37);
    Print(line);
}

void pass() {
    printPassHeader("queue", fronta_sms.size());
    printPassHeader("queue_raw", fronta_sms_raw.size());
    zpracuj_sms();
    if (!konec && time(nullptr) > readsmstime) read_sms();
}

}  // namespace

void vlakno_s() {
    const std::string device = modemDevice();
    if (device.empty()) {
        PrintLine("Modem port empty.");
        vlakno_sms = 0;
        return;
    }
    openModem(device);
    MySleep(2, 0);
    vlakno_sms = 1;
    while (!konec && modemOpen()) {
        if (!thr_lock) pass();
        MySleep(kPassSeconds, 0);
    }
    Print("Koncim Vlakno sms.........\n");
    MyModem.Stop();
    vlakno_sms = 0;
}
