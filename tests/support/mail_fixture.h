// What the tests of the mail room share: a folder of their own, a mail client made of a script, what the
// process prints.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "alarmd/alarmd.h"
#include "alarmd/mail/client_process.h"
#include "knihovny/descriptor.h"

inline std::string fileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A folder under the folder for temporary files, removed at the end.
class TempFolder {
  public:
    TempFolder() : path_((std::filesystem::temp_directory_path() / "alarmd_mail_XXXXXX").string()) {
        if (mkdtemp(path_.data()) == nullptr) abort();
    }
    ~TempFolder() { std::filesystem::remove_all(path_); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

    // A shell script that may be run. Its text can name the folder as $DIR.
    std::string script(const std::string& name, const std::string& text) const {
        const std::string file = *this / name;
        std::ofstream(file) << "#!/bin/sh\nDIR='" << path_ << "'\n" << text << "\n";
        chmod(file.c_str(), 0755);
        return file;
    }

  private:
    std::string path_;
};

// Everything that is written to a descriptor (1 or 2) while the object lives.
class Output {
  public:
    explicit Output(int fd) : fd_(fd), saved_(fcntl(fd, F_DUPFD_CLOEXEC, 3)) {
        std::string name = (std::filesystem::temp_directory_path() / "alarmd_output_XXXXXX").string();
        file_.reset(mkostemp(name.data(), O_CLOEXEC | O_APPEND));
        unlink(name.c_str());
        fflush(nullptr);
        dup2(file_.get(), fd_);
    }
    ~Output() {
        fflush(nullptr);
        dup2(saved_.get(), fd_);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    std::string text() const {
        fflush(nullptr);
        struct stat status = {};
        fstat(file_.get(), &status);
        std::string text(static_cast<size_t>(status.st_size), '\0');
        const ssize_t length = pread(file_.get(), text.data(), text.size(), 0);
        text.resize(length < 0 ? 0 : static_cast<size_t>(length));
        return text;
    }

  private:
    int fd_;
    Descriptor saved_;
    Descriptor file_;
};

// The mail settings with a recording client: it keeps its arguments in args/N and its standard input in
// mails/N, N counting from 0. Everything is put back at the end.
class MailWorld {
  public:
    MailWorld() {
        signal(SIGPIPE, SIG_IGN);
        std::filesystem::create_directories(folder / "ext/msmtp");
        std::filesystem::create_directory(folder / "mails");
        std::filesystem::create_directory(folder / "args");
        binFolder = folder.path();
        msmtp_conf_file = folder / "msmtp.conf";
        mail_from = "plant@korvato.example";
        client(kRecord);
    }
    ~MailWorld() {
        binFolder.clear();
        mail_from.clear();
        msmtp_conf_file = "msmtp.conf";
        test_user.clear();
        use_msmtp = true;
        client_stop_limit = 60;
        test_send = false;
        konec = false;
    }

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
