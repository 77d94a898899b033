#include "alarmd/alarmd.h"

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handlers write these flags");

std::atomic<bool> konec{false};
std::atomic<bool> konecModem{false};
std::atomic<bool> konecGps{false};
std::atomic<bool> reload{false};
std::atomic<bool> thr_lock{false};
std::atomic<bool> readok{true};
std::atomic<bool> disable_notification{false};
std::atomic<bool> modemInit{false};
std::atomic<int> vlakno_mail{0};
std::atomic<int> vlakno_sms{0};

bool sms = true;
bool use_msmtp = true;
int dbglev = 0;
int testing_sms = 0;
int testing_email = 0;
int ALARM_TIMEOUT = 86400;
std::string color_mail, color_sms, color_warn, color_modem, color_off;

std::string conf_file = "korvato.conf";
std::string msmtp_conf_file = "msmtp.conf";
std::string sms_conf_file = "sms.conf";
std::string test_user;
bool test_send = false;

std::string pFolder;
std::string http_port;
std::string https_port;
std::string binFolder;
std::string project_file, project_file_json;
std::string acc_list, acc_list_json;
std::string group_list, group_list_json;
std::string cas_list, cas_list_json;
std::string mail_from;

std::string system_setting;
std::string ip_stack = "127.0.0.1";
int port_stack = 11010;
int timeconnect = 10;
std::string ip = "127.0.0.1";
int port = 11012;
int port_modemMaster = 11017;

Mutex settings_mutex;
std::string modemPort = "/dev/ttyModem2";
std::string pin;
std::string smsc;
std::string projectID;
std::atomic<int> modem_speed{115200}, modem_parity{1}, modem_stopbit{1}, modem_databit{8}, modem_flow{2},
    modem_xflow{2};
std::atomic<bool> usePin{false};
std::atomic<int> smspeermin{10};
std::string modem_parity_str, modem_flow_str, modem_xflow_str;

bool resend_enable = false;
int resend_period1_timeout = 300;
int resend_period1_quantity = 5;
int resend_period2_timeout = 3600;
int resend_period2_quantity = 5;
int resend_max_quantity = 0;
int resend_actual_timeout = 0;

Mutex project_mutex;
std::map<int, _alarm_def> alarm_def_map;
std::vector<_user> user_list;
_group list_group[kGroups];

_alarm_def alarm_def;
_user user;

Fronta<_alarm_tag> fronta_mail;
Fronta<_alarm_tag> fronta_sms;
BoundedFronta<_sms_raw> fronta_sms_raw(kMostRawSms, kMostRawSmsBytes, [](const _sms_raw& message) {
    return message.number.size() + message.text.size() + message.from_ip.size();
});

_alarm_tag alarm_tag;
std::vector<_alarm_tag> wait_for_ack;
int64_t last_resend = 0;
std::atomic<int64_t> last_timestamp{0};
int64_t last_timestamp_ms = 0;

Mutex data_rcv_mutex;
std::string data_rcv;

Mutex last_sms_mutex;
_last_sms last_sms;

std::atomic<bool> gps_enable{false};
Mutex gps_mutex;
_gps_data gps_data;
_gps_data_parse gps_data_parse;

int tcp_port = 0;
int tcp_timeout = 15;
