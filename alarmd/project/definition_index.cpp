// What is derived from alarm_def_map: the filled gaps and the definitions by the id inside their records.
#include <iterator>
#include <string_view>
#include <unordered_map>

#include "alarmd/project/alarm_definitions.h"

namespace {

using Definitions = std::vector<const _alarm_def*>;

// All keys from 0 to filled_below - 1 were in the map when it had filled_size entries. Entries are never
// erased.
int filled_below GUARDED_BY(project_mutex) = 0;
size_t filled_size GUARDED_BY(project_mutex) = 0;

// by_id is complete for the map as it was when it had indexed_size entries, unless stale. Its pointers stay
// valid: the map never moves an entry.
std::unordered_map<int, Definitions> by_id GUARDED_BY(project_mutex);
size_t indexed_size GUARDED_BY(project_mutex) = 0;
bool stale GUARDED_BY(project_mutex) = false;

struct TextField {
    std::string _alarm_def::*text;
    std::vector<_translate> _alarm_def::*langs;
};

constexpr TextField kTextFields[] = {
    {&_alarm_def::device, &_alarm_def::deviceLangs},
    {&_alarm_def::message, &_alarm_def::messageLangs},
    {&_alarm_def::area, &_alarm_def::areaLangs},
};

// Marks the definitions that a look-up of this text in any language can end at: for a language the last
// definition that translates it, else (or when that translation is empty) the first default text from there
// on.
void markDeciding(const TextField& field, const Definitions& list, std::vector<bool>& deciding) {
    const size_t count = list.size();
    std::vector<size_t> next_text(count + 1, count);
    for (size_t i = count; i-- > 0;) next_text[i] = (list[i]->*field.text).empty() ? next_text[i + 1] : i;

    struct Last {
        size_t position;
        bool empty;
    };
    std::unordered_map<std::string_view, Last> last;
    for (size_t i = 0; i < count; ++i) {
        for (const _translate& translation : list[i]->*field.langs) {
            last[translation.lang] = {i, translation.text.empty()};
        }
    }
    const auto mark = [&](size_t position) {
        if (position < count) deciding[position] = true;
    };
    mark(next_text[0]);
    for (const auto& [lang, found] : last) {
        mark(found.position);
        if (found.empty) mark(next_text[found.position]);
    }
}

// Ten thousand definitions can share one id: all that came from CSV do. Only a few of them matter, and a
// look-up is not to walk over the others.
void dropSilent(Definitions& list) {
    std::vector<bool> deciding(list.size(), false);
    for (const TextField& field : kTextFields) markDeciding(field, list, deciding);
    Definitions kept;
    for (size_t i = 0; i < list.size(); ++i) {
        if (deciding[i]) kept.push_back(list[i]);
    }
    list.swap(kept);
}

// Notes that entries were added that carry no texts: the index need not know them.
void noteEmptyEntries(size_t size_before) REQUIRES(project_mutex) {
    if (indexed_size == size_before) indexed_size = alarm_def_map.size();
}

}  // namespace

const _alarm_def& definitionFor(int key) {
    const size_t size_before = alarm_def_map.size();
    const _alarm_def& definition = alarm_def_map[key];
    noteEmptyEntries(size_before);
    return definition;
}

void fillDefinitionGaps() {
    const size_t size_before = alarm_def_map.size();
    if (size_before == filled_size) return;
    if (size_before < filled_size) filled_below = 0;
    const auto beyond = alarm_def_map.lower_bound(kFilledKeys);
    if (beyond != alarm_def_map.begin()) {
        const int largest = std::prev(beyond)->first;
        auto next = alarm_def_map.lower_bound(filled_below);
        for (; filled_below <= largest; ++filled_below) {
            if (next->first == filled_below) {
                ++next;
            } else {
                alarm_def_map.try_emplace(next, filled_below);
            }
        }
    }
    filled_size = alarm_def_map.size();
    noteEmptyEntries(size_before);
}

const Definitions& definitionsWithId(int id) {
    static const Definitions kNone;
    if (stale || indexed_size != alarm_def_map.size()) indexDefinitions();
    const auto found = by_id.find(id);
    return found == by_id.end() ? kNone : found->second;
}

void definitionsChanged() {
    stale = true;
}

void indexDefinitions() {
    by_id.clear();
    for (auto entry = alarm_def_map.lower_bound(0); entry != alarm_def_map.end(); ++entry) {
        by_id[entry->second.id].push_back(&entry->second);
    }
    for (auto& [id, list] : by_id) {
        if (list.size() > 1) dropSilent(list);
    }
    indexed_size = alarm_def_map.size();
    stale = false;
}

void clearDefinitions() {
    alarm_def_map.clear();
    by_id.clear();
    filled_below = 0;
    filled_size = 0;
    indexed_size = 0;
    stale = false;
}
