// counting-mail-client: stands in for the mail client where mails are counted by the ten thousand. It reads a
// mail from standard input and appends one line to the file that is named as the program was called, with
// ".counts":
//
//   STATUS TAB RECIPIENT TAB BOUNDARY TAB BYTES { TAB CELL of the mail's last table row }
//
// The file of that name with ".mode", where there is one, tells how it behaves:
//   "slow MILLISECONDS"   it takes so long
//   "fail STATUS"         it ends with this status when it has read the mail
//   "refuse STATUS"       it ends with this status and reads nothing: the line is STATUS alone
//
// It is linked statically and without sanitizers, since most of a mail's time is the start of this process.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

namespace {

enum class Mode { kNormal, kSlow, kFail, kRefuse };

struct Behaviour {
    Mode mode = Mode::kNormal;
    int value = 0;
};

std::string readAll(int descriptor) {
    std::string text;
    text.reserve(16384);
    char block[16384];
    ssize_t length;
    while ((length = read(descriptor, block, sizeof block)) > 0)
        text.append(block, static_cast<size_t>(length));
    return text;
}

Behaviour readBehaviour(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY);
    if (descriptor < 0) return {};
    const std::string text = readAll(descriptor);
    close(descriptor);
    const size_t blank = text.find(' ');
    const std::string word = text.substr(0, blank);
    const int value = blank == std::string::npos ? 0 : atoi(text.c_str() + blank);
    if (word == "slow") return {Mode::kSlow, value};
    if (word == "fail") return {Mode::kFail, value};
    if (word == "refuse") return {Mode::kRefuse, value};
    return {};
}

// What stands between the first begin and the next end; empty when one of them is missing.
std::string_view between(std::string_view text, std::string_view begin, std::string_view end) {
    const size_t from = text.find(begin);
    if (from == std::string_view::npos) return {};
    text.remove_prefix(from + begin.size());
    const size_t to = text.find(end);
    return to == std::string_view::npos ? std::string_view() : text.substr(0, to);
}

void addCells(std::string_view mail, std::string& line) {
    size_t at = mail.rfind("<TR>");
    while (at != std::string_view::npos && (at = mail.find("<TD>", at)) != std::string_view::npos) {
        at += 4;
        const size_t end = mail.find("</TD>", at);
        if (end == std::string_view::npos) return;
        line += '\t';
        line += mail.substr(at, end - at);
        at = end;
    }
}

bool append(const std::string& path, const std::string& line) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    // In one write, so that the lines of two clients never mix.
    return descriptor >= 0 &&
           write(descriptor, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

}  // namespace

int main(int /*argc*/, char** argv) {
    const std::string name = argv[0];
    const Behaviour behaviour = readBehaviour(name + ".mode");
    const bool refuses = behaviour.mode == Mode::kRefuse;
    const int status = refuses || behaviour.mode == Mode::kFail ? behaviour.value : 0;
    std::string line = std::to_string(status);
    if (!refuses) {
        const std::string mail = readAll(STDIN_FILENO);
        line += '\t';
        line += between(mail, "\nTo: ", "\n");
        line += '\t';
        line += between(mail, "boundary=\"", "\"");
        line += '\t' + std::to_string(mail.size());
        addCells(mail, line);
    }
    if (behaviour.mode == Mode::kSlow) {
        const timespec pause{behaviour.value / 1000, behaviour.value % 1000 * 1000000L};
        nanosleep(&pause, nullptr);
    }
    return append(name + ".counts", line + '\n') ? status : EXIT_FAILURE;
}
