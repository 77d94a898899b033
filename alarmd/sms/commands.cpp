#include "alarmd/sms/commands.h"

#include <vector>

#include "alarmd/intake/acknowledge.h"
#include "knihovny/debugerror.h"
#include "knihovny/generalfce.h"

void execute_sms_command(std::string text, int userID, std::string /*from*/) {
    std::erase(text, '\r');
    std::erase(text, '\n');
    text = StringToUpper(text);
    PrintLine("Execute command: ", text);
    const std::vector<std::string> pieces = txt2vector(text, ":");
    if (pieces.size() < 2 || pieces[0] != "ACK") return;
    if (pieces.size() == 2) {
        sendAcknowledge(pieces[1], userID);
    } else {
        PrintLine("Aalarm ID not found");
    }
}
