#pragma once

#include <string>

#include "alarmd/alarmd.h"

// The language whose texts a user gets by mail: "default" for a user without one.
std::string languageOf(const _user& recipient);

// The device, message and area text of alarm id in the language lang (byte for byte; the last of several
// translations wins), each the definition's default text where there is no translation. Three empty texts for
// an unknown id and for definitions that came from CSV. Fills gaps in alarm_def_map (see fillDefinitionGaps).
// Any thread.
_langs getTextForLangs(int id, std::string lang) EXCLUDES(project_mutex);
