#pragma once

// Parses one JSON answer of the alarm history, queues every entry newer than the poll start point and moves
// the start point behind the last entry. Text that is no JSON is logged and changes nothing. An answer of a
// wrong shape (a root that is no object, members that do not convert) ends the process. Main thread only.
void json_parse(const char* text);
