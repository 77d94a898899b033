#include "tests/support/project_files.h"

namespace {

TEST(Records, ADefaultAlarmIsAllZeroAndEmpty) {
    const _alarm_tag alarm;
    EXPECT_EQ(alarm.id, 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(alarm.acktm[i], 0);
        EXPECT_EQ(alarm.atm[i], 0);
        EXPECT_EQ(alarm.dtm[i], 0);
    }
    EXPECT_EQ(alarm.ackv, 0);
    EXPECT_EQ(alarm.av, 0);
    EXPECT_EQ(alarm.dv, 0);
    EXPECT_EQ(alarm.stat, 0);
    EXPECT_EQ(alarm.sv, 0);
    EXPECT_EQ(alarm.last_notifiction, 0);
    EXPECT_EQ(alarm.notificaion_no, 0);
    EXPECT_EQ(alarm.ak + alarm.area + alarm.dev + alarm.msg + alarm.user, "");
}

TEST(Records, EveryOtherRecordIsAllZeroAndEmptyByDefault) {
    const _alarm_def definition;
    EXPECT_EQ(definition.id, 0);
    EXPECT_EQ(definition.severity, 0);
    EXPECT_FALSE(definition.email || definition.smsact || definition.smsdeact || definition.smsack);
    EXPECT_TRUE(definition.areaLangs.empty() && definition.messageLangs.empty() &&
                definition.deviceLangs.empty());
    const _user recipient;
    EXPECT_EQ(recipient.id, 0);
    EXPECT_EQ(recipient.group, 0);
    EXPECT_FALSE(recipient.sms_control);
    const _group group;
    EXPECT_EQ(group.group_id + group.use_mail + group.use_mobil + group.count + group.periodic_mail, 0);
    EXPECT_EQ(group.max_severity, 0);
    EXPECT_TRUE(group.mail.empty() && group.mobil.empty() && group.alarm_ids.empty() && group.users.empty());
    const _sms_raw raw;
    EXPECT_EQ(raw.from_port, 0);
    const _last_sms last;
    EXPECT_EQ(last.timestamp, 0);
    const _status modem;
    EXPECT_EQ(modem.updated, 0);
    const _gps_data position;
    EXPECT_EQ(position.GPGSV_count, 0);
    EXPECT_EQ(position.updated, 0);
}

_alarm_tag filledAlarm() {
    _alarm_tag alarm;
    alarm.id = 1;
    for (int i = 0; i < 3; ++i) {
        alarm.acktm[i] = 10 + i;
        alarm.atm[i] = 20 + i;
        alarm.dtm[i] = 30 + i;
    }
    alarm.ackv = 1.5;
    alarm.ak = "ak";
    alarm.area = "area";
    alarm.av = 2.5;
    alarm.dev = "dev";
    alarm.dv = 3.5;
    alarm.msg = "msg";
    alarm.stat = 8;
    alarm.sv = 4;
    alarm.user = "user";
    alarm.last_notifiction = 5;
    alarm.notificaion_no = 6;
    return alarm;
}

TEST(Records, AnAlarmIsCopiedIntoAQueueWithEveryField) {
    Fronta<_alarm_tag> queue;
    {
        _alarm_tag alarm = filledAlarm();
        queue.push(alarm);
        alarm = _alarm_tag();
    }
    _alarm_tag copy;
    ASSERT_TRUE(queue.take(copy));
    EXPECT_EQ(copy.id, 1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(copy.acktm[i], 10 + i);
        EXPECT_EQ(copy.atm[i], 20 + i);
        EXPECT_EQ(copy.dtm[i], 30 + i);
    }
    EXPECT_EQ(copy.ackv, 1.5);
    EXPECT_EQ(copy.ak, "ak");
    EXPECT_EQ(copy.area, "area");
    EXPECT_EQ(copy.av, 2.5);
    EXPECT_EQ(copy.dev, "dev");
    EXPECT_EQ(copy.dv, 3.5);
    EXPECT_EQ(copy.msg, "msg");
    EXPECT_EQ(copy.stat, 8);
    EXPECT_EQ(copy.sv, 4);
    EXPECT_EQ(copy.user, "user");
    EXPECT_EQ(copy.last_notifiction, 5);
    EXPECT_EQ(copy.notificaion_no, 6);
}

class ProjectData : public ProjectTest {};

TEST_F(ProjectData, LookingUpAnUnknownIdLeavesANewEmptyDefinition) {
    MutexLock lock(project_mutex);
    EXPECT_FALSE(alarm_def_map[42].email);
    ASSERT_EQ(alarm_def_map.count(42), 1U);
    EXPECT_EQ(alarm_def_map[42].id, 0);
    EXPECT_EQ(alarm_def_map.size(), 1U);
}

TEST_F(ProjectData, ThereAreTwelveGroups) {
    MutexLock lock(project_mutex);
    EXPECT_EQ(std::size(list_group), 12U);
}

}  // namespace
