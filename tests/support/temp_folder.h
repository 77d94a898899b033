#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

// A folder under the folder for temporary files, removed at the end with all that is in it.
class TempFolder {
  public:
    TempFolder() : path_((std::filesystem::temp_directory_path() / "alarmd_test_XXXXXX").string()) {
        if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp");
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string in(const std::string& name) const { return path_ + "/" + name; }
    std::string operator/(const std::string& name) const { return in(name); }

    std::string write(const std::string& name, std::string_view bytes) const {
        std::ofstream file(in(name), std::ios::binary);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return in(name);
    }

    std::string folder(const std::string& name) const {
        std::filesystem::create_directory(in(name));
        return in(name);
    }

    std::string pipe(const std::string& name) const {
        mkfifo(in(name).c_str(), 0600);
        return in(name);
    }

    // A shell script that may be run. Its text can name the folder as $DIR.
    std::string script(const std::string& name, const std::string& text) const {
        write(name, "#!/bin/sh\nDIR='" + path_ + "'\n" + text + "\n");
        chmod(in(name).c_str(), 0755);
        return in(name);
    }

  private:
    std::string path_;
};
