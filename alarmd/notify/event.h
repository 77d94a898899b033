#pragma once

#include "alarmd/alarmd.h"

// The moment that dates the alarm's state: of its activation, of its deactivation, or of its acknowledge,
// also for states that are none of these. Part of alarm. Any thread.
const TimeTriple& eventTime(const _alarm_tag& alarm);
