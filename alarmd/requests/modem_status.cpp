#include "alarmd/requests/modem_status.h"

Mutex status_mutex;
_status status;
