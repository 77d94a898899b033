// The modem's status as the requests tell it.
#pragma once

#include "alarmd/alarmd.h"
#include "knihovny/mutex.h"

// Read by the request threads. Nothing fills it: its texts stay empty and its time 0.
extern Mutex status_mutex;
extern _status status GUARDED_BY(status_mutex);
