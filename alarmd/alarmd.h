// The chief header: the daemon's records and its shared state.
//
// All process-wide state is declared here, each item with who writes it, who reads it and what guards it.
// Threads:
//   main      start-up, then the main loop (poll, parse, queue, resend walk)
//   mail      vlakno_m, drains fronta_mail
//   SMS       vlakno_s, drains fronta_sms and fronta_sms_raw, the only one to talk to the modem
//   requests  the FastCGI responder and the TCP server's client threads
//   readers   one for each serial channel and for the TCP client
// "Set at start-up" means: written by main before any other thread exists, constant afterwards.
//
// Lock order: no function takes a second of these mutexes while it holds one. None is held while sleeping,
// writing to a device, running a child or waiting for the network.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "alarmd/fronta.h"
#include "knihovny/mutex.h"

// ---------------------------------------------------------------------------------------------------------------
// Records. Plain values: copied into and out of the queues.

// A moment: [0] seconds since the epoch, [1] microseconds within that second, [2] never set.
using TimeTriple = int64_t[3];

// One occurrence of an alarm, as the alarm history reports it.
struct _alarm_tag {
    int id = 0;  // key into alarm_def_map
    TimeTriple acktm = {0, 0, 0};
    double ackv = 0;  // process value at acknowledge
    std::string ak;   // never set
    std::string area;
    TimeTriple atm = {0, 0, 0};
    double av = 0;  // process value at activation
    std::string dev;
    TimeTriple dtm = {0, 0, 0};
    double dv = 0;  // process value at deactivation
    std::string msg;
    int stat = 0;  // see AlarmState
    int sv = 0;    // severity
    std::string user;
    int64_t last_notifiction = 0;  // seconds; while waiting for an acknowledge
    int notificaion_no = 0;        // resends made while waiting for an acknowledge
};

enum AlarmState { kDeactivated = 0, kActivated = 1, kAcknowledged = 2, kAckTimedState = 8 };

// A text in one language.
struct _translate {
    std::string lang;
    std::string text;
};

// One alarm definition.
struct _alarm_def {
    int id = 0;
    int severity = 0;
    std::string area;
    std::vector<_translate> areaLangs;
    std::string message;
    std::vector<_translate> messageLangs;
    std::string device;
    std::vector<_translate> deviceLangs;
    std::string tag;
    bool email = false;     // mail in every state
    bool smsact = false;    // SMS on activation
    bool smsdeact = false;  // SMS on deactivation
    bool smsack = false;    // SMS on acknowledge
};

// The texts of one alarm in one language.
struct _langs {
    std::string deviceLangs;
    std::string messageLangs;
    std::string areaLangs;
};

// One recipient.
struct _user {
    int id = 0;
    std::string name;
    int group = 0;
    std::string mobil;  // phone number
    std::string mail;   // address
    bool sms_control = false;
    std::string lang;
};

// One notification group.
struct _group {
    int group_id = 0;
    int use_mail = 0;
    int use_mobil = 0;
    std::string groupname;
    std::list<std::string> mail;
    std::list<std::string>::iterator it;
    std::string mail_list;  // mail, joined by ","
    std::list<std::string> mobil;
    std::list<std::string>::iterator it1;
    std::list<int> alarm_ids;
    std::list<int>::iterator it2;
    std::string mobil_list;  // mobil, joined by ","
    int count = 0;
    int periodic_mail = 0;
    int max_severity = 0;
    std::string mail_concept;  // never filled
    std::vector<_user> users;
};

// A free-text SMS to send.
struct _sms_raw {
    std::string number;
    std::string text;
    std::string from_ip;  // who asked for it
    int from_port = 0;
};

// The last received SMS.
struct _last_sms {
    int64_t timestamp = 0;  // seconds since the epoch
    std::string from;
    std::string text;
};

// Modem status: the last reply to the modem query of each name.
struct _status {
    std::string IMEI, CSQ, SYSCFG, SYSCFGEX, COPS, CREG, CARDLOCK, SYSINFO, SYSINFOEX, CGPADDR, CGEQNEG;
    int64_t updated = 0;  // seconds since the epoch
};

// The latest NMEA 0183 sentences, from "$" to the two checksum digits.
struct _gps_data {
    std::string GPGSV[32];  // by message number; element 0 is not used
    int GPGSV_count = 0;
    std::string GPVTG, GPGSA, GPGGA, GPRMC;
    int64_t updated = 0;  // seconds since the epoch
};

struct _gps_data_parse {
    std::string GPGSV, GPVTG, GPGSA, GPGGA, GPRMC;
};

// ---------------------------------------------------------------------------------------------------------------
// Flags. Atomic: written and read by any thread, the first four also by the signal handlers.

extern std::atomic<bool> konec;                 // stop request; every loop polls it
extern std::atomic<bool> konecModem;            // stop request of the modem's serial channel
extern std::atomic<bool> konecGps;              // stop request of the GPS serial channel
extern std::atomic<bool> reload;                // re-read request
extern std::atomic<bool> thr_lock;              // main changes the queues: workers start no pass
extern std::atomic<bool> readok;                // no line is half-received on tcps
extern std::atomic<bool> disable_notification;  // set and cleared by the FastCGI responder
extern std::atomic<bool> modemInit;             // the modem is initialised; set by the SMS thread
extern std::atomic<int> vlakno_mail;            // 1 while the mail thread works
extern std::atomic<int> vlakno_sms;             // 1 while the SMS thread works

// ---------------------------------------------------------------------------------------------------------------
// Settings.

// Constant in a running daemon; tests change them before they start threads.
extern bool sms;           // SMS facility
extern bool use_msmtp;     // mail delivery
extern int dbglev;         // debug output level
extern int testing_sms;    // not 0: SMS are composed and not sent
extern int testing_email;  // not 0: mails are composed and not sent
extern int ALARM_TIMEOUT;  // seconds; an alarm of that age is no longer notified
extern std::string color_mail, color_sms, color_warn, color_modem, color_off;

// Set at start-up, from the command line.
extern std::string conf_file;
extern std::string msmtp_conf_file;
extern std::string sms_conf_file;
extern std::string test_user;  // address of the test mail
extern bool test_send;         // the test mail is asked for

// Set at start-up, from korvato.conf and msmtp.conf.
extern std::string pFolder;
extern std::string http_port;  // not read
extern std::string https_port;
extern std::string binFolder;
extern std::string project_file, project_file_json;
extern std::string acc_list, acc_list_json;
extern std::string group_list, group_list_json;
extern std::string cas_list, cas_list_json;
extern std::string mail_from;

// Set at start-up.
extern std::string system_setting;
extern std::string ip_stack;
extern int port_stack;
extern int timeconnect;  // seconds
extern std::string ip;
extern int port, port_modemMaster;  // not read

// Written by main (start-up and re-read), read by the SMS thread.
extern Mutex settings_mutex;
extern std::string modemPort GUARDED_BY(settings_mutex);
extern std::string pin GUARDED_BY(settings_mutex);
extern std::string smsc GUARDED_BY(settings_mutex);
extern std::string projectID GUARDED_BY(settings_mutex);  // also read by main's poll
extern std::atomic<int> modem_speed, modem_parity, modem_stopbit, modem_databit, modem_flow, modem_xflow;
extern std::atomic<bool> usePin;                                       // not read
extern std::atomic<int> smspeermin;                                    // SMS a minute
extern std::string modem_parity_str, modem_flow_str, modem_xflow_str;  // always empty

// Main thread only.
extern bool resend_enable;
extern int resend_period1_timeout, resend_period1_quantity;  // seconds, times
extern int resend_period2_timeout, resend_period2_quantity;
extern int resend_max_quantity;    // always 0
extern int resend_actual_timeout;  // seconds

// ---------------------------------------------------------------------------------------------------------------
// Project data. Written by main's loaders; read by the mail, SMS and request threads. A look-up by subscript
// inserts an empty definition: see alarm_definitions.h.

constexpr int kGroups = 12;
constexpr int kNotifiedGroups = 10;  // groups 10 and 11 are never notified

extern Mutex project_mutex;
extern std::map<int, _alarm_def> alarm_def_map GUARDED_BY(project_mutex);
extern std::vector<_user> user_list GUARDED_BY(project_mutex);
extern _group list_group[kGroups] GUARDED_BY(project_mutex);

// Working records of the loaders. Main thread only.
extern _alarm_def alarm_def;
extern _user user;

// ---------------------------------------------------------------------------------------------------------------
// Queues. Pushed by main and the request threads, drained by the mail and SMS threads; each guards itself.
// While no SMS thread works, main takes what is too old out of fronta_sms.

extern Fronta<_alarm_tag> fronta_mail;
extern Fronta<_alarm_tag> fronta_sms;

// Requested messages. Local programs ask for them as fast as they like, and they go out one in some seconds.
// What counts as bytes are those of the number, the text and the address of who asked.
constexpr size_t kMostRawSms = 1000;
constexpr size_t kMostRawSmsBytes = size_t{4} * 1024 * 1024;
extern BoundedFronta<_sms_raw> fronta_sms_raw;

// Main thread only.
extern _alarm_tag alarm_tag;                  // working record of the parser
extern std::vector<_alarm_tag> wait_for_ack;  // in insertion order
extern int64_t last_resend;                   // time of the last resend walk, seconds
extern std::atomic<int64_t> last_timestamp;   // poll start point, seconds; the SMS thread prints it
extern int64_t last_timestamp_ms;             // its sub-second part, microseconds

// The last complete line from tcps: written by its reading thread, taken by main.
extern Mutex data_rcv_mutex;
extern std::string data_rcv GUARDED_BY(data_rcv_mutex);

// The last received SMS: written by the SMS thread, read by the request threads.
extern Mutex last_sms_mutex;
extern _last_sms last_sms GUARDED_BY(last_sms_mutex);

// GPS. The sentences are written by the GPS channel's reading thread and read by the GPS and request threads.
extern std::atomic<bool> gps_enable;  // GPS is switched on; written by main (start-up and re-read)
extern Mutex gps_mutex;
extern _gps_data gps_data GUARDED_BY(gps_mutex);
extern _gps_data_parse gps_data_parse GUARDED_BY(gps_mutex);  // as last told; written by the FastCGI thread

// The TCP request server. Main thread only.
extern int tcp_port;     // on 127.0.0.1; 0 when there is to be no server
extern int tcp_timeout;  // seconds after which a silent client is dropped
