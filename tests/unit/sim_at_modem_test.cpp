// The modem's command line, without a port: bytes in, bytes out, on a clock that the test moves.
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "sim/modem/at_modem.h"

namespace {

using sim::AtCommand;
using sim::AtModem;
using sim::StoredMessage;

constexpr const char* kStamp = "24/05/01,10:20:30+08";

class AtModemTest : public ::testing::Test {
  protected:
    // Sends and returns what the modem says to it.
    std::string say(const std::string& bytes) {
        modem.receive(bytes);
        return said();
    }

    // What the modem has said since the last look.
    std::string said() { return std::exchange(output, {}); }

    // Moves the clock.
    std::string after(double seconds) {
        now += seconds;
        modem.run();
        return said();
    }

    void withoutEcho() {
        say("ATE0\r");
        say("AT+CMGF=1\r");
    }

    void phone(const std::string& text, const std::string& number = "+420601000001") {
        modem.deliver(
            {.state = StoredMessage::kUnread, .number = number, .name = "", .stamp = kStamp, .text = text});
    }

    double now = 100;
    std::string output;
    std::vector<std::string> events;
    AtModem modem{*sim::findModel("ME909u-521"),
                  {.send = [this](std::string_view bytes) { output += bytes; },
                   .tell = [this](const char* name, const std::string& text,
                                  const Json::Value&) { events.push_back(std::string(name) + ": " + text); },
                   .now = [this] { return now; }}};
};

TEST(AtCommandTest, CutsALineIntoCommands) {
    std::vector<AtCommand> commands;
    ASSERT_TRUE(sim::parseAtLine("E0V1+cmgf=1;^CURC?;+CMGS=\"+420,;1\",145;&F", commands));
    ASSERT_EQ(commands.size(), 6u);
    EXPECT_EQ(commands[0].name, "E");
    EXPECT_EQ(commands[0].number(0, -1), 0);
    EXPECT_EQ(commands[2].name, "+CMGF");
    EXPECT_EQ(commands[2].form, AtCommand::kSet);
    EXPECT_EQ(commands[3].name, "^CURC");
    EXPECT_EQ(commands[3].form, AtCommand::kRead);
    EXPECT_EQ(commands[4].parameters, std::vector<std::string>({"+420,;1", "145"}));
    EXPECT_TRUE(commands[4].quoted[0]);
    EXPECT_FALSE(commands[4].quoted[1]);
    EXPECT_EQ(commands[5].name, "&F");
    commands.clear();
    ASSERT_TRUE(sim::parseAtLine("+CMGD=?", commands));
    EXPECT_EQ(commands[0].form, AtCommand::kTest);
    EXPECT_FALSE(sim::parseAtLine("E0\"", commands));
}

TEST_F(AtModemTest, EchoesAfterPowerUpUntilToldOtherwise) {
    EXPECT_EQ(say("AT\r"), "AT\r\r\nOK\r\n");
    EXPECT_EQ(say("ate0\r"), "ate0\r\r\nOK\r\n");
    EXPECT_EQ(say("AT\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("ATE1\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("AT\r"), "AT\r\r\nOK\r\n");
    say("ATE0\r");
    modem.powerUp();
    EXPECT_EQ(say("AT\r"), "AT\r\r\nOK\r\n");
}

TEST_F(AtModemTest, PassesOverWhatStandsBeforeACommand) {
    withoutEcho();
    EXPECT_EQ(say("\tAT\r"), "\r\nOK\r\n");
    EXPECT_EQ(say(std::string("\0\x05xyza\xFF\n at\r", 12)), "\r\nOK\r\n");
    EXPECT_EQ(say("aaAT\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("hello\r\r\n"), "");
}

TEST_F(AtModemTest, ASecondCarriageReturnIsAnEmptyLine) {
    EXPECT_EQ(say("AT+CMGF=1\r\r"), "AT+CMGF=1\r\r\nOK\r\n\r");
    withoutEcho();
    EXPECT_EQ(say("AT+CMGF=1\r\r"), "\r\nOK\r\n");
}

TEST_F(AtModemTest, RepeatsTheLastLine) {
    withoutEcho();
    EXPECT_EQ(say("AT+CGMM\r"), "\r\nME909u-521\r\n\r\nOK\r\n");
    EXPECT_EQ(say("A/"), "\r\nME909u-521\r\n\r\nOK\r\n");
}

TEST_F(AtModemTest, ABackspaceTakesAByteBack) {
    withoutEcho();
    EXPECT_EQ(say("AT+CGMX\bM\r"), "\r\nME909u-521\r\n\r\nOK\r\n");
}

TEST_F(AtModemTest, AnUnknownCommandIsAnError) {
    withoutEcho();
    for (const char* line : {"AT+FOO\r", "AT+CMGSX\r", "ATY\r", "AT\"\r", "AT+CMGS\r", "AT+CMGF\r"}) {
        EXPECT_EQ(say(line), "\r\nERROR\r\n") << line;
    }
    EXPECT_EQ(say("AT" + std::string(5000, 'E') + "\r"), "\r\nERROR\r\n");
}

TEST_F(AtModemTest, TheFirstErrorEndsALineOfCommands) {
    withoutEcho();
    EXPECT_EQ(say("AT+CGMM;+FOO;+CGMI\r"), "\r\nME909u-521\r\n\r\nERROR\r\n");
}

TEST_F(AtModemTest, OnlySomeModelsKnowTheMakersCommands) {
    withoutEcho();
    EXPECT_EQ(say("AT^CURC=0\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("AT^CURC?\r"), "\r\n^CURC:0\r\n\r\nOK\r\n");
    modem.setModel(*sim::findModel("EM7565"));
    EXPECT_EQ(say("AT^CURC=0\r"), "\r\nERROR\r\n");
    EXPECT_EQ(say("AT+CGMM\r"), "\r\nEM7565\r\n\r\nOK\r\n");
}

TEST_F(AtModemTest, KnowsTheModels) {
    for (const char* name : {"EM820W", "MU709s-2", "ME909u-521", "ME909u-523", "EM7565", "4105", "SIM7906E",
                             "ME909s-120", "ME906s-158"}) {
        ASSERT_NE(sim::findModel(name), nullptr) << name;
        modem.setModel(*sim::findModel(name));
        withoutEcho();
        EXPECT_EQ(say("AT+CGMM\r"), std::string("\r\n") + name + "\r\n\r\nOK\r\n");
    }
    EXPECT_EQ(sim::findModel("EM"), nullptr);
}

TEST_F(AtModemTest, ErrorsOfEquipmentHaveThreeForms) {
    withoutEcho();
    modem.world.sim = false;
    EXPECT_EQ(say("AT+CPIN?\r"), "\r\n+CME ERROR: 10\r\n");
    say("AT+CMEE=2\r");
    EXPECT_EQ(say("AT+CPIN?\r"), "\r\n+CME ERROR: SIM not inserted\r\n");
    say("AT+CMEE=0\r");
    EXPECT_EQ(say("AT+CPIN?\r"), "\r\nERROR\r\n");
}

// ---------------------------------------------------------------------------------------------------------------
// The SIM

TEST_F(AtModemTest, ThePinOpensTheSim) {
    modem.world.pin = "1234";
    withoutEcho();
    EXPECT_EQ(say("AT+CPIN?\r"), "\r\n+CPIN: SIM PIN\r\n\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGR=0\r"), "\r\n+CMS ERROR: 311\r\n");
    EXPECT_EQ(say("AT+CSCA=\"+420603052000\"\r"), "\r\n+CMS ERROR: 311\r\n");
    EXPECT_EQ(say("AT+CPIN=\"1234\"\r\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("AT+CPIN?\r"), "\r\n+CPIN: READY\r\n\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGR=0\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("AT+CPIN=\"1234\"\r"), "\r\n+CME ERROR: 3\r\n");
    modem.powerUp();
    EXPECT_FALSE(modem.simReady());
}

TEST_F(AtModemTest, ThreeWrongPinsLockTheSim) {
    modem.world.pin = "1234";
    withoutEcho();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(say("AT+CPIN=\"9999\"\r"), "\r\n+CME ERROR: 16\r\n");
    EXPECT_EQ(say("AT+CPIN=\"1234\"\r"), "\r\n+CME ERROR: 12\r\n");
    EXPECT_EQ(say("AT+CPIN?\r"), "\r\n+CPIN: SIM PUK\r\n\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGS=\"+420601\"\r"), "\r\n+CMS ERROR: 316\r\n");
}

TEST_F(AtModemTest, WithoutASimNoMessages) {
    modem.world.sim = false;
    withoutEcho();
    EXPECT_EQ(say("AT+CPIN=\"1234\"\r"), "\r\n+CME ERROR: 10\r\n");
    EXPECT_EQ(say("AT+CMGR=0\r"), "\r\n+CMS ERROR: 310\r\n");
    EXPECT_EQ(say("at+CMGS=\"+420601\"\r"), "\r\n+CMS ERROR: 310\r\n");
}

TEST_F(AtModemTest, KeepsTheServiceCentreAndRefusesAnEmptyOne) {
    withoutEcho();
    EXPECT_EQ(say("AT+CSCA=\"+420999\"\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("AT+CSCA=\"\"\r"), "\r\n+CMS ERROR: 330\r\n");
    EXPECT_EQ(say("AT+CSCA?\r"), "\r\n+CSCA: \"+420999\",145\r\n\r\nOK\r\n");
}

// ---------------------------------------------------------------------------------------------------------------
// Sending

TEST_F(AtModemTest, PromptsEchoesAndSends) {
    say("AT+CMGF=1\r");
    EXPECT_EQ(say("at+CMGS=\"+420601\"\r"), "at+CMGS=\"+420601\"\r\r\n> ");
    EXPECT_EQ(say("Hello\r\x1A"), "Hello\r\n> \r\n+CMGS: 1\r\n\r\nOK\r\n");
    ASSERT_EQ(modem.sentMessages().size(), 1u);
    EXPECT_EQ(modem.sentMessages()[0].number, "+420601");
    EXPECT_EQ(modem.sentMessages()[0].text, "Hello");
    EXPECT_EQ(modem.sentMessages()[0].raw, "Hello\r");
    EXPECT_TRUE(modem.sentMessages()[0].sent);
    EXPECT_EQ(events.back(), "sms: sms to +420601: Hello");
}

TEST_F(AtModemTest, JunkBehindCtrlZIsPassedOver) {
    withoutEcho();
    say("at+CMGS=\"+420601\"\r");
    EXPECT_EQ(say(std::string("Hi\r\x1A\0abcdefgha", 14)), "\r\n> \r\n+CMGS: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(say("at+CMGS=\"+420601\"\r"), "\r\n> ");
}

TEST_F(AtModemTest, EscapeGivesUp) {
    withoutEcho();
    say("AT+CMGS=\"+420601\"\r");
    EXPECT_EQ(say("Hi\x1B"), "\r\nOK\r\n");
    EXPECT_TRUE(modem.sentMessages().empty());
    EXPECT_EQ(say("AT\r"), "\r\nOK\r\n");
}

TEST_F(AtModemTest, RefusesToSendWithoutTextModeOrNumber) {
    say("ATE0\r");
    EXPECT_EQ(say("AT+CMGS=\"+420601\"\r"), "\r\n+CMS ERROR: 303\r\n");
    say("AT+CMGF=1\r");
    EXPECT_EQ(say("AT+CMGS=\"\"\r"), "\r\n+CMS ERROR: 305\r\n");
    EXPECT_EQ(say("AT+CMGS=\"+42x\"\r"), "\r\n+CMS ERROR: 305\r\n");
    EXPECT_EQ(say("AT+CMGF=2\r"), "\r\n+CMS ERROR: 303\r\n");
}

TEST_F(AtModemTest, TheNetworkRefusesTheNextMessages) {
    withoutEcho();
    modem.world.refusals = 1;
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("a\x1A"), "\r\n+CMS ERROR: 38\r\n");
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("b\x1A"), "\r\n+CMGS: 1\r\n\r\nOK\r\n");
    modem.world.network = false;
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("c\x1A"), "\r\n+CMS ERROR: 331\r\n");
    EXPECT_EQ(modem.sentMessages()[0].error, 38);
    EXPECT_EQ(events.back(), "sms: sms to 1: c (refused, 331)");
}

TEST_F(AtModemTest, AQuietModemSaysNothingToATextAndGoesOn) {
    withoutEcho();
    modem.world.quiet = 1;
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("a\x1A"), "");
    EXPECT_TRUE(modem.sentMessages()[0].sent);
    EXPECT_EQ(events.back(), "sms: sms to 1: a");
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("b\x1A"), "\r\n+CMGS: 2\r\n\r\nOK\r\n");
}

TEST_F(AtModemTest, AQuietModemMaySaySomethingElseInstead) {
    withoutEcho();
    modem.world.quiet = 2;
    modem.world.instead = {{0, "O"}, {1.5, "K\r\n"}};
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("a\x1A"), "");
    EXPECT_EQ(after(0), "O");
    EXPECT_EQ(after(1), "");
    EXPECT_EQ(after(1), "K\r\n");
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("b\x1A"), "");
    EXPECT_EQ(after(10), "");
}

TEST_F(AtModemTest, ATextMayHave160Bytes) {
    withoutEcho();
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say(std::string(160, 'x') + "\r\x1A"), "\r\n> \r\n+CMGS: 1\r\n\r\nOK\r\n");
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say(std::string(161, 'x') + "\r\x1A"), "\r\n> \r\n+CMS ERROR: 305\r\n");
}

TEST_F(AtModemTest, ASlowNetworkAnswersLateAndBytesWait) {
    withoutEcho();
    modem.world.sending = 3;
    say("AT+CMGS=\"1\"\r");
    EXPECT_EQ(say("a\x1A"), "");
    EXPECT_EQ(say("AT+CGMM\r"), "");
    EXPECT_EQ(modem.wait(), 3);
    EXPECT_EQ(after(2.9), "");
    EXPECT_EQ(after(0.2), "\r\n+CMGS: 1\r\n\r\nOK\r\n\r\nME909u-521\r\n\r\nOK\r\n");
}

TEST_F(AtModemTest, ASlowModemAnswersAndPromptsLate) {
    withoutEcho();
    modem.world.slow = 2;
    EXPECT_EQ(say("AT\r"), "");
    EXPECT_EQ(after(2), "\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGS=\"1\"\r"), "");
    EXPECT_EQ(say("early\x1A"), "");
    EXPECT_EQ(after(2), "\r\n> ");
    EXPECT_EQ(after(2), "\r\n+CMGS: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(modem.sentMessages()[0].text, "early");
}

TEST_F(AtModemTest, WhatIsUnderWayEndsWithThePower) {
    withoutEcho();
    modem.world.slow = 2;
    say("AT\r");
    modem.powerUp();
    EXPECT_EQ(after(5), "");
    modem.world.slow = 0;
    EXPECT_EQ(say("AT\r"), "AT\r\r\nOK\r\n");
    modem.powerDown();
    EXPECT_EQ(say("AT\r"), "");
}

TEST_F(AtModemTest, AMuteModemSaysNothingAndKeepsNothing) {
    withoutEcho();
    modem.world.mute = true;
    EXPECT_EQ(say("AT+CGMM\r"), "");
    modem.world.mute = false;
    EXPECT_EQ(after(10), "");
    EXPECT_EQ(say("AT\r"), "\r\nOK\r\n");
}

// ---------------------------------------------------------------------------------------------------------------
// Receiving

TEST_F(AtModemTest, AMessageIsToldReadAndDeleted) {
    withoutEcho();
    phone("ACK:12");
    EXPECT_EQ(said(), "\r\n+CMTI: \"SM\",0\r\n");
    EXPECT_EQ(
        say("\tAT+CMGR=0\r"),
        "\r\n+CMGR: \"REC UNREAD\",\"+420601000001\",,\"24/05/01,10:20:30+08\"\r\nACK:12\r\n\r\nOK\r\n");
    EXPECT_EQ(say("\tAT+CMGR=0\r"),
              "\r\n+CMGR: \"REC READ\",\"+420601000001\",,\"24/05/01,10:20:30+08\"\r\nACK:12\r\n\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGD=0,4\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("\tAT+CMGR=0\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGR=50\r"), "\r\n+CMS ERROR: 321\r\n");
    EXPECT_EQ(say("AT+CMGR=x\r"), "\r\n+CMS ERROR: 321\r\n");
}

TEST_F(AtModemTest, ANameAndTheLongHeaderAreShown) {
    withoutEcho();
    modem.deliver({.state = StoredMessage::kUnread,
                   .number = "601",
                   .name = "Novak",
                   .stamp = kStamp,
                   .text = "a,\"b\""});
    said();
    EXPECT_EQ(
        say("AT+CMGR=0\r"),
        "\r\n+CMGR: \"REC UNREAD\",\"601\",\"Novak\",\"24/05/01,10:20:30+08\"\r\na,\"b\"\r\n\r\nOK\r\n");
    say("AT+CSDH=1\r");
    EXPECT_EQ(say("AT+CMGR=0\r"),
              "\r\n+CMGR: \"REC "
              "READ\",\"601\",\"Novak\",\"24/05/01,10:20:30+08\",129,4,0,0,\"+420603052000\",145,5\r\n"
              "a,\"b\"\r\n\r\nOK\r\n");
}

TEST_F(AtModemTest, PlacesAreCountedFromOneWithSomeModels) {
    withoutEcho();
    modem.setModel(*sim::findModel("ME909s-120"));
    phone("a");
    EXPECT_EQ(said(), "\r\n+CMTI: \"SM\",1\r\n");
    EXPECT_EQ(say("AT+CMGR=0\r"), "\r\n+CMS ERROR: 321\r\n");
    EXPECT_EQ(modem.store().messages().count(1), 1u);
}

TEST_F(AtModemTest, ListsByState) {
    withoutEcho();
    phone("a");
    phone("b", "602");
    said();
    say("AT+CMGR=0\r");
    EXPECT_EQ(say("AT+CMGL\r"),
              "\r\n+CMGL: 1,\"REC UNREAD\",\"602\",,\"24/05/01,10:20:30+08\"\r\nb\r\n\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGL=\"ALL\"\r"),
              "\r\n+CMGL: 0,\"REC READ\",\"+420601000001\",,\"24/05/01,10:20:30+08\"\r\na\r\n"
              "+CMGL: 1,\"REC READ\",\"602\",,\"24/05/01,10:20:30+08\"\r\nb\r\n\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGL=\"STO SENT\"\r"), "\r\nOK\r\n");
    EXPECT_EQ(say("AT+CMGL=\"NEW\"\r"), "\r\n+CMS ERROR: 305\r\n");
    EXPECT_EQ(say("AT+CPMS?\r"), "\r\n+CPMS: \"SM\",2,50,\"SM\",2,50,\"SM\",2,50\r\n\r\nOK\r\n");
}

TEST_F(AtModemTest, DeletesOneOrByState) {
    withoutEcho();
    phone("a");
    phone("b");
    phone("c");
    say("AT+CMGR=0\r");
    EXPECT_EQ(say("AT+CMGD=1\r"), "\r\nOK\r\n");
    EXPECT_EQ(modem.store().messages().size(), 2u);
    EXPECT_EQ(say("AT+CMGD=0,1\r"), "\r\nOK\r\n");
    ASSERT_EQ(modem.store().messages().size(), 1u);
    EXPECT_EQ(modem.store().messages().at(2).text, "c");
    EXPECT_EQ(say("AT+CMGD=99\r"), "\r\n+CMS ERROR: 321\r\n");
    EXPECT_EQ(say("AT+CMGD=0,7\r"), "\r\n+CMS ERROR: 305\r\n");
}

TEST_F(AtModemTest, AMessageWaitsForPowerSimNetworkAndPlace) {
    withoutEcho();
    modem.world.network = false;
    phone("a");
    EXPECT_EQ(said(), "");
    modem.powerDown();
    modem.world.network = true;
    EXPECT_EQ(after(1), "");
    modem.powerUp();
    EXPECT_EQ(after(1), "\r\n+CMTI: \"SM\",0\r\n");
    for (int i = 1; i <= 50; ++i) phone("more");
    said();
    EXPECT_EQ(modem.store().messages().size(), 50u);
    say("ATE0\r");
    say("AT+CMGD=0\r");
    EXPECT_EQ(after(0), "\r\n+CMTI: \"SM\",0\r\n");
}

TEST_F(AtModemTest, AnUnaskedLineWaitsForTheEndOfACommand) {
    withoutEcho();
    modem.receive("AT+CM");
    phone("a");
    modem.unsolicited("RING");
    EXPECT_EQ(said(), "");
    EXPECT_EQ(say("GF=1\r"), "\r\nOK\r\n\r\n+CMTI: \"SM\",0\r\n\r\nRING\r\n");
    say("AT+CMGS=\"1\"\r");
    modem.unsolicited("RING");
    EXPECT_EQ(said(), "");
    EXPECT_EQ(say("x\x1A"), "\r\n+CMGS: 1\r\n\r\nOK\r\n\r\nRING\r\n");
}

TEST_F(AtModemTest, IndicationsMayBeSwitchedOffOrCarryTheMessage) {
    withoutEcho();
    say("AT+CNMI=2,0\r");
    phone("a");
    EXPECT_EQ(said(), "");
    say("AT+CNMI=2,2\r");
    phone("b");
    EXPECT_EQ(said(), "\r\n+CMT: \"+420601000001\",,\"24/05/01,10:20:30+08\"\r\nb\r\n");
    EXPECT_EQ(modem.store().messages().size(), 1u);
}

TEST_F(AtModemTest, ChattersUntilToldOtherwise) {
    withoutEcho();
    modem.world.chatter = 2;
    EXPECT_EQ(after(0), "\r\n^RSSI:20\r\n");
    EXPECT_EQ(modem.wait(), 2);
    EXPECT_EQ(after(2), "\r\n^RSSI:20\r\n");
    say("AT^CURC=0\r");
    EXPECT_EQ(after(2), "");
}

TEST_F(AtModemTest, APhoneAnswersAnAlarm) {
    withoutEcho();
    modem.answerFrom("+420601000001", "ACK", 3);
    say("AT+CMGS=\"+420601000001\"\r");
    say("(ACT) Pump failure /ack:17\r\x1A");
    say("AT+CMGS=\"+420601000002\"\r");
    say("(ACT) Pump failure /ack:17\r\x1A");
    say("AT+CMGS=\"+420601000001\"\r");
    say("(DEA) Pump failure\r\x1A");
    EXPECT_EQ(after(2.9), "");
    EXPECT_EQ(after(0.2), "\r\n+CMTI: \"SM\",0\r\n");
    EXPECT_EQ(modem.store().messages().at(0).text, "ACK:17");
    EXPECT_EQ(modem.store().messages().size(), 1u);
}

TEST_F(AtModemTest, ACommandMayBeAnsweredAsTold) {
    withoutEcho();
    modem.replyTo("at+cmgr", "\r\n+CMGR: cut", 1);
    EXPECT_EQ(say("\tAT+CMGR=0\r"), "\r\n+CMGR: cut");
    EXPECT_EQ(say("\tAT+CMGR=0\r"), "\r\nOK\r\n");
}

TEST_F(AtModemTest, SaysAnythingAtOnce) {
    withoutEcho();
    say("AT+CMGS=\"1\"\r");
    modem.say(std::string("O\0K", 3));
    EXPECT_EQ(said(), std::string("O\0K", 3));
}

TEST_F(AtModemTest, SenselessCommandsDoNoHarm) {
    static constexpr const char* kPieces[] = {
        "AT", "+CMGR", "+CMGS", "+CMGD", "+CPIN", "+CSCA",     "+CNMI", "^CURC", "E",
        "&",  "=",     "?",     "=?",    "\"",    ",",         ";",     "1",     "99999999999",
        "\r", "\x1A",  "\x1B",  "\b",    "A/",    "+CMGF=1\r", "\xFF"};
    std::minstd_rand random(7);
    for (int i = 0; i < 200000; ++i) {
        modem.receive(kPieces[(random() >> 4) % std::size(kPieces)]);
        if (i % 100 == 0) phone("x");
    }
    output.clear();
    modem.powerUp();
    EXPECT_EQ(say("AT\r"), "AT\r\r\nOK\r\n");
}

}  // namespace
