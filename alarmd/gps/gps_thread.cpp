#include "alarmd/gps/gps_thread.h"

#include <cstdio>

#include "alarmd/settings/modem_settings.h"
#include "knihovny/clock.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

MyGps gps;

namespace {

constexpr int kModemLooks = 30;  // one a second
constexpr long kOpenNanoseconds = 500000000;
constexpr long kPrintSeconds = 5;

}  // namespace

void MyGps::ZpracujByte(char* c) {
    if (assembler_.take(*c, line_)) {
        MutexLock lock(gps_mutex);
        storeSentence(line_, Now(), gps_data);
    }
    fflush(stdout);
}

void printGPSdata() {
    std::string text;
    {
        MutexLock lock(gps_mutex);
        text = gpsDataText(gps_data);
    }
    Print(text);
}

void switchGpsOn(ModemDriver& driver) {
    PrintLine("Setting GPS... ");
    if (!gps_enable) return;
    driver.order("AT^WPDOM=0\r");
    driver.order("AT^WPDGP\r");
}

void nastavGPS() {
    switchGpsOn(modemDriver());
}

void vlakno_gps() {
    PrintLine("Starting thread GPS .....");
    gps.NastavUkonceni(&konecGps);
    gps.SetCom(115200, 1, 8, 1, 2, 2, 2, kGpsPort);
    gps.Start(0);
    MySleep(0, kOpenNanoseconds);
    PrintLine(gps.fd != -1 ? "Openning GPS port....OK" : "INFO: Can't open GPS port.");
    while (!konec) {
        printGPSdata();
        MySleep(kPrintSeconds, 0);
    }
    PrintLine("->Vlakno GPS: Ukoncovani");
    gps.Stop();
    PrintLine("->Vlakno GPS: Konec");
}

void MyThread3::ExecuteThread() {
    for (int look = 0; look < kModemLooks && !modemInit && !konec; ++look) MySleep(1, 0);
    vlakno_gps();
}
