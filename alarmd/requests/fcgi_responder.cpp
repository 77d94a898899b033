#include "alarmd/requests/fcgi_responder.h"

#include <fcgiapp.h>
#include <fcgios.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "alarmd/alarmd.h"
#include "alarmd/requests/answers.h"
#include "alarmd/requests/daemon_state.h"
#include "alarmd/requests/fcgi_library.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

namespace {

constexpr long kRetrySeconds = 1;
constexpr int kNoPort = -1;
constexpr char kHeader[] = "\n";

// Nothing but the log looks at the query.
void logRequest(const FcgiLibrary& library, std::string& log) {
    const std::string query = library.param("QUERY_STRING");
    AppendLine(log, "FCGI: QUERY_STRING: ", query, " , URI: ", library.param("REQUEST_URI"));
    AppendLine(log, "FCGI: QUERY_STRING after decode: ", urldecode(query), " ");
}

bool hasBody(const FcgiLibrary& library) {
    return strtoll(library.param("CONTENT_LENGTH").c_str(), nullptr, 10) > 0;
}

Answer answerTo(FcgiLibrary& library, bool too_long, std::string& log) {
    if (too_long) return answerTooLongRequest();
    if (!hasBody(library)) return {};
    const std::string text = library.body();
    AppendLine(log, "POST DATA: ", text);
    return answerFcgiRequest(text, takeRequestState());
}

Answer serve(FcgiLibrary& library, bool too_long) {
    std::string log;
    logRequest(library, log);
    Answer answer = answerTo(library, too_long, log);
    SmsPlace place = takePlace(answer, ip, kNoPort);
    Print(log + answer.log);
    if (!answer.body.empty()) library.write(kHeader + answer.body);
    carryOut(answer, std::move(place));
    return answer;
}

// False when konec is set before the port is free.
bool listenOnPort(FcgiGate& gate) {
    bool told = false;
    while (!konec) {
        const int error = gate.listenOn(kFcgiPort);
        if (error == 0) {
            if (told) PrintErrorLine("alarmd: FastCGI requests are answered on 127.0.0.1:", kFcgiPort);
            return true;
        }
        if (!told) {
            PrintErrorLine("alarmd: no FastCGI requests are answered: 127.0.0.1:", kFcgiPort, ": ",
                           strerror(error), "; trying again every second");
        }
        told = true;
        MySleep(kRetrySeconds, 0);
    }
    return false;
}

void printEnd() {
    PrintLine("Koncim vlakno FCGI.");
}

}  // namespace

void serveRequests(RequestSource& requests) {
    {
        FcgiLibrary library;
        while (!konec) {
            const FcgiRequest request = requests.next();
            const bool accepted = library.accept(request);
            Answer answer;
            if (accepted && !konec) answer = serve(library, request.too_long);
            requests.answer(library.finish());
            pauseAfter(answer);
            if (!accepted) MySleep(kRetrySeconds, 0);
        }
    }
    OS_LibShutdown();
    printEnd();
}

void fcgi_run() {
    PrintLine("Starting FCGI thread.");
    FCGX_Init();
    FcgiGate gate(kLongestRequest);
    if (listenOnPort(gate)) {
        serveRequests(gate);
    } else {
        OS_LibShutdown();
        printEnd();
    }
}
