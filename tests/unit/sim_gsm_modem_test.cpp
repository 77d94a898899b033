// The simulated modem on its port, against a program that has the port open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/modem/gsm_modem.h"
#include "sim/modem/modem_events.h"
#include "sim/support/scenario.h"

namespace {

using sim::AtModem;
using sim::GsmModem;

// An open port.
class Host {
  public:
    explicit Host(const std::string& path)
        : port_(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {}

    bool opened() const { return port_.get() != -1; }
    ssize_t write(const std::string& bytes) const { return ::write(port_.get(), bytes.data(), bytes.size()); }

    // Reads until the text ends with end, or says why it does not.
    std::string readTo(const std::string& end) const {
        std::string text;
        while (!text.ends_with(end)) {
            pollfd polled{port_.get(), POLLIN, 0};
            if (poll(&polled, 1, 20000) <= 0) return text + "(time-out)";
            char buffer[4096];
            const ssize_t length = read(port_.get(), buffer, sizeof buffer);
            if (length <= 0) return text + "(gone)";
            text.append(buffer, static_cast<size_t>(length));
        }
        return text;
    }

    std::string command(const std::string& bytes, const std::string& end) const {
        return write(bytes) == static_cast<ssize_t>(bytes.size()) ? readTo(end) : "(not written)";
    }

  private:
    const Descriptor port_;
};

class GsmModemTest : public ::testing::Test {
  protected:
    GsmModemTest() {
        char name[] = "/tmp/sim_gsm_modem_XXXXXX";
        folder = mkdtemp(name);
        link = folder + "/ttyModem2";
    }
    ~GsmModemTest() override {
        modem.reset();
        EXPECT_EQ(rmdir(folder.c_str()), 0) << folder;
    }

    GsmModem& plugged() {
        modem = std::make_unique<GsmModem>(GsmModem::Options{.link = link}, log);
        modem->start();
        return *modem;
    }

    int events(const std::string& wanted) {
        const std::lock_guard<std::mutex> lock(mutex);
        int count = 0;
        for (const Json::Value& event : told) count += event["line"].asString() == wanted;
        return count;
    }

    bool eventually(const std::string& event) {
        for (int i = 0; i < 2000 && events(event) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return events(event) > 0;
    }

    std::string folder, link;
    std::mutex mutex;
    std::vector<Json::Value> told;
    sim::EventLog log{[this](const Json::Value& event) {
        const std::lock_guard<std::mutex> lock(mutex);
        told.push_back(event);
    }};
    std::unique_ptr<GsmModem> modem;
};

TEST_F(GsmModemTest, SpeaksOnItsPortByItsLink) {
    plugged();
    const Host host(link);
    ASSERT_TRUE(host.opened());
    EXPECT_EQ(host.command("AT\r", "OK\r\n"), "AT\r\r\nOK\r\n");
    EXPECT_EQ(host.command("AT+CMGF=1\r", "OK\r\n"), "AT+CMGF=1\r\r\nOK\r\n");
    EXPECT_EQ(host.command("at+CMGS=\"+420601\"\r", "> "), "at+CMGS=\"+420601\"\r\r\n> ");
    EXPECT_EQ(host.command(std::string("Hello\r\x1A\0abcdefghi", 17), "abcdefghi"),
              std::string("Hello\r\n> \r\n+CMGS: 1\r\n\r\nOK\r\n\0abcdefghi", 37));
    EXPECT_TRUE(eventually("sms to +420601: Hello"));
}

TEST_F(GsmModemTest, RecordsTheLine) {
    GsmModem& sim = plugged();
    const Host host(link);
    host.command("AT\r", "OK\r\n");
    std::string from_host, from_modem;
    for (const sim::LineRecord& record : sim.line())
        (record.from_host ? from_host : from_modem) += record.bytes;
    EXPECT_EQ(from_host, "AT\r");
    EXPECT_EQ(from_modem, "AT\r\r\nOK\r\n");
    EXPECT_EQ(sim::lineJson(sim.line()[0])["hex"].asString(), "41540d");
    sim.forgetLine();
    EXPECT_TRUE(sim.line().empty());
}

TEST_F(GsmModemTest, UnpluggedThePortIsGoneAndPluggedInThereIsANewOne) {
    GsmModem& sim = plugged();
    const Host host(link);
    EXPECT_EQ(host.command("ATE0\r", "OK\r\n"), "ATE0\r\r\nOK\r\n");
    const std::string device = sim.device();
    sim.unplug();
    EXPECT_EQ(host.write("AT\r"), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(Host(link).opened());
    EXPECT_EQ(sim.device(), "");
    sim.plug();
    EXPECT_NE(sim.device(), device);
    const Host again(link);
    EXPECT_EQ(again.command("AT\r", "OK\r\n"), "AT\r\r\nOK\r\n");
}

TEST_F(GsmModemTest, UnplugsInTheMiddleOfACommand) {
    GsmModem& sim = plugged();
    const Host host(link);
    sim.unplugAfter("AT+CMGF");
    EXPECT_EQ(host.command("AT\r", "OK\r\n"), "AT\r\r\nOK\r\n");
    ASSERT_EQ(host.write("AT+C"), 4);
    EXPECT_EQ(host.readTo("AT+C"), "AT+C");
    ASSERT_EQ(host.write("MGF=1\r"), 6);
    EXPECT_EQ(host.readTo("OK\r\n"), "(gone)");
    EXPECT_TRUE(eventually("modem port unplugged"));
}

TEST_F(GsmModemTest, BeginsUnplugged) {
    modem = std::make_unique<GsmModem>(GsmModem::Options{.link = link, .plugged = false}, log);
    modem->start();
    EXPECT_FALSE(Host(link).opened());
    modem->plug();
    EXPECT_TRUE(Host(link).opened());
}

TEST_F(GsmModemTest, TellsWhenTheProgramOpensAndClosesThePort) {
    plugged();
    EXPECT_EQ(events("modem port plugged"), 1);
    EXPECT_EQ(events("modem port opened"), 0);
    {
        const Host host(link);
        EXPECT_TRUE(eventually("modem port opened"));
    }
    EXPECT_TRUE(eventually("modem port closed"));
}

TEST_F(GsmModemTest, APortThatNobodyHasOpenKeepsNothing) {
    GsmModem& sim = plugged();
    sim.call([](AtModem& at) { at.unsolicited("RING"); });
    const Host host(link);
    ASSERT_TRUE(eventually("modem port opened"));
    EXPECT_EQ(host.command("AT\r", "OK\r\n"), "AT\r\r\nOK\r\n");
}

TEST_F(GsmModemTest, ADeafModemLetsBytesPileUp) {
    GsmModem& sim = plugged();
    const Host host(link);
    ASSERT_TRUE(eventually("modem port opened"));
    sim.setDeaf(true);
    const std::string lines(100000, '\r');
    ssize_t written = 0, length = 0;
    while ((length = host.write(lines)) > 0) written += length;
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GT(written, 0);
    EXPECT_TRUE(sim.line().empty());
    sim.setDeaf(false);
    EXPECT_EQ(host.readTo(std::string(static_cast<size_t>(written), '\r')).size(),
              static_cast<size_t>(written));
}

TEST_F(GsmModemTest, TheLinkReplacesAnOldLinkButNoFileAndGoesAtTheEnd) {
    ASSERT_EQ(symlink("/nonexistent", link.c_str()), 0);
    plugged();
    EXPECT_TRUE(Host(link).opened());
    modem.reset();
    struct stat status {};
    EXPECT_NE(lstat(link.c_str(), &status), 0);
    EXPECT_THROW(GsmModem({.link = folder}, log), std::runtime_error);
    EXPECT_THROW(GsmModem({.link = folder + "/none/tty"}, log), std::runtime_error);
}

TEST_F(GsmModemTest, CarriesOutCommands) {
    GsmModem& sim = plugged();
    sim::Dispatcher dispatcher;
    sim::handleModemEvents(dispatcher, sim, log);
    const auto run = [&](const char* line) { return sim::compactJson(dispatcher.runLine(line)); };
    const Host host(link);
    ASSERT_TRUE(eventually("modem port opened"));
    EXPECT_EQ(host.command("AT+CMGF=1\r", "OK\r\n"), "AT+CMGF=1\r\r\nOK\r\n");
    EXPECT_EQ(run(R"({"phone":"+420601","sends":"ACK:12","stamp":"24/05/01,10:20:30+08"})"),
              R"({"ok":true})");
    EXPECT_EQ(host.readTo("\r\n+CMTI: \"SM\",0\r\n"), "\r\n+CMTI: \"SM\",0\r\n");
    EXPECT_EQ(run(R"({"query":"store"})"),
              R"({"ok":true,"store":[{"index":0,"number":"+420601","stamp":"24/05/01,10:20:30+08",)"
              R"("state":"REC UNREAD","text":"ACK:12"}]})");
    EXPECT_EQ(run(R"({"network":"refuses","count":1,"code":42})"), R"({"ok":true})");
    EXPECT_EQ(host.command("AT+CMGS=\"1\"\r", "> "), "AT+CMGS=\"1\"\r\r\n> ");
    EXPECT_EQ(host.command("x\x1A", "ERROR: 42\r\n"), "x\r\n+CMS ERROR: 42\r\n");
    EXPECT_EQ(run(R"({"query":"sms"})"),
              R"({"ok":true,"sms":[{"error":42,"number":"1","raw":"x","sent":false,"text":"x"}]})");
    EXPECT_EQ(run(R"({"phone":"+420601","calls":true})"), R"({"ok":true})");
    EXPECT_EQ(host.readTo("RING\r\n"), "\r\nRING\r\n");
    EXPECT_EQ(run(R"({"modem":"says","hex":"004f4b"})"), R"({"ok":true})");
    EXPECT_EQ(host.readTo("OK"), std::string("\0OK", 3));
    EXPECT_EQ(run(R"({"modem":"noise","count":7})"), R"({"ok":true})");
    EXPECT_EQ(run(R"({"modem":"sim","pin":"1234"})"), R"({"ok":true})");
    const Json::Value state = dispatcher.runLine(R"({"query":"state"})");
    EXPECT_TRUE(state["plugged"].asBool());
    EXPECT_FALSE(state["sim_ready"].asBool());
    EXPECT_EQ(run(R"({"modem":"unplug"})"), R"({"ok":true})");
    EXPECT_FALSE(dispatcher.runLine(R"({"query":"state"})")["plugged"].asBool());
    EXPECT_EQ(run(R"({"clear":"sms"})"), R"({"ok":true})");
    EXPECT_EQ(run(R"({"query":"sms"})"), R"({"ok":true,"sms":[]})");
    EXPECT_EQ(run(R"({"query":"polls"})"),
              R"({"error":"\"query\": \"polls\" is not for this program","ok":false})");
    EXPECT_EQ(run(R"({"server":"away"})"), R"({"error":"\"server\" is not for this program","ok":false})");
}

TEST(ModemEventsTest, WrongOnesAreToldWithTheReason) {
    const auto reason = [](const char* event) {
        try {
            sim::parseScenario(std::string("{\"events\":[") + event + "]}", "f");
        } catch (const sim::ScenarioError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(reason(R"({"at":1,"phone":"1"})"),
              "f: event 1: one of \"sends\", \"answers\" and \"calls\": true is needed");
    EXPECT_EQ(reason(R"({"at":1,"network":"refuses"})"), "f: event 1: \"count\" is missing or below 1");
    EXPECT_EQ(reason(R"({"at":1,"network":"dead"})"),
              "f: event 1: \"network\": \"dead\" is not known; known are normal, back, away, refuses, slow");
    EXPECT_EQ(reason(R"({"at":1,"modem":"slow"})"), "f: event 1: \"seconds\" is missing");
    EXPECT_EQ(reason(R"({"at":1,"modem":"says"})"), "f: event 1: \"text\" or \"hex\" is missing");
    EXPECT_EQ(reason(R"({"at":1,"modem":"model","name":"X"})"),
              "f: event 1: \"name\": \"X\" is no known model");
    EXPECT_EQ(
        reason(R"({"at":1,"modem":"explode"})").rfind("f: event 1: \"modem\": \"explode\" is not known", 0),
        0u);
    EXPECT_EQ(reason(R"({"at":1,"modem":"unplug","after":"AT+CMGR"})"), "");
}

}  // namespace
