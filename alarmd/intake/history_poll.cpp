#include "alarmd/intake/history_poll.h"

#include <curl/curl.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "alarmd/alarmd.h"
#include "alarmd/intake/alarm_parser.h"
#include "alarmd/notify/daemon_events.h"
#include "knihovny/debugerror.h"

namespace {

constexpr long kConnectSeconds = 5;
constexpr long kTransferSeconds = 60;
constexpr long kMostRedirects = 20;

// Far above an answer of the most entries that are asked for (some 3 MB). What lies beyond is no answer: as
// JSON it could take eighty times its size of memory.
constexpr size_t kMostBody = size_t{16} << 20;

CURL* curl = nullptr;
CURLcode curl_res = CURLE_OK;
std::string curl_response;  // the body; what a failed transfer left stays in front of the next
char dotaz[1000];           // the request's body, read by the library during the transfer

// The library calls this about once a second, and more often while data comes in. Not 0 ends the transfer.
int transferProgress(void* /*data*/, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return konec || curl_response.size() > kMostBody;
}

void setOptions() {
    char url[500];
    snprintf(url, sizeof url, "https://127.0.0.1:%s/r.fcgi", https_port.c_str());
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, curl_write_to_string2);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &curl_response);
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMostRedirects);
    // Somebody on the way could read the project's id in the clear, and make up alarms.
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    // The server is on this machine: a proxy named in the environment is not asked.
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTransferSeconds);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, transferProgress);
}

std::string takePendingLine() {
    std::string line;
    MutexLock lock(data_rcv_mutex);
    line.swap(data_rcv);
    return line;
}

void printRequest() {
    PrintLine("CURL request historead...\n", dotaz, "   ---   ", startPointText());
}

// One request. What came in is left in curl_response.
PollResult request() {
    snprintf(dotaz, sizeof dotaz, "%s", historyRequest().c_str());
    if (dbglev) printRequest();
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, dotaz);
    curl_res = curl_easy_perform(curl);
    if (curl_res == CURLE_OK) return {PollResult::kAnswered, ""};
    return {curl_response.size() > kMostBody ? PollResult::kTooLong : PollResult::kFailed,
            curl_easy_strerror(curl_res)};
}

void printFailure(const PollResult& result) {
    if (result.kind == PollResult::kAnswered) return;
    PrintErrorLine("curl_easy_perform() failed: ", result.detail);
    if (result.kind == PollResult::kTooLong)
        PrintErrorLine("history answer of more than ", kMostBody, " bytes dropped");
}

// The answer is given up with its room, which a clear() would keep. A failed transfer's beginning stays.
void handleAnswer(const PollResult& result) {
    if (result.kind == PollResult::kAnswered) {
        if (dbglev) PrintLine("CURL response:", curl_response);
        json_parse(curl_response.c_str());
    }
    if (result.kind != PollResult::kFailed) curl_response = std::string();
    if (result.kind == PollResult::kAnswered) takePendingLine();
}

}  // namespace

size_t curl_write_to_string2(void* data, size_t size, size_t count, void* target) {
    const size_t length = size * count;
    const char* chunk = static_cast<const char*>(data);
    static_cast<std::string*>(target)->append(chunk, strnlen(chunk, length));
    return length;
}

std::string historyRequest() {
    std::string project;
    {
        MutexLock lock(settings_mutex);
        project = projectID;
    }
    char body[sizeof dotaz];
    snprintf(body, sizeof body, "t=30&prj=%s&start=%ld.%ld&limit=10000", project.c_str(),
             static_cast<long>(last_timestamp), static_cast<long>(last_timestamp_ms));
    return body;
}

std::string startPointText() {
    const time_t start = last_timestamp;
    tm utc;
    char text[32];
    return gmtime_r(&start, &utc) && asctime_r(&utc, text) ? text : "\n";
}

void openHistory() {
    curl_global_init(CURL_GLOBAL_ALL);
    curl = curl_easy_init();
    if (!curl) return;
    PrintLine("Setting CURL Options.");
    setOptions();
}

PollResult pollHistory() {
    const std::string line = takePendingLine();
    if (!line.empty()) json_parse(line.c_str());
    PollResult result = request();
    printFailure(result);
    handleAnswer(result);
    daemon_events.publish(HistoryPolled{result.kind == PollResult::kAnswered, result.detail});
    return result;
}

void closeHistory() {
    if (!curl) return;
    curl_easy_cleanup(curl);
    curl = nullptr;
    curl_global_cleanup();
}
