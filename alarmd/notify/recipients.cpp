#include "alarmd/notify/recipients.h"

#include <algorithm>

std::vector<NotifiedGroup> recipientsOf(int alarm_id) {
    std::vector<NotifiedGroup> notified;
    MutexLock lock(project_mutex);
    for (int number = 0; number < kNotifiedGroups; ++number) {
        const _group& group = list_group[number];
        if (std::find(group.alarm_ids.begin(), group.alarm_ids.end(), alarm_id) == group.alarm_ids.end())
            continue;
        notified.push_back({number, group.users});
    }
    return notified;
}
