#include <gtest/gtest.h>

#include <ctime>
#include <set>

#include "alarmd/mail/compose.h"
#include "alarmd/mail/mail_channel.h"
#include "alarmd/mail/style_sheet.h"
#include "tests/support/mail_fixture.h"

namespace {

constexpr char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr size_t kBoundaryLength = 50;

class Mail : public testing::Test {
  protected:
    // The boundary of the next mail.
    static std::string nextBoundary() {
        static unsigned seed = 100;
        srand(++seed);
        std::string boundary = random_string();
        srand(seed);
        return boundary;
    }

    static std::string messageText(const std::string& to, const std::string& subject,
                                   const std::string& boundary, const std::string& body) {
        return "From: plant@korvato.example\n"
               "To: " +
               to +
               "\n"
               "User-Agent: Korvato mailer\n"
               "MIME-Version: 1.0\n"
               "Subject: " +
               subject +
               "\n"
               "Content-Type: multipart/mixed; boundary=\"_" +
               boundary +
               "\"\n"
               "--_" +
               boundary +
               "\n"
               "Content-Type: text/html; charset=UTF-8\n"
               "Content-Transfer-Encoding: quoted-printable\n"
               "Content-Disposition: inline\n"
               "\n" +
               body +
               "\n"
               "--_" +
               boundary + "--\n";
    }

    std::string commandLine(const std::string& message) const {
        return "echo \"" + message + "\"|" + world.clientPath() + " -C " + msmtp_conf_file + " -a korvato -t";
    }

    std::string printed(const std::string& message) const {
        return "Alarm email\nFrom: plant@korvato.example\n" + commandLine(message) + "\n";
    }

    // What send_mail says on standard error.
    static std::string complaint() {
        CapturedOutput out(STDOUT_FILENO);
        CapturedOutput error(STDERR_FILENO);
        EXPECT_NE(sendMail("a@x", std::string(1 << 20, 'b'), "").outcome, Outcome::kStopped);
        return error.text();
    }

    MailWorld world;
};

TEST_F(Mail, WithoutMsmtpNothingIsPrintedAndNothingRuns) {
    use_msmtp = false;
    CapturedOutput out(STDOUT_FILENO);
    CapturedOutput error(STDERR_FILENO);
    send_mail("a@x", "body", "", "");
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(error.text(), "");
    EXPECT_EQ(world.mails(), 0);
}

TEST_F(Mail, IsPrintedAsACommandLineAndArrivesOnTheClientsInputWithOneMoreNewline) {
    const std::string message =
        messageText("novak@x.example", "Online Alarming", nextBoundary(), "<html>text</html>");
    CapturedOutput out(STDOUT_FILENO);
    CapturedOutput error(STDERR_FILENO);
    send_mail("novak@x.example", "<html>text</html>", "\"Alarming-immediately\"", "");
    EXPECT_EQ(out.text(), printed(message));
    EXPECT_EQ(error.text(), "");
    ASSERT_EQ(world.mails(), 1);
    EXPECT_EQ(world.mail(0), message + "\n");
}

TEST_F(Mail, ClientIsToldItsSettingsItsAccountAndToReadTheRecipients) {
    CapturedOutput out(STDOUT_FILENO);
    send_mail("a@x", "body", "", "");
    EXPECT_EQ(world.arguments(0), "-C\n" + msmtp_conf_file + "\n-a\nkorvato\n-t\n");
}

TEST_F(Mail, CommandLineEndsWithTheAccountBehindTheClosingDelimiter) {
    const std::string boundary = nextBoundary();
    CapturedOutput out(STDOUT_FILENO);
    send_mail("a@x", "body", "", "");
    const std::string text = out.text();
    const std::string end =
        "\n--_" + boundary + "--\n\"|" + world.clientPath() + " -C " + msmtp_conf_file + " -a korvato -t\n";
    ASSERT_GT(text.size(), end.size());
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

TEST_F(Mail, SubjectIsFixed) {
    const std::string message = messageText("a@x", "Online Alarming", nextBoundary(), "body");
    CapturedOutput out(STDOUT_FILENO);
    send_mail("a@x", "body", "third", "Another subject");
    EXPECT_EQ(world.mail(0), message + "\n");
}

TEST_F(Mail, SubjectOfTheTestMailIsTheCallers) {
    test_send = true;
    const std::string message = messageText("a@x", "Another subject", nextBoundary(), "body");
    CapturedOutput out(STDOUT_FILENO);
    send_mail("a@x", "body", "third", "Another subject");
    EXPECT_EQ(world.mail(0), message + "\n");
}

TEST_F(Mail, GoesToACommaSeparatedListUnchanged) {
    const std::string message = messageText("a@x, b@y,c@z", "Online Alarming", nextBoundary(), "body");
    CapturedOutput out(STDOUT_FILENO);
    send_mail("a@x, b@y,c@z", "body", "", "");
    EXPECT_EQ(world.mail(0), message + "\n");
}

TEST_F(Mail, NoTextIsEverReadByAShell) {
    const std::string evil = "\"; touch '" + world.folder / "made" + "'; `touch '" + world.folder / "made" +
                             "'` $(touch '" + world.folder / "made" + "') \\n $HOME \\";
    const std::string message = messageText(evil, "Online Alarming", nextBoundary(), evil);
    CapturedOutput out(STDOUT_FILENO);
    send_mail(evil.c_str(), evil, "", "");
    EXPECT_EQ(out.text(), printed(message));
    EXPECT_EQ(world.mail(0), message + "\n");
    EXPECT_FALSE(std::filesystem::exists(world.folder / "made"));
}

TEST_F(Mail, LineEndsInAddressesAndSubjectAddNoHeaderLine) {
    test_send = true;
    mail_from = "plant@korvato.example\r\n";
    const std::string message =
        messageText("a@xBcc: b@y-- <c@z>", "Testing.X-Other: 1", nextBoundary(), "line\r\nline\n");
    CapturedOutput out(STDOUT_FILENO);
    send_mail("a@x\r\nBcc: b@y\n\n--\r <c@z>\n", "line\r\nline\n", "", "Testing.\r\nX-Other: 1");
    EXPECT_EQ(out.text(), printed(message));
    EXPECT_EQ(world.mail(0), message + "\n");
}

TEST_F(Mail, BodyOfAMegabyteArrivesWhole) {
    std::string body;
    while (body.size() < (1 << 20))
        body += "<TR><TD>Tlak nad mez\xC3\xAD \xFF " + std::to_string(body.size()) + "\n";
    const std::string message = messageText("a@x", "Online Alarming", nextBoundary(), body);
    CapturedOutput out(STDOUT_FILENO);
    send_mail("a@x", body, "", "");
    EXPECT_TRUE(world.mail(0) == message + "\n");
    EXPECT_TRUE(out.text() == printed(message));
}

TEST_F(Mail, ClientThatIsMissingIsTold) {
    std::filesystem::remove(world.clientPath());
    EXPECT_EQ(complaint(),
              "Mail client " + world.clientPath() + " cannot be started: No such file or directory\n");
}

TEST_F(Mail, ClientThatIsNotExecutableIsTold) {
    chmod(world.clientPath().c_str(), 0644);
    EXPECT_EQ(complaint(), "Mail client " + world.clientPath() + " cannot be started: Permission denied\n");
}

TEST_F(Mail, ClientThatIsAFolderIsTold) {
    std::filesystem::remove(world.clientPath());
    std::filesystem::create_directory(world.clientPath());
    EXPECT_EQ(complaint(), "Mail client " + world.clientPath() + " cannot be started: Permission denied\n");
}

TEST_F(Mail, ClientThatFailsIsToldWithItsStatus) {
    world.client("cat >/dev/null; exit 75");
    EXPECT_EQ(complaint(), "Mail client " + world.clientPath() + " ended with status 75\n");
}

TEST_F(Mail, ClientThatIsKilledIsToldWithTheSignal) {
    world.client("kill -9 $$");
    EXPECT_EQ(complaint(), "Mail client " + world.clientPath() + " was killed by signal 9\n");
}

TEST_F(Mail, ClientThatLeavesItsInputUnreadAndSucceedsIsNoFailure) {
    world.client("exec <&-; exit 0");
    EXPECT_EQ(complaint(), "");
}

TEST_F(Mail, ClientThatHangsAtAStopRequestIsTold) {
    world.client("exec sleep 600");
    client_stop_limit = 1;
    konec = true;
    CapturedOutput out(STDOUT_FILENO);
    CapturedOutput error(STDERR_FILENO);
    EXPECT_EQ(sendMail("a@x", "body", "").outcome, Outcome::kStopped);
    EXPECT_EQ(error.text(),
              "Mail client " + world.clientPath() + " took more than 1 s during the stop and was ended\n");
    world.client(MailWorld::kRecord);
    EXPECT_EQ(sendMail("a@x", "body", "").outcome, Outcome::kSent);
    EXPECT_EQ(world.mails(), 1);
}

TEST_F(Mail, TestMailGoesToTheTestUser) {
    test_send = true;
    test_user = "admin@x.example";
    const std::string boundary = nextBoundary();
    CapturedOutput out(STDOUT_FILENO);
    sendTestMail();
    ASSERT_EQ(world.mails(), 1);
    const std::string mail = world.mail(0);
    const size_t link = mail.find("<a href='");
    ASSERT_NE(link, std::string::npos);
    const size_t link_end = mail.find('\n', link);
    const std::string link_text = mail.substr(link, link_end - link);
    const std::string message = messageText("admin@x.example", "Testing email.", boundary,
                                            "<center><h1>Testing mail from Korvato.</h1><BR>" + link_text);
    EXPECT_EQ(mail, message + "\n");
    EXPECT_EQ(out.text(), "Posilam testovaci mail...\n" + printed(message));
    EXPECT_EQ(link_text.find_first_of("\"`$\\"), std::string::npos) << link_text;
    EXPECT_EQ(link_text.substr(link_text.size() - 4), "</a>");
}

TEST(RandomString, IsFiftyCharactersOfTheAlphabetByTheNextRandomNumbers) {
    srand(12);
    const std::string text = random_string();
    srand(12);
    std::string expected;
    for (size_t i = 0; i < kBoundaryLength; ++i) expected += kAlphabet[rand() % 62];
    EXPECT_EQ(text, expected);
}

TEST(RandomString, UsesAllSixtyTwoCharacters) {
    std::set<char> seen;
    for (int i = 0; i < 100; ++i) {
        for (const char c : random_string()) seen.insert(c);
    }
    EXPECT_EQ(std::string(seen.begin(), seen.end()), kAlphabet);
}

// The first two boundaries of a fresh process.
std::string boundariesOfAFreshProcess() {
    const std::string program =
        "'" + std::filesystem::read_symlink("/proc/self/exe").string() + "' --boundaries";
    FILE* pipe = popen(program.c_str(), "r");
    char text[256] = "";
    const size_t length = fread(text, 1, sizeof text, pipe);
    EXPECT_EQ(pclose(pipe), 0);
    return {text, length};
}

TEST(RandomString, DiffersFromMailToMailAndIsTheSameInEachProcess) {
    const std::string first = boundariesOfAFreshProcess();
    ASSERT_EQ(first.size(), 2 * (kBoundaryLength + 1));
    EXPECT_NE(first.substr(0, kBoundaryLength), first.substr(kBoundaryLength + 1, kBoundaryLength));
    EXPECT_EQ(boundariesOfAFreshProcess(), first);
    // rand() unseeded is rand() behind srand(1).
    srand(1);
    const std::string second = random_string();
    EXPECT_EQ(first.substr(0, kBoundaryLength), second);
}

class ReadableTime : public testing::Test {
  protected:
    void SetUp() override { setZone("UTC0"); }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }
    static void setZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
};

TEST_F(ReadableTime, IsADashForNoTime) {
    EXPECT_EQ(getReadebleTime(0), "-");
    EXPECT_EQ(getReadebleTime(-1), "-");
    EXPECT_EQ(getReadebleTime(INT64_MIN), "-");
}

TEST_F(ReadableTime, IsLocalTime) {
    EXPECT_EQ(getReadebleTime(1794744351), "Sun Nov 15 12:05:51 2026");
    EXPECT_EQ(getReadebleTime(1), "Thu Jan  1 00:00:01 1970");
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(getReadebleTime(1794744351), "Sun Nov 15 13:05:51 2026");
}

TEST_F(ReadableTime, BearsEveryYear) {
    EXPECT_EQ(getReadebleTime(int64_t{1} << 31), "Tue Jan 19 03:14:08 2038");
    EXPECT_EQ(getReadebleTime(int64_t{1} << 33), "Wed Mar 16 12:56:32 2242");
    EXPECT_EQ(getReadebleTime(253402300800), "Sat Jan  1 00:00:00 10000");
    EXPECT_EQ(getReadebleTime(INT64_MAX), "-");
}

TEST(StyleSheet, HasItsLengthItsBeginningAndItsEnd) {
    const std::string begin = "<html><style type=\"text/css\">body, html  { height: 100%; }";
    const std::string end = "</style><title></title><body>";
    EXPECT_EQ(css_string.size(), 3381U);
    EXPECT_EQ(css_string.substr(0, begin.size()), begin);
    EXPECT_EQ(css_string.substr(css_string.size() - end.size()), end);
    EXPECT_EQ(css_string.find("<head"), std::string::npos);
    EXPECT_EQ(css_string.find("</style>"), css_string.size() - end.size());
}

// The mail is declared quoted-printable and is not encoded.
TEST(StyleSheet, ReadsTheSameAsQuotedPrintable) {
    EXPECT_EQ(css_string.find('='), css_string.find("=\"text/css\""));
    EXPECT_EQ(css_string.find('=', css_string.find('=') + 1), std::string::npos);
    size_t longest = 0;
    size_t start = 0;
    for (size_t end; start < css_string.size(); start = end + 1) {
        end = std::min(css_string.find('\n', start), css_string.size());
        longest = std::max(longest, end - start);
        EXPECT_NE(css_string[end - 1], ' ');
    }
    EXPECT_LE(longest, 900U);
    for (const char c : css_string) EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~'));
}

TEST(StyleSheet, GivesTheTableItsLook) {
    const auto rule = [](const std::string& selector) {
        const size_t start = css_string.find("\n" + selector + " {\n");
        return start == std::string::npos ? ""
                                          : css_string.substr(start, css_string.find('}', start) - start);
    };
    const auto has = [](const std::string& text, const std::string& declaration) {
        return text.find(" " + declaration + ";\n") != std::string::npos;
    };
    EXPECT_TRUE(has(rule("body"), "line-height: 1"));
    EXPECT_TRUE(has(rule("a:link, a:visited"), "color: #666"));
    EXPECT_TRUE(has(rule("a:hover, a:active"), "color: #bd5a35"));
    EXPECT_TRUE(has(rule("a:hover, a:active"), "text-decoration: underline"));
    for (const char* declaration :
         {"font-family: Arial, Helvetica, sans-serif", "color: #666", "font-size: 12px",
          "background: #eaebec", "margin: 20px", "border: 1px solid #ccc", "border-radius: 3px",
          "text-shadow: 1px 1px 0 #fff"}) {
        EXPECT_TRUE(has(rule("table"), declaration)) << declaration;
    }
    EXPECT_TRUE(has(rule("table th"), "padding: 21px 25px 22px 25px"));
    EXPECT_TRUE(has(rule("table th"), "background: #ededed"));
    EXPECT_TRUE(has(rule("table tr"), "text-align: center"));
    EXPECT_TRUE(has(rule("table tr td"), "padding: 18px"));
    EXPECT_TRUE(has(rule("table tr td"), "background: #fafafa"));
    EXPECT_TRUE(has(rule("table tr td"), "border-bottom: 1px solid #e0e0e0"));
    EXPECT_TRUE(has(rule("table tr td:first-child"), "text-align: left"));
    EXPECT_TRUE(has(rule("table tr td:first-child"), "padding-left: 20px"));
    EXPECT_TRUE(has(rule("table tr.even td"), "background: #f6f6f6"));
    EXPECT_TRUE(has(rule("table tr:hover td"), "background: #f2f2f2"));
}

// The template file is looked for in the working folder.
class StyleTemplate : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::current_path(folder.path()); }
    void TearDown() override {
        std::filesystem::current_path(before);
        css_string = kMailHead;
    }

    static std::string read() {
        CapturedOutput out(STDOUT_FILENO);
        readCSSTemplate();
        return out.text();
    }

    const std::filesystem::path before = std::filesystem::current_path();
    TempFolder folder;
};

TEST_F(StyleTemplate, ReplacesTheStyleSheet) {
    std::ofstream(folder / "template_css.html") << "<html>\n<body>";
    EXPECT_EQ(read(), "");
    EXPECT_EQ(css_string, "<html>\n<body>");
}

TEST_F(StyleTemplate, ThatCannotBeReadIsToldAndChangesNothing) {
    EXPECT_EQ(read(), "Unable to open template file\n");
    EXPECT_EQ(css_string, kMailHead);
    std::filesystem::create_directory(folder / "template_css.html");
    EXPECT_EQ(read(), "Unable to open template file\n");
    EXPECT_EQ(css_string, kMailHead);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--boundaries") {
        puts(random_string().c_str());
        puts(random_string().c_str());
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
