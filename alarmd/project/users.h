// The users and the recipient lists of the groups. Main thread only.
//
// A group number outside 0 to 11 is logged in one line and the user is ignored. Groups 10 and 11 take users,
// but their lists are neither emptied before a load nor summed up after it.
#pragma once

// Loads acc_list (CSV without header: -;-;group;mail;phone, one blank standing for "none") and prints the
// group summary. CSV users fill the groups' address lists only, not user_list. A line of exactly 4 columns
// ends the process. In a file with CR LF lines the carriage return belongs to the last column, which is the
// phone number.
void readUser();

// Loads acc_list_json (an array of objects), appends to user_list and prints the summaries.
void readUserJson();
