// The simulated GPS receiver: its sentences, and its port against a program that has it open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "alarmd/gps/nmea.h"
#include "sim/gps/gps_receiver.h"

namespace {

using sim::GpsFix;
using sim::GpsReceiver;
using sim::gpsSentences;

constexpr GpsFix kFix = {.time = 1234567890,  // 2009-02-13 23:31:30 UTC
                         .latitude = 50.0755,
                         .longitude = 14.4378,
                         .speed = 12,
                         .course = 42.5};

TEST(GpsSentences, HaveTheChecksumOfTheStandard) {
    EXPECT_EQ(sim::nmeaSentence("GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,"),
              "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47");
    for (const std::string& sentence : gpsSentences(kFix)) EXPECT_EQ(checkCRC(sentence), 1) << sentence;
}

TEST(GpsSentences, TellTimePositionMotionAndSatellites) {
    const std::vector<std::string> sentences = gpsSentences(kFix);
    ASSERT_EQ(sentences.size(), 6U);
    EXPECT_EQ(sentences[0], "$GPGGA,233130.00,5004.5300,N,01426.2680,E,1,07,0.9,235.4,M,44.7,M,,*6F");
    EXPECT_EQ(sentences[1], "$GPRMC,233130.00,A,5004.5300,N,01426.2680,E,12.0,42.5,130209,,,A*5D");
    EXPECT_EQ(sentences[2], "$GPGSA,A,3,02,05,12,15,20,25,29,,,,,,1.6,0.9,1.3*30");
    EXPECT_EQ(sentences[3], "$GPGSV,2,1,08,02,74,042,45,05,58,281,43,12,47,118,41,15,33,063,38*77");
    EXPECT_EQ(sentences[4], "$GPGSV,2,2,08,20,29,214,36,25,21,305,34,29,14,187,30,31,08,341,*70");
    EXPECT_EQ(sentences[5], "$GPVTG,42.5,T,,M,12.0,N,22.2,K,A*3F");
}

TEST(GpsSentences, TellTheHemisphereAndRoundMinutesUpToTheNextDegree) {
    GpsFix fix = kFix;
    fix.latitude = -0.99999999;
    fix.longitude = -179.5;
    EXPECT_NE(gpsSentences(fix)[0].find(",0100.0000,S,17930.0000,W,"), std::string::npos);
}

TEST(GpsSentences, OfTwoSystemsHaveTheirTalkers) {
    GpsFix fix = kFix;
    fix.glonass = true;
    std::string kinds;
    for (const std::string& sentence : gpsSentences(fix)) {
        EXPECT_EQ(checkCRC(sentence), 1) << sentence;
        kinds += sentence.substr(1, 5) + " ";
    }
    EXPECT_EQ(kinds, "GNGGA GNRMC GNGSA GNGSA GPGSV GPGSV GLGSV GNVTG ");
}

TEST(GpsSentences, WithoutSatellitesHaveEmptyFields) {
    GpsFix fix = kFix;
    fix.valid = false;
    const std::vector<std::string> sentences = gpsSentences(fix);
    EXPECT_EQ(sentences[0].substr(0, sentences[0].find('*')), "$GPGGA,233130.00,,,,,0,00,,,M,,M,,");
    EXPECT_EQ(sentences[1].substr(0, sentences[1].find('*')), "$GPRMC,233130.00,V,,,,,,,130209,,,N");
    EXPECT_EQ(sentences[2].substr(0, sentences[2].find('*')), "$GPGSA,A,1,,,,,,,,,,,,,,,");
    EXPECT_EQ(sentences[5].substr(0, sentences[5].find('*')), "$GPVTG,,T,,M,,N,,K,N");
}

// A program at the port.
class Host {
  public:
    explicit Host(const std::string& path)
        : port_(open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {}

    bool opened() const { return port_.get() != -1; }

    // Reads until the end of what is wanted, or says why that does not come.
    std::string readTo(const std::string& wanted) {
        size_t found;
        while ((found = text_.find(wanted)) == std::string::npos) {
            pollfd polled{port_.get(), POLLIN, 0};
            if (poll(&polled, 1, 20000) <= 0) return text_ + "(time-out)";
            char buffer[4096];
            const ssize_t length = read(port_.get(), buffer, sizeof buffer);
            if (length <= 0) return text_ + "(gone)";
            text_.append(buffer, static_cast<size_t>(length));
        }
        const std::string head = text_.substr(0, found + wanted.size());
        text_.erase(0, head.size());
        return head;
    }

  private:
    const Descriptor port_;
    std::string text_;  // what is not handed out yet
};

class GpsReceiverTest : public ::testing::Test {
  protected:
    GpsReceiverTest() {
        char name[] = "/tmp/sim_gps_receiver_XXXXXX";
        folder = mkdtemp(name);
        link = folder + "/ttyModem3";
        receiver = std::make_unique<GpsReceiver>(
            GpsReceiver::Options{.link = link, .interval = std::chrono::milliseconds(10)}, log);
        sim::handleGpsEvents(dispatcher, *receiver, log);
        receiver->start();
    }
    ~GpsReceiverTest() override {
        receiver.reset();
        EXPECT_EQ(rmdir(folder.c_str()), 0) << folder;
    }

    std::string play(const std::string& line) {
        const Json::Value answer = dispatcher.runLine(line);
        return answer["ok"].asBool() ? "" : answer["error"].asString();
    }

    std::vector<Json::Value> events(const std::string& name) {
        const std::lock_guard<std::mutex> lock(mutex);
        std::vector<Json::Value> found;
        for (const Json::Value& event : told) {
            if (event["event"] == name) found.push_back(event);
        }
        return found;
    }

    bool eventually(const std::string& line) {
        for (int i = 0; i < 2000; ++i) {
            for (const Json::Value& event : events("port")) {
                if (event["line"] == line) return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    std::string folder, link;
    std::mutex mutex;
    std::vector<Json::Value> told;
    sim::EventLog log{[this](const Json::Value& event) {
        const std::lock_guard<std::mutex> lock(mutex);
        told.push_back(event);
    }};
    std::unique_ptr<GpsReceiver> receiver;
    sim::Dispatcher dispatcher;
};

TEST_F(GpsReceiverTest, SaysWholeSentencesAgainAndAgainAndTellsThem) {
    Host host(link);
    ASSERT_TRUE(host.opened());
    std::string text = host.readTo("K,A*");
    text += host.readTo("\r\n");
    host.readTo("$GPVTG");
    ASSERT_GE(events("fix").size(), 1U);
    const Json::Value first = events("fix")[0]["sentences"];
    ASSERT_EQ(first.size(), 6U);
    std::string said;
    for (const Json::Value& sentence : first) said += sentence.asString() + "\r\n";
    EXPECT_EQ(text, said);
}

TEST_F(GpsReceiverTest, Moves) {
    ASSERT_EQ(play(R"({"gps":"at","latitude":-33.5,"longitude":151.25})"), "");
    Host host(link);
    const std::string first = host.readTo(",S,").substr(0, 60);
    EXPECT_NE(first.find(",33"), std::string::npos) << first;
    for (int i = 0; i < 4; ++i) host.readTo("$GPVTG");
    const std::vector<Json::Value> fixes = events("fix");
    EXPECT_NE(fixes.front()["line"], fixes.back()["line"]);
}

TEST_F(GpsReceiverTest, SaysSoManySentencesWithAWrongChecksum) {
    ASSERT_EQ(play(R"({"gps":"corrupt","count":7})"), "");
    Host host(link);
    std::string results;
    for (int i = 0; i < 9; ++i) {
        std::string line = host.readTo("\r\n"), ignored;
        line.resize(line.size() - 2);
        results += checkCRC(line, ignored) == 1 ? 'r' : 'w';
    }
    EXPECT_EQ(results, "wwwwwwwrr");
}

TEST_F(GpsReceiverTest, SaysWhatItIsToldTo) {
    Host host(link);
    host.readTo("$GPGGA");
    EXPECT_EQ(play(R"({"gps":"silent"})"), "");
    EXPECT_EQ(play(R"({"gps":"line","text":"$GPTXT,hello"})"), "");
    host.readTo("\r\n$GPTXT,hello\r\n");
    EXPECT_EQ(play(R"({"gps":"says","hex":"24004142"})"), "");
    EXPECT_EQ(host.readTo("AB"), std::string("$\0AB", 4));
    EXPECT_EQ(play(R"({"gps":"noise","count":300})"), "");
    EXPECT_EQ(host.readTo(sim::noiseBytes(300)), sim::noiseBytes(300));
    EXPECT_EQ(play(R"({"gps":"no fix"})"), "");
    EXPECT_EQ(play(R"({"gps":"normal"})"), "");
    EXPECT_EQ(host.readTo("$GPGGA"), "$GPGGA");
}

TEST_F(GpsReceiverTest, UnpluggedThePortIsGoneAndPluggedInThereIsANewOne) {
    {
        Host host(link);
        host.readTo("$GPGGA");
        ASSERT_TRUE(eventually("gps port opened"));
        EXPECT_EQ(play(R"({"gps":"unplug"})"), "");
        EXPECT_NE(host.readTo("never").find("(gone)"), std::string::npos);
        EXPECT_FALSE(Host(link).opened());
        EXPECT_EQ(receiver->device(), "");
    }
    EXPECT_EQ(play(R"({"gps":"plug"})"), "");
    Host again(link);
    again.readTo("$GPGGA");
    const Json::Value answer = dispatcher.runLine(R"({"query":"state"})");
    EXPECT_TRUE(answer["plugged"].asBool());
    EXPECT_GT(answer["sentences"].asInt(), 0);
}

TEST_F(GpsReceiverTest, RefusesWhatItDoesNotKnow) {
    EXPECT_NE(play(R"({"gps":"dance"})").find("is not known"), std::string::npos);
    EXPECT_EQ(play(R"({"gps":"noise"})"), "\"count\" is missing");
    EXPECT_EQ(play(R"({"gps":"line"})"), "\"text\" is missing");
    EXPECT_EQ(play(R"({"gps":"says","hex":"4"})"), "\"hex\" is not made of pairs of hexadecimal digits");
    EXPECT_EQ(play(R"({"gps":"at","latitude":1})"), "\"latitude\" or \"longitude\" is missing");
    EXPECT_EQ(play(R"({"gps":"at","latitude":91,"longitude":0})"), "\"latitude\" is outside -90 to 90");
    EXPECT_EQ(play(R"({"query":"sms"})"), "\"query\": \"sms\" is not for this program");
}

}  // namespace
