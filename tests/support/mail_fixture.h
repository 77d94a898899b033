// What the tests of the mail room share: a mail client made of a script.
#pragma once

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/mail/client_process.h"
#include "tests/support/captured_output.h"
#include "tests/support/resets.h"
#include "tests/support/temp_folder.h"

inline std::string fileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The mail settings with a recording client: it keeps its arguments in args/N and its standard input in
// mails/N, N counting from 0. Everything is put back at the end.
class MailWorld {
  public:
    MailWorld() {
        signal(SIGPIPE, SIG_IGN);
        resetDaemonState();
        std::filesystem::create_directories(folder / "ext/msmtp");
        std::filesystem::create_directory(folder / "mails");
        std::filesystem::create_directory(folder / "args");
        binFolder = folder.path();
        msmtp_conf_file = folder / "msmtp.conf";
        mail_from = "plant@korvato.example";
        client(kRecord);
    }
    ~MailWorld() { resetDaemonState(); }

    static constexpr char kRecord[] =
        "n=$(ls \"$DIR/mails\" | wc -l)\n"
        "printf '%s\\n' \"$@\" >\"$DIR/args/$n\"\n"
        "cat >\"$DIR/mails/$n\"";

    void client(const std::string& text) { folder.script("ext/msmtp/msmtp", text); }
    std::string clientPath() const { return folder / "ext/msmtp/msmtp"; }
    std::string mail(int n) const { return fileText(folder / ("mails/" + std::to_string(n))); }
    std::string arguments(int n) const { return fileText(folder / ("args/" + std::to_string(n))); }
    int mails() const {
        return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder / "mails"),
                                              std::filesystem::directory_iterator()));
    }

    TempFolder folder;
};
