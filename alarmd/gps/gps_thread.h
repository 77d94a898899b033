// The GPS receiver in the modem: the serial port of its NMEA 0183 sentences, and how it is switched on.
#pragma once

#include <atomic>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/gps/nmea.h"
#include "alarmd/sms/driver.h"
#include "knihovny/comcontrol.h"
#include "knihovny/thread3.h"

// The GPS port's serial channel. Its handler runs on the channel's reading thread and puts the sentences into
// gps_data.
class MyGps final : public ComControl {
  public:
    ~MyGps() { StopReading(); }

    void ZpracujByte(char* c) override EXCLUDES(gps_mutex);
    using ComControl::ZpracujByte;

  private:
    NmeaAssembler assembler_;
    std::string line_;
};

extern MyGps gps;

// Prints gps_data. Any thread.
void printGPSdata() EXCLUDES(gps_mutex);

// Switches the modem's GPS on, unless gps_enable is false: two orders, whose answers are not waited for. To
// be called once the modem is initialised. SMS thread.
void switchGpsOn(ModemDriver& driver);

// The same for the daemon's modem.
void nastavGPS();

// The GPS thread's body: opens /dev/ttyModem3 once and prints gps_data every 5 s until konec is set. Then
// ends the channel, which takes konecGps.
void vlakno_gps();

// Waits for the modem's initialisation, at most 30 s, and runs vlakno_gps.
class MyThread3 final : public Thread3 {
  public:
    ~MyThread3() { Stop(); }

    void NastavUkonceni(std::atomic<bool>* flag) { ukonci = flag; }

  protected:
    void ExecuteThread() override;

  private:
    std::atomic<bool>* ukonci = nullptr;
};
