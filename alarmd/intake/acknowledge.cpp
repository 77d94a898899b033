#include "alarmd/intake/acknowledge.h"

#include <cstddef>

#include "alarmd/alarmd.h"
#include "alarmd/intake/history_poll.h"
#include "alarmd/intake/server_line.h"
#include "knihovny/debugerror.h"

namespace {

constexpr size_t kRequestLimit = 999;

}  // namespace

int (*write_to_server)(const char* data, int length) = [](const char* data, int length) {
    return tcps.SendBinary(data, length);
};

std::string acknowledgeRequest(const std::string& alarm_id, int userID) {
    std::string request = "t=11&prj=";
    {
        MutexLock lock(settings_mutex);
        request.append(projectID, 0, projectID.find('\0'));
    }
    request += "&id=" + alarm_id + "&userID=" + std::to_string(userID) + "&ackText=ACK_SMS";
    if (request.size() > kRequestLimit) request.resize(kRequestLimit);
    return request;
}

void sendAcknowledge(const std::string& alarm_id, int userID) {
    PrintLine("Acknowledge alarm id: ", alarm_id);
    const std::string request = acknowledgeRequest(alarm_id, userID);
    if (dbglev != 0) PrintLine(request, "   ---   ", startPointText());
    write_to_server(request.data(), static_cast<int>(request.size()));
}
