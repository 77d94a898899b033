#include "alarmd/command_line.h"

#include <unistd.h>

#include "alarmd/alarmd.h"
#include "knihovny/debugerror.h"

namespace {

constexpr char kHelp[] =
    "Help: \n"
    "-c\t<path>\tcesta k korvato.conf\n"
    "-m\t<path>\tcesta k msmtp.conf\n"
    "-s\t<path>\tcesta k sms.conf\n"
    "-t\t<email>\ttest mail bude poslan na zadany mail\n"
    "\n";

}  // namespace

bool parseCommandLine(int argc, char* argv[]) {
    int option;
    while ((option = getopt(argc, argv, "c:m:s:t:h")) != -1) {
        switch (option) {
            case 'c':
                conf_file = optarg;
                break;
            case 'm':
                msmtp_conf_file = optarg;
                break;
            case 's':
                sms_conf_file = optarg;
                break;
            case 't':
                test_user = optarg;
                test_send = true;
                break;
            case 'h':
                Print(kHelp);
                return false;
            default:
                return false;
        }
    }
    return true;
}
