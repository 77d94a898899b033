#pragma once

#include <string>

#include "alarmd/notify/message.h"

// Sends one text message (text mode of 3GPP TS 27.005): about 2 s for the prompt, then at most 5 s for the
// OK. No text goes out when the modem has answered the number with an error by then, or when the line did not
// take all of the number within 3 s. A text that the line does not take in 3 s is followed by ESC, as soon as
// it takes that. Left out are quotation marks and control characters in the number, Ctrl-Z and ESC in the
// text. SMS thread.
SendResult submitMessage(std::string number, std::string text);
