#include "alarmd/settings/modem_settings.h"

#include "tests/support/project_files.h"

namespace {

const char kDefaults[] =
    "SMS Setting: SMS center =  ; SMS peer minut = 10; PORT = /dev/ttyModem2; PIN = ; Speed = 115200; Parity "
    "= 1; "
    "Stopbit = 1; Databit = 8; Flow = 2; SW Flow =2\n";

class ModemSettingsTest : public testing::Test {
  protected:
    ~ModemSettingsTest() override {
        system_setting = folder_.in("none");
        outputOf(readSMSset);
        system_setting.clear();
    }

    Output load(std::string_view bytes) {
        system_setting = folder_.write("settings.json", bytes);
        return outputOf(readSMSset);
    }

    Output loadModem(const std::string& members) {
        return load("{\"network\": {\"modem\": {" + members + "}}}");
    }

    static std::string text(const char* name) {
        MutexLock lock(settings_mutex);
        return name == std::string("pin") ? pin : name == std::string("smsc") ? smsc : modemPort;
    }

    static void expectDefaults() {
        EXPECT_EQ(text("modemPort"), "/dev/ttyModem2");
        EXPECT_EQ(text("pin"), "");
        EXPECT_EQ(text("smsc"), "");
        EXPECT_EQ(modem_speed, 115200);
        EXPECT_EQ(modem_parity, 1);
        EXPECT_EQ(modem_stopbit, 1);
        EXPECT_EQ(modem_databit, 8);
        EXPECT_EQ(modem_flow, 2);
        EXPECT_EQ(modem_xflow, 2);
        EXPECT_FALSE(usePin);
        EXPECT_EQ(smspeermin, 10);
        EXPECT_FALSE(resend_enable);
        EXPECT_EQ(resend_period1_timeout, 300);
        EXPECT_EQ(resend_period1_quantity, 5);
        EXPECT_EQ(resend_period2_timeout, 3600);
        EXPECT_EQ(resend_period2_quantity, 5);
        EXPECT_FALSE(gps_enable);
        EXPECT_EQ(tcp_port, 0);
        EXPECT_EQ(tcp_timeout, 15);
    }

    const TempFolder folder_;
};

const char kAllMembers[] =
    R"("modemPort": "/dev/ttyS1", "speed": 9600, "parity": 2, "stopbit": 2, "databit": 7,
    "flow": 1, "xflow": 3, "pin": "1234", "usePin": true, "smsc": "+420603052000", "smspeermin": 15,
    "resend_enable": 1, "resend_period1_timeout": 60, "resend_period1_quantity": 2,
    "resend_period2_timeout": 600, "resend_period2_quantity": 4)";

TEST_F(ModemSettingsTest, EveryKeySetsItsSetting) {
    const Output output = loadModem(kAllMembers);
    EXPECT_EQ(text("modemPort"), "/dev/ttyS1");
    EXPECT_EQ(text("pin"), "1234");
    EXPECT_EQ(text("smsc"), "+420603052000");
    EXPECT_EQ(modem_speed, 9600);
    EXPECT_EQ(modem_parity, 2);
    EXPECT_EQ(modem_stopbit, 2);
    EXPECT_EQ(modem_databit, 7);
    EXPECT_EQ(modem_flow, 1);
    EXPECT_EQ(modem_xflow, 3);
    EXPECT_TRUE(usePin);
    EXPECT_EQ(smspeermin, 15);
    EXPECT_TRUE(resend_enable);
    EXPECT_EQ(resend_period1_timeout, 60);
    EXPECT_EQ(resend_period1_quantity, 2);
    EXPECT_EQ(resend_period2_timeout, 600);
    EXPECT_EQ(resend_period2_quantity, 4);
    EXPECT_EQ(output.out,
              "Nacitam settings.json\nSMS Setting: SMS center = +420603052000 ; SMS peer minut = 15; PORT = "
              "/dev/ttyS1; "
              "PIN = 1234; Speed = 9600; Parity = 2; Stopbit = 2; Databit = 7; Flow = 1; SW Flow =3\n");
    EXPECT_EQ(output.err, "");
}

TEST_F(ModemSettingsTest, AMissingFileIsToldAndGivesAllDefaults) {
    loadModem(kAllMembers);
    system_setting = folder_.in("none");
    const Output output = outputOf(readSMSset);
    EXPECT_EQ(output.out,
              std::string("Nacitam settings.json\nFailed to parse settings.json\n"
                          "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n\n") +
                  kDefaults);
    EXPECT_EQ(output.err, "");
    expectDefaults();
}

TEST_F(ModemSettingsTest, OneKeyChangesOneSettingAndItsAbsenceRestoresTheDefault) {
    loadModem("\"speed\": 9600");
    EXPECT_EQ(modem_speed, 9600);
    EXPECT_EQ(smspeermin, 10);
    EXPECT_EQ(loadModem("").out, std::string("Nacitam settings.json\n") + kDefaults);
    expectDefaults();
}

TEST_F(ModemSettingsTest, ResendingIsEnabledByANumberThatIsNotZero) {
    for (const char* on : {"1", "2", "-1", "true"}) {
        loadModem(std::string("\"resend_enable\": ") + on);
        EXPECT_TRUE(resend_enable) << on;
    }
    for (const char* off : {"0", "false", "null", "0.5"}) {
        loadModem(std::string("\"resend_enable\": ") + off);
        EXPECT_FALSE(resend_enable) << off;
    }
}

TEST_F(ModemSettingsTest, ANullPinIsEmpty) {
    const Output output = loadModem("\"pin\": null");
    EXPECT_EQ(text("pin"), "");
    EXPECT_EQ(output.err, "");
}

TEST_F(ModemSettingsTest, OtherTypesAreConvertedAsFarAsTheyCanBe) {
    const Output output = loadModem(R"("pin": 1234, "speed": 9600.9, "usePin": 1, "smspeermin": true)");
    EXPECT_EQ(text("pin"), "1234");
    EXPECT_EQ(modem_speed, 9600);
    EXPECT_TRUE(usePin);
    EXPECT_EQ(smspeermin, 1);
    EXPECT_EQ(output.err, "");
}

TEST_F(ModemSettingsTest, AWrongTypeIsToldAndKeepsTheDefault) {
    const Output output = loadModem(
        R"("usePin": "yes", "speed": "9600", "parity": 3000000000, "pin": ["1"], "flow": {}, "smsc": "+1", "databit": 1e300)");
    const std::string start = "alarmd: " + system_setting + ": ";
    EXPECT_EQ(linesIn(output.err), 6U) << output.err;
    // In the order of the settings.
    size_t last = 0;
    for (const char* key : {"speed", "parity", "databit", "flow", "pin", "usePin"}) {
        const size_t found = output.err.find(start + "\"" + key + "\" is ignored: ");
        ASSERT_NE(found, std::string::npos) << key;
        EXPECT_GE(found, last) << key;
        last = found;
    }
    EXPECT_EQ(text("smsc"), "+1");
    EXPECT_EQ(modem_speed, 115200);
    EXPECT_EQ(modem_parity, 1);
    EXPECT_EQ(modem_databit, 8);
    EXPECT_EQ(modem_flow, 2);
    EXPECT_EQ(text("pin"), "");
    EXPECT_FALSE(usePin);
}

TEST_F(ModemSettingsTest, MissingObjectsMeanDefaults) {
    for (const char* bytes : {"{}", "{\"network\": {}}", "{\"network\": null}", "null"}) {
        const Output output = load(bytes);
        EXPECT_EQ(output.out, std::string("Nacitam settings.json\n") + kDefaults) << bytes;
        EXPECT_EQ(output.err, "") << bytes;
    }
    expectDefaults();
}

TEST_F(ModemSettingsTest, ObjectsOfAWrongTypeAreToldAndMeanDefaults) {
    Output output = load("{\"network\": 5}");
    EXPECT_EQ(output.err, "alarmd: " + system_setting + ": \"network\" is ignored: not an object\n");
    output = load("{\"network\": {\"modem\": []}}");
    EXPECT_EQ(output.err, "alarmd: " + system_setting + ": \"modem\" is ignored: not an object\n");
    output = load("[1]");
    EXPECT_EQ(output.err,
              "alarmd: " + system_setting + ": the document is not an object, nothing is taken from it\n");
    EXPECT_EQ(output.out, std::string("Nacitam settings.json\n") + kDefaults);
    expectDefaults();
}

TEST_F(ModemSettingsTest, AFileCutAtAnyByteGivesTheDefaults) {
    const std::string whole = std::string("{\"network\": {\"modem\": {") + kAllMembers + "}}}";
    for (size_t length = 0; length < whole.size(); ++length) {
        const Output output = load(std::string_view(whole).substr(0, length));
        EXPECT_EQ(output.out.find("Nacitam settings.json\nFailed to parse settings.json\n"), 0U) << length;
        EXPECT_TRUE(output.out.ends_with(std::string("\n\n") + kDefaults)) << length;
    }
    expectDefaults();
}

TEST_F(ModemSettingsTest, FoldersBinaryAndMarkedFilesGiveTheDefaults) {
    for (const std::string& bytes : {binaryBytes(), std::string(kByteOrderMark) + "{}", std::string()}) {
        EXPECT_EQ(load(bytes).out.find("Nacitam settings.json\nFailed to parse settings.json\n"), 0U);
    }
    system_setting = folder_.folder("folder");
    EXPECT_EQ(outputOf(readSMSset).out.find("Nacitam settings.json\nFailed to parse settings.json\n"), 0U);
    load("{\r\n\"network\": {\"modem\":\r\n{\"speed\": 9600}}\r\n}\r\n");
    EXPECT_EQ(modem_speed, 9600);
}

TEST_F(ModemSettingsTest, GpsAndTcpRequestsThatAreSwitchedOnAreToldBehindTheSummary) {
    const std::string start = std::string("Nacitam settings.json\n") + kDefaults;
    EXPECT_EQ(loadModem("\"gps_enable\": true").out, start + "GPS is switched on\n");
    EXPECT_TRUE(gps_enable);
    EXPECT_EQ(tcp_port, 0);
    EXPECT_EQ(loadModem("\"tcp_port\": 11044").out,
              start + "TCP requests are switched on: 127.0.0.1:11044, timeout 15 s\n");
    EXPECT_FALSE(gps_enable);
    EXPECT_EQ(tcp_port, 11044);
    EXPECT_EQ(loadModem("\"gps_enable\": true, \"tcp_port\": 65535, \"tcp_timeout\": 60").out,
              start + "GPS is switched on\nTCP requests are switched on: 127.0.0.1:65535, timeout 60 s\n");
    EXPECT_EQ(tcp_timeout, 60);
    EXPECT_EQ(loadModem("\"gps_enable\": false, \"tcp_port\": 0, \"tcp_timeout\": 60").out, start);
    EXPECT_EQ(loadModem("").out, start);
    expectDefaults();
}

TEST_F(ModemSettingsTest, ATcpPortOrTimeoutOutOfRangeIsToldAndKeepsTheDefault) {
    const Output output = loadModem("\"tcp_port\": 65536, \"tcp_timeout\": -1");
    const std::string name = "alarmd: " + system_setting + ": ";
    EXPECT_EQ(output.err, name + "\"tcp_port\" is ignored: out of range\n" + name +
                              "\"tcp_timeout\" is ignored: out of range\n");
    EXPECT_EQ(loadModem("\"tcp_port\": -1").err, name + "\"tcp_port\" is ignored: out of range\n");
    EXPECT_EQ(loadModem("\"tcp_port\": 80, \"tcp_timeout\": 0").err, "");
    EXPECT_EQ(tcp_timeout, 0);
}

TEST_F(ModemSettingsTest, LongTextsAreNotCutInTheSummary) {
    const std::string longPort(3000, 'x');
    EXPECT_NE(loadModem("\"modemPort\": \"" + longPort + "\"").out.find("; PORT = " + longPort + "; PIN"),
              std::string::npos);
}

TEST_F(ModemSettingsTest, PercentSignsAreNoFormat) {
    EXPECT_NE(loadModem("\"smsc\": \"%s%n%d\"").out.find("SMS center = %s%n%d ;"), std::string::npos);
}

}  // namespace
