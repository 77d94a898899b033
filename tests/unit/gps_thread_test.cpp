#include "alarmd/gps/gps_thread.h"

#include <sys/stat.h>
#include <unistd.h>

#include "alarmd/sms/timed_text/exchange.h"
#include "tests/support/fake_driver.h"
#include "tests/support/project_files.h"
#include "tests/support/pty_modem.h"

namespace {

constexpr char kGga[] = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47";
constexpr char kGpsPort[] = "/dev/ttyModem3";
constexpr char kEmptyStore[] =
    "----------GPS-----------\nGPGGA: \nGPRMC: \nGPGSA: \nGPVTG: \n------------------------\n";

_gps_data stored() {
    MutexLock lock(gps_mutex);
    return gps_data;
}

class GpsThreadTest : public testing::Test {
  protected:
    GpsThreadTest() { resetDaemonState(); }
    ~GpsThreadTest() override {
        konecGps = true;
        gps.StopReading();
        resetDaemonState();
    }

    static bool connectGps(const std::string& device) {
        gps.NastavUkonceni(&konecGps);
        gps.SetCom(115200, 1, 8, 1, 2, 2, 2, device);
        return gps.Connect();
    }
};

TEST_F(GpsThreadTest, BytesFromThePortBecomeTheStore) {
    PtyModem receiver;
    outputOf([&] { ASSERT_TRUE(connectGps(receiver.device())); });
    receiver.say(std::string(kGga) + "\r\n$GNRMC,1*00\r\n$GPGSV,2,1,05*00\r\n$GPGSV,2,2,05*00\r\n");
    ASSERT_TRUE(PtyModem::eventually([] { return stored().GPGSV[2] == "$GPGSV,2,2,05*00"; }));
    EXPECT_EQ(stored().GPGGA, kGga);
    EXPECT_EQ(stored().GPRMC, "$GNRMC,1*00");
    EXPECT_NEAR(static_cast<double>(stored().updated), static_cast<double>(time(nullptr)), 10);
    EXPECT_EQ(outputOf(printGPSdata).out,
              std::string("----------GPS-----------\nGPGGA: ") + kGga +
                  "\nGPRMC: $GNRMC,1*00\nGPGSA: \nGPVTG: \nGPGSV[1]: $GPGSV,2,1,05*00\n"
                  "GPGSV[2]: $GPGSV,2,2,05*00\n------------------------\n");
}

TEST_F(GpsThreadTest, TheStoreIsReadWhileItIsWritten) {
    PtyModem receiver;
    outputOf([&] { ASSERT_TRUE(connectGps(receiver.device())); });
    std::thread sender([&] {
        for (int i = 0; i < 200; ++i)
            receiver.say("$GPGGA,aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa*00\r\n$GPGGA,b*00\r\n");
        receiver.say("$GPVTG,end*00\r\n");
    });
    const auto whole = [](const std::string& sentence) {
        return sentence.empty() || sentence == "$GPGGA,b*00" ||
               sentence == "$GPGGA,aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa*00";
    };
    EXPECT_TRUE(PtyModem::eventually([&] {
        EXPECT_TRUE(whole(stored().GPGGA)) << stored().GPGGA;
        return !stored().GPVTG.empty();
    }));
    sender.join();
}

TEST_F(GpsThreadTest, GpsIsSwitchedOnWithTwoOrdersAndTheirZeros) {
    PtyModem device;
    outputOf([&] { ASSERT_TRUE(connectModem(device.device())); });
    gps_enable = true;
    receive = 1;
    EXPECT_EQ(outputOf(nastavGPS).out, "Setting GPS... \n");
    const std::string orders("AT^WPDOM=0\r\0AT^WPDGP\r\0", 22);
    EXPECT_TRUE(PtyModem::eventually([&] { return device.received().size() >= orders.size(); }));
    EXPECT_EQ(device.received(), orders);
    EXPECT_EQ(linitstr, 10);
    EXPECT_EQ(receive, 0);
    disconnectModem();
}

TEST_F(GpsThreadTest, TheOrdersAreTheDriversToGive) {
    FakeDriver driver;
    outputOf([&] { switchGpsOn(driver); });
    EXPECT_TRUE(driver.calls.empty());
    gps_enable = true;
    outputOf([&] { switchGpsOn(driver); });
    EXPECT_EQ(driver.calls, (std::vector<std::string>{"order AT^WPDOM=0\r", "order AT^WPDGP\r"}));
}

TEST_F(GpsThreadTest, NothingIsSentWhenGpsIsOff) {
    PtyModem device;
    outputOf([&] { ASSERT_TRUE(connectModem(device.device())); });
    EXPECT_EQ(outputOf(nastavGPS).out, "Setting GPS... \n");
    MyModem.SendBinary("AT", 2);
    EXPECT_TRUE(PtyModem::eventually([&] { return device.received().size() >= 2; }));
    EXPECT_EQ(device.received(), "AT");
    EXPECT_EQ(linitstr, 0);
    disconnectModem();
}

// The port's name is fixed: without such a device the thread prints an empty store.
TEST_F(GpsThreadTest, WithoutAPortTheThreadPrintsAnEmptyStoreUntilItIsStopped) {
    if (std::filesystem::exists(kGpsPort)) GTEST_SKIP() << kGpsPort << " exists on this machine";
    modemInit = true;
    MyThread3 thread;
    thread.NastavUkonceni(&konec);
    const std::string started =
        std::string("Starting thread GPS .....\nINFO: Can't open GPS port.\n") + kEmptyStore;
    const Output output = outputOf([&] {
        std::thread stopper([&] {
            struct stat captured {};
            PtyModem::eventually([&] {
                fstat(STDOUT_FILENO, &captured);
                return static_cast<size_t>(captured.st_size) >= started.size();
            });
            konec = konecGps = true;
        });
        thread.Start(0);
        thread.Stop();
        stopper.join();
    });
    EXPECT_EQ(output.out, started + "->Vlakno GPS: Ukoncovani\n->Vlakno GPS: Konec\n");
}

TEST_F(GpsThreadTest, TheThreadWaitsForTheModem) {
    if (std::filesystem::exists(kGpsPort)) GTEST_SKIP() << kGpsPort << " exists on this machine";
    MyThread3 thread;
    const Output output = outputOf([&] {
        thread.Start(0);
        usleep(200000);
        konec = konecGps = true;
        thread.Stop();
    });
    // Stopped within its first look, it goes through its body without a pass.
    EXPECT_EQ(output.out,
              "Starting thread GPS .....\nINFO: Can't open GPS port.\n->Vlakno GPS: Ukoncovani\n->Vlakno "
              "GPS: Konec\n");
}

}  // namespace
