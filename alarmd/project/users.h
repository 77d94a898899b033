// The users and the recipient lists of the groups. Main thread only.
//
// A group number outside 0 to 11 is told in one line and the user is ignored.
#pragma once

// Loads acc_list (CSV without header: -;-;group;mail;phone) and prints the group summary. CSV users fill the groups'
// address lists only, not user_list. A line of exactly 4 columns ends the process.
void readUser();

// Loads acc_list_json (an array of objects), appends to user_list and prints the summaries.
void readUserJson();
