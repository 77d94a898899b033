#pragma once

// Reads the options "c:m:s:t:h" into conf_file, msmtp_conf_file, sms_conf_file, test_user and test_send.
// Returns false when the process is to end now: after -h (the help is printed) and after an unknown option or
// a missing argument (the option parser has complained on standard error). Main thread.
bool parseCommandLine(int argc, char* argv[]);
