#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <ctime>
#include <fstream>
#include <string>

#include "alarmd/intake/server_line.h"
#include "alarmd/sms/commands.h"
#include "alarmd/sms/reception.h"
#include "alarmd/sms/timed_text/owed_bytes.h"
#include "alarmd/sms/timed_text/prompt.h"
#include "knihovny/debugerror.h"
#include "knihovny/descriptor.h"
#include "tests/support/fake_driver.h"
#include "tests/support/pty_modem.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// The server's local port: takes one connection and collects what comes.
class LocalPort {
  public:
    LocalPort() {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener_, 1);
        socklen_t length = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~LocalPort() {
        close(listener_);
        if (connection_ >= 0) close(connection_);
    }

    int number() const { return port_; }

    // The bytes that arrive within a moment; empty when nobody connects.
    std::string take() {
        pollfd event{listener_, POLLIN, 0};
        if (connection_ < 0 && poll(&event, 1, 300) == 1) connection_ = accept(listener_, nullptr, nullptr);
        std::string all;
        char buffer[512];
        pollfd data{connection_, POLLIN, 0};
        while (connection_ >= 0 && poll(&data, 1, 300) == 1) {
            const ssize_t count = read(connection_, buffer, sizeof buffer);
            if (count <= 0) break;
            all.append(buffer, static_cast<size_t>(count));
        }
        return all;
    }

  private:
    int listener_ = -1;
    int connection_ = -1;
    int port_ = 0;
};

std::string reply(const std::string& header, const std::string& text) {
    return "\r\n+CMGR: " + header + "\r\n" + text + "\r\n\r\nOK\r\n";
}

class SmsReceptionTest : public testing::Test {
  protected:
    void SetUp() override { resetDaemonState(); }
    void TearDown() override {
        disconnectModem();
        tcps.Disconnect();
        SetUp();
    }

    static void addUser(int id, const std::string& number, bool control) {
        _user user_record;
        user_record.id = id;
        user_record.mobil = number;
        user_record.sms_control = control;
        MutexLock lock(project_mutex);
        user_list.push_back(user_record);
    }

    static void setProject(const std::string& id) {
        MutexLock lock(settings_mutex);
        projectID = id;
    }

    static _last_sms lastSms() {
        MutexLock lock(last_sms_mutex);
        return last_sms;
    }

    // One read cycle of a modem that gives this reply; returns what was printed.
    std::string readWith(const std::string& modem_reply) {
        PtyModem line(PtyModem::Script{{"AT+CMGR=0\r", modem_reply}, {"AT+CMGD=0,4\r", "\r\nOK\r\n"}});
        EXPECT_TRUE(connectModem(line.device()));
        CaptureStdout();
        read_sms();
        const std::string log = GetCapturedStdout();
        received_ = line.received();
        disconnectModem();
        return log;
    }

    std::string received_;
    LocalPort server_;
};

constexpr char kReadLog[] =
    "\t-->Thread sms: Cteni SMS\n\tAT Command: \tAT+CMGR=0\r\n\tAT Command size : 11\n\tCtu SMS cislo: 0\n";

TEST_F(SmsReceptionTest, AnAuthorisedAcknowledgeReachesTheServer) {
    addUser(7, "123456789", true);
    setProject("4");
    tcps.Init("127.0.0.1", server_.number());
    const std::string log =
        readWith(reply("\"REC UNREAD\",\"123456789\",,\"26/11/21,10:00:00+04\"", "ACK:17"));
    EXPECT_EQ(log,
              std::string(kReadLog) +
                  "\tText: ACK:17\r\n\tFrom: 123456789\n\tClearing all SMS..... \nAUTHORIZED USER !!!\n\n"
                  "Execute command: ACK:17\nAcknowledge alarm id: 17\n\n");
    EXPECT_EQ(server_.take(), "t=11&prj=4&id=17&userID=7&ackText=ACK_SMS");
    EXPECT_EQ(received_, "\tAT+CMGR=0\rAT+CMGD=0,4\r");
    EXPECT_EQ(lastSms().from, "123456789");
    EXPECT_EQ(lastSms().text, "ACK:17");
    EXPECT_NEAR(static_cast<double>(lastSms().timestamp), static_cast<double>(time(nullptr)), 5);
}

TEST_F(SmsReceptionTest, AProjectIdEndsAtItsZeroByteInTheRequest) {
    addUser(7, "5", true);
    setProject(std::string("4\0x", 3));
    tcps.Init("127.0.0.1", server_.number());
    readWith(reply("\"REC UNREAD\",\"5\",,\"t\"", "ACK:17"));
    EXPECT_EQ(server_.take(), "t=11&prj=4&id=17&userID=7&ackText=ACK_SMS");
}

TEST_F(SmsReceptionTest, AnAlarmIdEndsAtItsZeroByteInTheRequest) {
    setProject("4");
    tcps.Init("127.0.0.1", server_.number());
    execute_sms_command(std::string("ACK:17\0:2", 9), 7, "5");
    EXPECT_EQ(server_.take(), "t=11&prj=4&id=17&userID=7&ackText=ACK_SMS");
}

TEST_F(SmsReceptionTest, ARequestIsCutAt999Bytes) {
    setProject(std::string(1000, '4') + std::string("\0x", 2));
    tcps.Init("127.0.0.1", server_.number());
    execute_sms_command("ACK:17", 7, "5");
    EXPECT_EQ(server_.take(), "t=11&prj=" + std::string(990, '4'));
}

TEST_F(SmsReceptionTest, WorksWithEchoOn) {
    addUser(7, "+420123456789", true);
    setProject("4");
    tcps.Init("127.0.0.1", server_.number());
    readWith("\tAT+CMGR=0\r" +
             reply("\"REC UNREAD\",\"+420123456789\",\"Jan\",\"26/11/21,10:00:00+04\"", "ack:17"));
    EXPECT_EQ(server_.take(), "t=11&prj=4&id=17&userID=7&ackText=ACK_SMS");
}

TEST_F(SmsReceptionTest, AStrangerIsRefusedAndRemembered) {
    addUser(7, "123456789", true);
    tcps.Init("127.0.0.1", server_.number());
    const std::string log = readWith(reply("\"REC UNREAD\",\"999\",,\"26/11/21,10:00:00+04\"", "ACK:17"));
    EXPECT_NE(log.find("\tClearing all SMS..... \nUNAUTHORIZED USER !!!\n\n"), std::string::npos);
    EXPECT_EQ(server_.take(), "");
    EXPECT_EQ(lastSms().from, "999");
    EXPECT_EQ(lastSms().text, "ACK:17");
}

TEST_F(SmsReceptionTest, AnEmptySenderIsNobody) {
    addUser(7, "", true);
    tcps.Init("127.0.0.1", server_.number());
    const std::string log = readWith(reply("\"REC UNREAD\",\"\",,\"t\"", "ACK:17"));
    EXPECT_NE(log.find("\tFrom: \n\tClearing all SMS..... \nUNAUTHORIZED USER !!!\n\n"), std::string::npos);
    EXPECT_EQ(server_.take(), "");
    EXPECT_EQ(lastSms().from, "");
    EXPECT_EQ(lastSms().text, "ACK:17");
}

TEST_F(SmsReceptionTest, ASenderNotInQuotationMarksFromEndToEndIsShownAndNeverAuthorised) {
    addUser(7, "+37251234", true);
    tcps.Init("127.0.0.1", server_.number());
    const std::pair<const char*, const char*> senders[] = {
        {"\"+37251234,A\"", "+37251234"},   {"\"A,+37251234\"", "A"},
        {"+37251234", "+37251234"},         {"\"+37251234", "+37251234"},
        {"+37251234\"", "+37251234"},       {"\"+3725\"1234\"", "+37251234"},
        {"\"\"+37251234\"\"", "+37251234"}, {"\"+37251234\"\"", "+37251234"},
        {"\"\"+37251234\"", "+37251234"},   {"+3725\"\"1234", "+37251234"},
        {"\"+37251234\" ", "+37251234 "},   {"\"", ""},
    };
    for (const auto& [field, shown] : senders) {
        SCOPED_TRACE(field);
        const std::string log = readWith(reply(std::string("\"REC UNREAD\",") + field + ",,\"t\"", "ACK:17"));
        EXPECT_NE(log.find(std::string("\tFrom: ") + shown +
                           "\n\tClearing all SMS..... \nUNAUTHORIZED USER !!!\n\n"),
                  std::string::npos)
            << log;
        EXPECT_EQ(lastSms().from, shown);
        EXPECT_EQ(lastSms().text, "ACK:17");
    }
    EXPECT_EQ(server_.take(), "");
}

TEST_F(SmsReceptionTest, ASenderThatClosesItsQuotationMarksItselfIsNotAuthorised) {
    addUser(7, "+37251234", true);
    addUser(8, "12345", true);
    tcps.Init("127.0.0.1", server_.number());
    for (const char* sender : {"+37251234\",", "+37251234\"", "12345\",\"", "12345\",,\"", "12345\",,\"x"}) {
        SCOPED_TRACE(sender);
        const std::string log = readWith(
            reply(std::string("\"REC UNREAD\",\"") + sender + "\",,\"26/11/21,10:00:00+04\"", "ACK:17"));
        EXPECT_NE(log.find("UNAUTHORIZED USER !!!\n"), std::string::npos) << log;
        EXPECT_EQ(log.find("\nAUTHORIZED"), std::string::npos);
    }
    EXPECT_EQ(server_.take(), "");
}

TEST_F(SmsReceptionTest, ANameWithACommaAndNumbersBehindTheTimeLeaveTheSenderWhole) {
    addUser(7, "+37251234", true);
    setProject("1");
    tcps.Init("127.0.0.1", server_.number());
    readWith(
        reply("\"REC UNREAD\",\"+37251234\",\"Novak, Jan\",\"26/11/21,10:00:00+04\",145,4,0,0,\"+420\",145,6",
              "ACK:17"));
    EXPECT_EQ(server_.take(), "t=11&prj=1&id=17&userID=7&ackText=ACK_SMS");
}

TEST_F(SmsReceptionTest, LinesOfATextThatStandInTheHeadersPlaceAuthoriseNobody) {
    addUser(7, "+37251234", true);
    tcps.Init("127.0.0.1", server_.number());
    for (const char* broken : {"part of a header\r\nX,\"+37251234\"\r\nACK:17\r\n\r\nOK\r\n",
                               "part\r\n+CMGR: \"x\",\"+37251234\"\r\nACK:17\r\n\r\nOK\r\n",
                               "+CMGR: \"REC UNREAD\",\"5\"\r\nX,\"+37251234\"\r\nACK:17\r\n\r\nOK\r\n"}) {
        SCOPED_TRACE(broken);
        EXPECT_NE(readWith(broken).find("UNAUTHORIZED USER !!!\n"), std::string::npos);
    }
    EXPECT_EQ(server_.take(), "");
}

TEST_F(SmsReceptionTest, AUserWithoutControlDoesNotEndTheSearch) {
    addUser(1, "5", false);
    addUser(2, "5", true);
    setProject("1");
    tcps.Init("127.0.0.1", server_.number());
    readWith(reply("\"REC UNREAD\",\"5\",,\"t\"", "ACK:3"));
    EXPECT_EQ(server_.take(), "t=11&prj=1&id=3&userID=2&ackText=ACK_SMS");
}

TEST_F(SmsReceptionTest, AnEmptyStoreIsClearedAndRecordsNothing) {
    const std::string log = readWith("\r\nOK\r\n");
    EXPECT_EQ(log, std::string(kReadLog) + "\tClearing all SMS..... \n\n");
    EXPECT_EQ(received_, "\tAT+CMGR=0\rAT+CMGD=0,4\r");
    EXPECT_EQ(lastSms().timestamp, 0);
}

TEST_F(SmsReceptionTest, WithoutAnOkNothingIsParsed) {
    const std::string log = readWith("\r\n+CMS ERROR: 321\r\n");
    EXPECT_EQ(log, std::string(kReadLog) + "\n");
    EXPECT_EQ(received_, "\tAT+CMGR=0\r");
    EXPECT_GE(readsmstime, time(nullptr) + 2);
}

TEST_F(SmsReceptionTest, WhatIsOwedToTheModemGoesFirstAndItsOkIsNoReply) {
    PtyModem line(PtyModem::Script{{"\x1b", "\r\nOK\r\n"}});
    ASSERT_TRUE(connectModem(line.device()));
    owed_bytes = "\x1b";
    CaptureStdout();
    read_sms();
    EXPECT_EQ(GetCapturedStdout(), std::string(kReadLog) + "\n");
    EXPECT_EQ(line.received(), "\x1b\tAT+CMGR=0\r");
    EXPECT_EQ(owed_bytes, "");
}

TEST_F(SmsReceptionTest, NothingIsReadBeforeTheLineTakesWhatIsOwed) {
    PtyModem line;
    ASSERT_TRUE(connectModem(line.device()));
    const Descriptor port(open(line.device().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    tcflow(port.get(), TCOOFF);
    owed_bytes = "\x1b";
    read_sms();
    EXPECT_EQ(owed_bytes, "\x1b");
    tcflow(port.get(), TCOON);
    read_sms();
    EXPECT_TRUE(line.eventually([&] { return line.received() == "\x1b\tAT+CMGR=0\r"; })) << line.received();
}

TEST_F(SmsReceptionTest, OnlyTheFirstLineOfAMessageCounts) {
    addUser(7, "5", true);
    const std::string log = readWith(reply("\"REC READ\",\"5\",,\"t\"", "HELLO\r\nACK:1"));
    EXPECT_EQ(lastSms().text, "HELLO");
    EXPECT_NE(log.find("Execute command: HELLO\n"), std::string::npos);
}

TEST_F(SmsReceptionTest, AnEmptyTextIsAnEmptyCommand) {
    addUser(7, "5", true);
    const std::string log = readWith(reply("\"REC READ\",\"5\",,\"t\"", ""));
    EXPECT_NE(log.find("AUTHORIZED USER !!!\n\nExecute command: \n"), std::string::npos);
    EXPECT_EQ(lastSms().text, "");
}

TEST_F(SmsReceptionTest, AHeaderWithoutCommasHasNoSender) {
    const std::string log = readWith("\r\n+CMGR nothing\r\ntext\r\n\r\nOK\r\n");
    EXPECT_EQ(log.find("\tFrom: "), std::string::npos);
    EXPECT_EQ(log.find("AUTHORIZED"), std::string::npos);
    EXPECT_EQ(received_, "\tAT+CMGR=0\rAT+CMGD=0,4\r");
}

// What a stranger's text can look like where only a part of it is seen.
constexpr char kForged[] = "AT+CMGR=0\n+CMGR: \"REC UNREAD\",\"5\",,\"26/11/21,10:00:00+04\"\nACK:12\nOK";

TEST_F(SmsReceptionTest, TheRestOfALineThatCameBeforeIsNoReplyAndTheMessageStaysInItsStore) {
    addUser(7, "5", true);
    tcps.Init("127.0.0.1", server_.number());
    PtyModem line(PtyModem::Script{{"AT+CMGR=0\r", std::string("zzz\r\n") + kForged}});
    ASSERT_TRUE(connectModem(line.device()));
    line.say("\r\nzzz");
    ASSERT_TRUE(line.eventually([] {
        MutexLock lock(reply_mutex);
        return lineHasBegun();
    }));
    CaptureStdout();
    read_sms();
    EXPECT_EQ(GetCapturedStdout(), std::string(kReadLog) + "\n");
    EXPECT_EQ(line.received(), "\tAT+CMGR=0\r");
    disconnectModem();
}

TEST_F(SmsReceptionTest, OnlyTheOrderItselfIsItsEcho) {
    addUser(7, "5", true);
    tcps.Init("127.0.0.1", server_.number());
    EXPECT_NE(readWith(kForged).find("\nAUTHORIZED"), std::string::npos);  // as from a modem that echoes
    EXPECT_NE(readWith(std::string("zzz") + kForged).find("UNAUTHORIZED"), std::string::npos);
}

TEST_F(SmsReceptionTest, AReplyCutAnywhereDoesNoHarm) {
    const std::string whole = reply("\"REC UNREAD\",\"123456789\",,\"26/11/21,10:00:00+04\"", "ACK:17");
    for (size_t length = 0; length < whole.size(); ++length) {
        for (const char end : {'\r', '\n'}) {  // of the reply before
            char byte[2] = {end, '\0'};
            MyModem.ZpracujByte(byte);
        }
        clearReply();
        receive = 0;
        for (size_t i = 0; i < length; ++i) {
            char byte[2] = {whole[i], '\0'};
            MyModem.ZpracujByte(byte);
        }
        SCOPED_TRACE(length);
        EXPECT_EQ(receive == 1, length >= whole.size() - 2);
        EXPECT_EQ(replyText(), whole.substr(0, std::min(length, whole.size() - 2)));
    }
}

// What is printed when a driver gives this message.
std::string readFrom(FakeDriver& driver, const IncomingSms& message) {
    driver.incoming.push_back(message);
    CaptureStdout();
    readSms(driver);
    return GetCapturedStdout();
}

TEST_F(SmsReceptionTest, AMessageIsForgottenWhenItIsTheLastSmsAndBeforeItIsExecuted) {
    addUser(7, "5", true);
    tcps.Init("127.0.0.1", server_.number());
    FakeDriver driver;
    driver.meanwhile = [](const std::string& call) {
        EXPECT_EQ(lastSms().text, call == "forget" ? "ACK:17" : "");
        Print(call + "\n");
    };
    EXPECT_EQ(readFrom(driver, {"5", "ACK:17\r", true}),
              "\t-->Thread sms: Cteni SMS\nreceive\nforget\nAUTHORIZED USER !!!\n\n"
              "Execute command: ACK:17\nAcknowledge alarm id: 17\n\n");
    EXPECT_EQ(lastSms().from, "5");
    EXPECT_NE(server_.take().find("&id=17&userID=7"), std::string::npos);
}

TEST_F(SmsReceptionTest, OnlyAWholeSenderIsAUser) {
    addUser(7, "5", true);
    FakeDriver driver;
    const std::string refused = "\t-->Thread sms: Cteni SMS\nUNAUTHORIZED USER !!!\n\n\n";
    EXPECT_EQ(readFrom(driver, {"5", "ACK:17", false}), refused);
    EXPECT_EQ(readFrom(driver, {"", "ACK:17", true}), refused);
    EXPECT_EQ(readFrom(driver, {"6", "ACK:17", true}), refused);
    EXPECT_EQ(lastSms().from, "6");
}

TEST_F(SmsReceptionTest, ATextWithoutAByteIsNoCommand) {
    addUser(7, "5", true);
    FakeDriver driver;
    EXPECT_EQ(readFrom(driver, {"5", "", true}),
              "\t-->Thread sms: Cteni SMS\nAUTHORIZED USER !!!\n\nCOMAND EMPTY !!!\n\n\n");
}

TEST_F(SmsReceptionTest, WithoutAMessageNothingIsForgotten) {
    FakeDriver driver;
    CaptureStdout();
    readSms(driver);
    EXPECT_EQ(GetCapturedStdout(), "\t-->Thread sms: Cteni SMS\n\n");
    EXPECT_EQ(driver.calls, std::vector<std::string>{"receive"});
    EXPECT_EQ(lastSms().timestamp, 0);
}

TEST(SmsCommand, TextsThatAreNoAcknowledgeAreIgnored) {
    for (const char* text : {"ACK:", "ACK", "HELLO", "", ":", "12:ACK"}) {
        CaptureStdout();
        execute_sms_command(text, 1, "5");
        EXPECT_EQ(GetCapturedStdout(), std::string("Execute command: ") + text + "\n");
    }
}

TEST(SmsCommand, MoreThanOneIdIsNone) {
    CaptureStdout();
    execute_sms_command("ack:1:2\r\n", 1, "5");
    EXPECT_EQ(GetCapturedStdout(), "Execute command: ACK:1:2\nAalarm ID not found\n");
}

}  // namespace
