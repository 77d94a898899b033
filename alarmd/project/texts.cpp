#include "alarmd/project/texts.h"

#include <vector>

#include "alarmd/project/alarm_definitions.h"

namespace {

void choose(std::string& result, const std::vector<_translate>& translations, const std::string& fallback,
            const std::string& lang) {
    const std::string* last = nullptr;
    for (const _translate& translation : translations) {
        if (translation.lang == lang) last = &translation.text;
    }
    if (last != nullptr) result = *last;
    if (result.empty()) result = fallback;
}

}  // namespace

std::string languageOf(const _user& recipient) {
    return recipient.lang.empty() ? "default" : recipient.lang;
}

_langs getTextForLangs(int id, std::string lang) {
    _langs texts;
    MutexLock lock(project_mutex);
    fillDefinitionGaps();
    // Several definitions can carry one id. A later one adds to what an earlier one gave.
    for (const _alarm_def* definition : definitionsWithId(id)) {
        choose(texts.deviceLangs, definition->deviceLangs, definition->device, lang);
        choose(texts.messageLangs, definition->messageLangs, definition->message, lang);
        choose(texts.areaLangs, definition->areaLangs, definition->area, lang);
    }
    return texts;
}
