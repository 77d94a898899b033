#include "alarmctl/check/check_loaders.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "alarmd/settings/config.h"
#include "alarmd/settings/modem_settings.h"
#include "knihovny/descriptor.h"

namespace {

struct Kind {
    const char* code;
    Severity severity = Severity::kWarning;
};

Kind kindOf(ComplaintCode code) {
    switch (code) {
        case ComplaintCode::kUnreadable:
            return {"unreadable", Severity::kError};
        case ComplaintCode::kLineTooLong:
            return {"line-too-long"};
        case ComplaintCode::kNotJson:
            return {"not-json", Severity::kError};
        case ComplaintCode::kWrongShape:
            return {"wrong-shape", Severity::kError};
        case ComplaintCode::kWrongType:
            return {"wrong-type"};
        case ComplaintCode::kOutOfRange:
            return {"out-of-range"};
        case ComplaintCode::kElementDropped:
            return {"element-dropped"};
        case ComplaintCode::kGroupNumber:
            return {"group-number"};
        case ComplaintCode::kFourColumns:
            return {"four-columns", Severity::kError};
        case ComplaintCode::kMalformedSetting:
            return {"malformed-setting", Severity::kError};
    }
    return {"unknown"};
}

// Sends standard output, on which the loaders tell of their progress, to nowhere while it lives.
class Silence {
  public:
    Silence() : saved_(saveOutput()) {
        const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(nowhere.get(), STDOUT_FILENO);
    }
    ~Silence() {
        fflush(nullptr);
        dup2(saved_.get(), STDOUT_FILENO);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    static int saveOutput() {
        fflush(nullptr);
        return fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    }

    const Descriptor saved_;
};

std::vector<Complaint> run(const std::function<void()>& loaders) {
    const Silence silence;
    return complaintsOf(loaders);
}

}  // namespace

std::vector<Complaint> loadAll() {
    return run([] {
        readConfigFiles();
        loadProjectFiles(false);
        readSMSset();
    });
}

void loadConfiguration() {
    run(readConfigFiles);
}

void loadModemSettings() {
    run(readSMSset);
}

const Complaint* lastWords(const std::vector<Complaint>& complaints) {
    return complaints.empty() || !complaints.back().fatal ? nullptr : &complaints.back();
}

Finding findingFrom(const Complaint& complaint) {
    const Kind kind = kindOf(complaint.code);
    return {kind.severity,
            {complaint.file, complaint.line, complaint.element},
            kind.code,
            complaint.text + (complaint.fatal ? ": the daemon ends" : "")};
}
