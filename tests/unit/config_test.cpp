#include "alarmd/settings/config.h"

#include "tests/support/project_files.h"

namespace {

const char kNotOpened[] = "Nelze otevrit konfiguracni soubor\n";

class ConfigTest : public ProjectTest {
  protected:
    ConfigTest() {
        setProject("");
        conf_file = folder_.in("korvato.conf");
        msmtp_conf_file = folder_.in("msmtp.conf");
        sms_conf_file = folder_.in("sms.conf");
        pFolder = folder_.path();
    }

    static void setProject(const std::string& id) {
        MutexLock lock(settings_mutex);
        projectID = id;
    }

    static std::string project() {
        MutexLock lock(settings_mutex);
        return projectID;
    }

    // Derives the project paths from a pFolder that is the test's folder.
    void usePaths() {
        folder_.write("korvato.conf", "pFolder " + folder_.path() + "\n");
        outputOf(readConfigFiles);
    }

    Output load(bool print_definitions = false) {
        usePaths();
        return outputOf([&] { loadProjectFiles(print_definitions); });
    }

    Output idFromJson(std::string_view bytes) {
        folder_.write("setting.json", bytes);
        usePaths();
        return outputOf([&] { id_ = readProjectIdJson(); });
    }

    std::string id_;
};

TEST_F(ConfigTest, TheKeysSetTheSettingsAndThePathsAreDerived) {
    folder_.write("korvato.conf", "pFolder /plant\nhttp_port 80\nhttps_port 443\nbinFolder /opt/bin\n");
    folder_.write("msmtp.conf", "account korvato\nfrom alarm@plant.example\n");
    folder_.write("sms.conf", "key value\n");
    const Output output = outputOf(readConfigFiles);
    EXPECT_EQ(output.out, "Reading korvato.conf \nReading msmtp.conf \nReading sms.conf \n");
    EXPECT_EQ(output.err, "");
    EXPECT_EQ(pFolder, "/plant");
    EXPECT_EQ(http_port, "80");
    EXPECT_EQ(https_port, "443");
    EXPECT_EQ(binFolder, "/opt/bin");
    EXPECT_EQ(mail_from, "alarm@plant.example");
    EXPECT_EQ(project_file, "/plant/setting.txt");
    EXPECT_EQ(project_file_json, "/plant/setting.json");
    EXPECT_EQ(acc_list, "/plant/list.acc");
    EXPECT_EQ(acc_list_json, "/plant/users.json");
    EXPECT_EQ(group_list, "/plant/groups.csv");
    EXPECT_EQ(group_list_json, "/plant/groups.json");
    EXPECT_EQ(cas_list, "/plant/cas.csv");
    EXPECT_EQ(cas_list_json, "/plant/cas.json");
}

TEST_F(ConfigTest, FilesThatCannotBeOpenedAreToldAndLeaveEverythingEmpty) {
    pFolder = https_port = mail_from = "old";
    const Output output = outputOf(readConfigFiles);
    EXPECT_EQ(output.out, std::string("Reading korvato.conf \n") + kNotOpened + "Reading msmtp.conf \n" +
                              kNotOpened + "Reading sms.conf \n" + kNotOpened);
    EXPECT_EQ(output.err, "alarmd: " + conf_file + ": No such file or directory\nalarmd: " + msmtp_conf_file +
                              ": No such file or directory\nalarmd: " + sms_conf_file +
                              ": No such file or directory\n");
    EXPECT_EQ(pFolder, "");
    EXPECT_EQ(http_port, "");
    EXPECT_EQ(https_port, "");
    EXPECT_EQ(binFolder, "");
    EXPECT_EQ(mail_from, "");
    EXPECT_EQ(project_file, "/setting.txt");
    EXPECT_EQ(cas_list_json, "/cas.json");
}

TEST_F(ConfigTest, ALineThatIsTooLongIsToldAndTheOthersAreRead) {
    folder_.write("korvato.conf",
                  "pFolder /plant\nhttps_port " + std::string(1 << 20, '1') + "\nbinFolder /x\n");
    folder_.write("msmtp.conf", "");
    folder_.write("sms.conf", "");
    const Output output = outputOf(readConfigFiles);
    EXPECT_EQ(output.err, "alarmd: " + conf_file + ", line 2: longer than 1048576 bytes, ignored\n");
    EXPECT_EQ(pFolder, "/plant");
    EXPECT_EQ(https_port, "");
    EXPECT_EQ(binFolder, "/x");
}

TEST_F(ConfigTest, AMissingHttpsPortIsEmpty) {
    folder_.write("korvato.conf", "pFolder /plant\n");
    outputOf(readConfigFiles);
    EXPECT_EQ(https_port, "");
}

TEST_F(ConfigTest, AConfigurationFileWithCrLfLinesReadsLikeOneWithLfLines) {
    folder_.write("korvato.conf", "pFolder /plant\r\nhttps_port 443\r\n");
    outputOf(readConfigFiles);
    EXPECT_EQ(group_list, "/plant/groups.csv");
    EXPECT_EQ(https_port, "443");
}

TEST_F(ConfigTest, BinaryConfigurationFilesDoNoHarm) {
    for (const char* name : {"korvato.conf", "msmtp.conf", "sms.conf"}) folder_.write(name, binaryBytes());
    outputOf(readConfigFiles);
    EXPECT_EQ(mail_from, "");
}

TEST_F(ConfigTest, OfTwoGroupFilesOnlyTheJsonOneIsLoaded) {
    folder_.write("groups.json", R"([{"groupNo": 1, "name": "json"}])");
    folder_.write("groups.csv", "h\n1;2;YES;csv\n2;2;YES;csv\n");
    const Output output = load();
    EXPECT_EQ(groupNo(1).groupname, "json");
    EXPECT_EQ(groupNo(2).groupname, "");
    EXPECT_EQ(output.out, "Nacitam groups.json\n");
}

TEST_F(ConfigTest, JsonWinsOverCsvForEveryKindInTheOrderOfLoading) {
    folder_.write("groups.json", "[]");
    folder_.write("groups.csv", "");
    folder_.write("cas.json", "[]");
    folder_.write("cas.csv", "");
    folder_.write("setting.json", R"({"projectID": "p"})");
    folder_.write("setting.txt", "");
    folder_.write("users.json", "[]");
    folder_.write("list.acc", "");
    const std::string out = load().out;
    EXPECT_EQ(out.substr(0, out.find("=>")),
              "Nacitam groups.json\nNacitam cas.json\nNacitam setting.json\n"
              "Project ID: p\nNacitam user.json\n");
}

TEST_F(ConfigTest, WithoutJsonFilesTheCsvFilesAreLoaded) {
    folder_.write("groups.csv", "h\n1;2;YES;csv\n");
    folder_.write("cas.csv", "h\n");
    folder_.write("setting.txt", "projectID 49\n");
    folder_.write("list.acc", "a;b;1;x@a;+1\n");
    const std::string out = load().out;
    EXPECT_EQ(out.substr(0, out.find("......")),
              folder_.in("groups.csv") +
                  "\nNacitam groups.csv\nPrse file groups.csv\nNacitam cas.csv\n"
                  "Prse file cas.csv\nNacitam setting.txt\nProject ID: 49\nNacitam list.acc\n"
                  "-->Prse file list.acc\n");
    EXPECT_EQ(groupNo(1).mail_list, "x@a");
}

TEST_F(ConfigTest, MissingProjectFilesLeaveTheOldDataUntouched) {
    folder_.write("groups.csv", "h\n1;2;YES;csv\n");
    folder_.write("setting.txt", "projectID 65\n");
    load();
    std::filesystem::remove(folder_.in("groups.csv"));
    std::filesystem::remove(folder_.in("setting.txt"));
    EXPECT_EQ(load().out, "");
    EXPECT_EQ(groupNo(1).groupname, "csv");
    EXPECT_EQ(project(), "A");
}

TEST_F(ConfigTest, TheDefinitionsArePrintedAtStartUpOnly) {
    dbglev = 1;
    folder_.write("cas.json", R"([{"id": 1, "message": "M"}])");
    EXPECT_NE(load(true).out.find("Nacitam cas.json\n--------ALARM TAG DEFINITION----------\nAlarm ID: 1\t"),
              std::string::npos);
    EXPECT_EQ(load(false).out, "Nacitam cas.json\n");
}

TEST_F(ConfigTest, DefinitionsFromCsvAreNeverPrinted) {
    dbglev = 1;
    folder_.write("cas.csv", "h\n");
    EXPECT_EQ(load(true).out, "Nacitam cas.csv\nPrse file cas.csv\n");
}

TEST_F(ConfigTest, FromTheKeyValueFileTheProjectIdIsOneCharacter) {
    folder_.write("setting.txt", "projectID 49\n");
    EXPECT_EQ(load().out, "Nacitam setting.txt\nProject ID: 49\n");
    EXPECT_EQ(project(), "1");
    folder_.write("setting.txt", "projectID 305\n");
    load();
    EXPECT_EQ(project(), "1");
}

TEST_F(ConfigTest, AKeyValueFileWithoutProjectIdGivesTheCharacterZero) {
    folder_.write("setting.txt", "name x\n");
    EXPECT_EQ(load().out, "Nacitam setting.txt\nProject ID: 0\n");
    EXPECT_EQ(project(), std::string(1, '\0'));
}

TEST_F(ConfigTest, TheKeyValueIdIsReadLikeAtoi) {
    const auto idOf = [&](const std::string& value) {
        folder_.write("setting.txt", "projectID " + value + "\n");
        int id = -1;
        outputOf([&] { id = readProjectId(); });
        return id;
    };
    EXPECT_EQ(idOf("12abc"), 12);
    EXPECT_EQ(idOf("abc"), 0);
    EXPECT_EQ(idOf(""), 0);
    EXPECT_EQ(idOf("  -7"), -7);
    EXPECT_EQ(idOf("+8"), 8);
    EXPECT_EQ(idOf("99999999999999999999999"), 2147483647);
    EXPECT_EQ(idOf("-99999999999999999999999"), -2147483647 - 1);
}

TEST_F(ConfigTest, TheKeyValueFileIsLookedForInTheProjectFolder) {
    project_file = folder_.in("elsewhere");
    folder_.write("setting.txt", "projectID 5\n");
    int id = 0;
    outputOf([&] { id = readProjectId(); });
    EXPECT_EQ(id, 5);
}

TEST_F(ConfigTest, AJsonProjectIdIsKeptAsText) {
    EXPECT_EQ(idFromJson(R"({"projectID": 7})").out, "Nacitam setting.json\nProject ID: 7\n");
    EXPECT_EQ(id_, "7");
    idFromJson(R"({"projectID": "plant-1"})");
    EXPECT_EQ(id_, "plant-1");
    EXPECT_EQ(idFromJson("{}").out, "Nacitam setting.json\nProject ID: \n");
    EXPECT_EQ(id_, "");
    load();
    EXPECT_EQ(project(), "");
}

TEST_F(ConfigTest, AMalformedProjectFileEndsTheProcess) {
    folder_.write("setting.json", "{\"projectID\": }");
    usePaths();
    EXPECT_EXIT(
        readProjectIdJson(), testing::KilledBySignal(SIGABRT),
        "^alarmd: .*/setting.json: Line 1, Column 15 Syntax error: value, object or array expected.\n");
}

TEST_F(ConfigTest, BeforeTheProcessEndsTheParsersMessagesAreWritten) {
    folder_.write("setting.json", "{\"projectID\": }");
    usePaths();
    const std::string log = folder_.in("log");
    EXPECT_EXIT(
        {
            if (freopen(log.c_str(), "w", stdout) == nullptr) _exit(1);
            loadProjectFiles(true);
        },
        testing::KilledBySignal(SIGABRT), "");
    std::ifstream file(log);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
              "Nacitam setting.json\nFailed to JSON parse setting.json\n"
              "* Line 1, Column 15\n  Syntax error: value, object or array expected.\n\n");
}

TEST_F(ConfigTest, AProjectFileCutShortEndsTheProcess) {
    const std::string text = R"({"projectID": "7"})";
    for (const size_t length : {size_t{0}, size_t{1}, size_t{6}, text.size() - 2, text.size() - 1}) {
        folder_.write("setting.json", std::string_view(text).substr(0, length));
        usePaths();
        EXPECT_EXIT(readProjectIdJson(), testing::KilledBySignal(SIGABRT),
                    "alarmd: .*/setting.json: Line 1, ")
            << length;
    }
}

TEST_F(ConfigTest, AProjectFileThatCannotBeReadEndsTheProcess) {
    folder_.folder("setting.json");
    usePaths();
    EXPECT_EXIT(loadProjectFiles(true), testing::KilledBySignal(SIGABRT),
                "alarmd: .*/setting.json: cannot be read\n");
}

TEST_F(ConfigTest, AProjectFileOfAWrongShapeEndsTheProcess) {
    for (const char* text : {"[]", "7", "\"x\""}) {
        folder_.write("setting.json", text);
        usePaths();
        EXPECT_EXIT(readProjectIdJson(), testing::KilledBySignal(SIGABRT),
                    "alarmd: .*/setting.json: the document is not an object\n")
            << text;
    }
    folder_.write("setting.json", R"({"projectID": [1]})");
    EXPECT_EXIT(readProjectIdJson(), testing::KilledBySignal(SIGABRT),
                "alarmd: .*/setting.json: \"projectID\" is no text and no number\n");
}

}  // namespace
