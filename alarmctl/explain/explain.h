// Who hears of an alarm, and what: the daemon's own look-ups and composers, asked for one alarm.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "alarmd/alarmd.h"

// What is asked.
struct Question {
    int id = 0;
    int state = kActivated;
    std::string user;  // name, address, number or id of the only user of interest; empty: all
};

// One mail or SMS to one user.
struct Delivery {
    int group = 0;
    _user user;
    std::string language;  // whose texts the daemon looks up; "default" in mails for a user without one
    size_t text = 0;       // of an SMS: index into Explanation::texts
};

struct Explanation {
    bool known = false;  // there is a definition with this id; all else is of use only then
    _alarm_tag alarm;    // the sample: times now, values 0
    _alarm_def definition;
    std::vector<int> groups;  // that list the alarm, 10 and 11 too
    bool user_found = true;   // a user as asked for is among the users

    std::vector<Delivery> mails;  // one without an address is refused by the mail client
    std::vector<Delivery> messages;
    std::vector<std::string> texts;  // the different texts of the SMS

    // Why there is no mail, or no SMS; empty when there is one.
    std::string no_mail, no_sms;
};

// The name of a group as the project has it.
std::string groupName(int number);

// The answer for an alarm whose last change is at now (seconds since the epoch). REQUIRES: the project is
// loaded.
Explanation explain(const Question& question, int64_t now);

// The HTML text of a mail.
std::string mailBody(const Explanation& explanation, const Delivery& mail);

// The whole mail as the client gets it, but for the newline at its end.
std::string mailMessage(const Explanation& explanation, const Delivery& mail);

// The first mail that has an address, else the first. REQUIRES: there is a mail.
const Delivery& shownMail(const Explanation& explanation);
