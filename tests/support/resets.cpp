#include "tests/support/resets.h"

#include "alarmd/alarmd.h"
#include "alarmd/mail/client_process.h"
#include "alarmd/project/alarm_definitions.h"
#include "alarmd/requests/modem_status.h"
#include "alarmd/sms/sms_thread.h"
#include "alarmd/sms/timed_text/exchange.h"
#include "alarmd/sms/timed_text/message_store.h"
#include "alarmd/sms/timed_text/modem_port.h"
#include "alarmd/sms/timed_text/owed_bytes.h"
#include "alarmd/sms/timed_text/prompt.h"

namespace {

void resetFlags() {
    konec = konecModem = konecGps = reload = thr_lock = disable_notification = modemInit = false;
    readok = true;
    vlakno_mail = vlakno_sms = 0;
}

void resetSettings() {
    sms = use_msmtp = true;
    dbglev = testing_sms = testing_email = 0;
    ALARM_TIMEOUT = 86400;
    color_mail = color_sms = color_warn = color_modem = color_off = "";
    msmtp_conf_file = "msmtp.conf";
    test_user = "";
    test_send = false;
    client_stop_limit = 60;
    pFolder = http_port = https_port = binFolder = mail_from = system_setting = "";
    resend_enable = false;
    resend_period1_timeout = 300;
    resend_period2_timeout = 3600;
    resend_period1_quantity = resend_period2_quantity = 5;
    resend_max_quantity = resend_actual_timeout = 0;
    smspeermin = 10;
    tcp_port = 0;
    tcp_timeout = 15;
    gps_enable = false;
    MutexLock lock(settings_mutex);
    modemPort = "/dev/ttyModem2";
    pin = smsc = projectID = "";
}

void resetProject() {
    alarm_def = _alarm_def();
    user = _user();
    MutexLock lock(project_mutex);
    clearDefinitions();
    user_list.clear();
    for (_group& group : list_group) group = _group();
}

void resetQueues() {
    fronta_mail.clear();
    fronta_sms.clear();
    fronta_sms_raw.clear();
    wait_for_ack.clear();
    alarm_tag = _alarm_tag();
    last_resend = last_timestamp_ms = 0;
    last_timestamp = 0;
    time_sms_count = 0;
    sms_count = sms_counter = 0;
    MutexLock lock(data_rcv_mutex);
    data_rcv.clear();
}

void resetModem() {
    for (const char c : {'\r', '\n'}) {  // the line end that may still be awaited behind an OK
        char byte[2] = {c, '\0'};
        MyModem.ZpracujByte(byte);
    }
    clearReply();
    awaitPrompt();
    owed_bytes.clear();
    receive = rec_status = cekam = msg_cnt = linitstr = 0;
    timeout = readsmstime = 0;
    zprava.clear();
    {
        MutexLock lock(last_sms_mutex);
        last_sms = _last_sms();
    }
    MutexLock lock(status_mutex);
    status = _status();
}

void resetGps() {
    MutexLock lock(gps_mutex);
    gps_data = _gps_data();
    gps_data_parse = _gps_data_parse();
}

}  // namespace

void resetDaemonState() {
    resetFlags();
    resetSettings();
    resetProject();
    resetQueues();
    resetModem();
    resetGps();
}
