// A key/value file: korvato.conf, msmtp.conf, sms.conf, setting.txt.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "alarmd/project/csv_file.h"
#include "alarmd/settings/config.h"
#include "knihovny/generalfce.h"
#include "tests/fuzz/world.h"

namespace {

using Values = std::map<std::string, std::string>;

// What the file says, read line by line. False for a line without a key.
bool expectedValues(std::string_view content, Values& values) {
    std::vector<std::string> lines = fuzz::parts(content, '\n');
    lines.pop_back();  // no line feed behind it
    for (std::string& line : lines) {
        std::erase(line, '\r');
        if (line.size() > kLongestParameterLine) continue;
        if (line.empty() || line.find_first_of("#$ ") == 0) continue;
        if (line[0] == '\0') return false;
        const size_t blank = line.find(' ');
        values[line.substr(0, blank)] = blank == std::string::npos ? "" : line.substr(blank + 1);
    }
    return true;
}

// A folder whose setting.txt is the file; its name is the same for all inputs.
class SettingFolder {
  public:
    SettingFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "korvato_fuzz_XXXXXX").string();
        if (mkdtemp(name.data()) != nullptr) path_ = name;
    }
    ~SettingFolder() {
        unlink(link().c_str());
        rmdir(path_.c_str());
    }
    SettingFolder(const SettingFolder&) = delete;
    SettingFolder& operator=(const SettingFolder&) = delete;

    const std::string& leadTo(const std::string& file) const {
        unlink(link().c_str());
        MUST(symlink(file.c_str(), link().c_str()) == 0);
        return path_;
    }

  private:
    std::string link() const { return path_ + "/setting.txt"; }

    std::string path_;
};

}  // namespace

FUZZ_TARGET(key_value) {
    static const SettingFolder folder;
    const fuzz::MemoryFile file(input);
    Values expected{{"config", file.path()}};
    const bool good = expectedValues(input, expected);

    Values values{{"config", file.path()}};
    MUST(ParamNacti(file.path(), values) == good);
    MUST(values == expected);
    MUST((fuzz::world.printed == "Chybny konfiguracni soubor") == !good);

    conf_file = msmtp_conf_file = sms_conf_file = file.path();
    readConfigFiles();
    MUST(pFolder == expected["pFolder"]);
    MUST(https_port == expected["https_port"]);
    MUST(binFolder == expected["binFolder"]);
    MUST(mail_from == expected["from"]);
    MUST(cas_list_json == pFolder + "/cas.json");

    pFolder = folder.leadTo(file.path());
    MUST(readProjectId() == leadingNumber(expected["projectID"]));
}
