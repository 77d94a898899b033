"""Start-up: command line, configuration, project files, and what is printed while they are read."""

import os
import signal

import plant

HELP = (
    "Help: \n"
    "-c\t<path>\tcesta k korvato.conf\n"
    "-m\t<path>\tcesta k msmtp.conf\n"
    "-s\t<path>\tcesta k sms.conf\n"
    "-t\t<email>\ttest mail bude poslan na zadany mail\n"
    "\n"
)
DEFAULT_SETTINGS = (
    "SMS Setting: SMS center =  ; SMS peer minut = 10; PORT = /dev/ttyModem2; PIN = ; Speed = 115200; Parity = 1; "
    "Stopbit = 1; Databit = 8; Flow = 2; SW Flow =2"
)
READY = "Setting CURL Options."


def empty_group(number, name="", severity=0, reporting=0, alarms=""):
    return (
        "..............\nGroup: %d(%s)\nAlarm list: %s\nUse_mail: 0\nUse_mobil: 0\nMax_severity: %d\nReporting: %d\n"
        % (number, name, alarms, severity, reporting)
    )


class CommandLine(plant.PlantTest):
    def test_help_is_printed_and_ends_with_status_0(self):
        self.assertEqual(self.run_daemon("-h"), (0, HELP, ""))

    def test_help_ends_before_anything_is_read(self):
        self.configure()
        self.assertEqual(self.run_daemon("-c", "korvato.conf", "-h", "-t", "x@plant.example"), (0, HELP, ""))

    def test_unknown_option_ends_with_status_0(self):
        status, out, err = self.run_daemon("-x")
        self.assertEqual((status, out, err), (0, "", plant.ALARMD + ": invalid option -- 'x'\n"))

    def test_missing_option_argument_ends_with_status_0(self):
        for option in "cmst":
            status, out, err = self.run_daemon("-" + option)
            complaint = plant.ALARMD + ": option requires an argument -- '%s'\n" % option
            self.assertEqual((status, out, err), (0, "", complaint))

    def test_paths_of_the_configuration_files_come_from_the_options(self):
        self.start_answers()
        self.configure()
        self.project()
        for name in ("korvato", "msmtp", "sms"):
            os.rename(self.path(name + ".conf"), self.path("my " + name + ".cfg"))
        daemon = self.start_daemon("-c", "my korvato.cfg", "-m", self.path("my msmtp.cfg"), "-s", "my sms.cfg")
        self.first_poll(daemon)
        self.assertNotIn("Nelze otevrit konfiguracni soubor", daemon.out.text())


class TestMail(plant.PlantTest):
    def test_one_mail_is_sent_without_threads_or_project_files(self):
        self.configure()
        self.project()
        client = self.fake_client()
        status, out, err = self.run_daemon("-t", "someone@plant.example")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(client.runs(), 1)
        self.assertEqual(client.arguments(), ["-C", "msmtp.conf", "-a", "korvato", "-t"])
        self.assertEqual(client.parent_threads(), 1)
        lines = client.input().decode().split("\n")
        self.assertEqual(lines[:5], ["From: alarms@plant.example", "To: someone@plant.example",
                                     "User-Agent: Korvato mailer", "MIME-Version: 1.0", "Subject: Testing email."])
        self.assertRegex(client.input().decode(), "<center><h1>Testing mail from Korvato.</h1><BR><a .*</a>")
        self.assertTrue(out.startswith("Reading korvato.conf \nReading msmtp.conf \nReading sms.conf \n"
                                       "Posilam testovaci mail...\nAlarm email\nFrom: alarms@plant.example\necho \""))
        self.assertNotIn("Nacitam", out)
        self.assertTrue(out.endswith('--\n"|%s/ext/msmtp/msmtp -C msmtp.conf -a korvato -t\n' % self.folder), out[-200:])

    def test_it_arrives_through_the_real_mail_client(self):
        smtp = self.start_smtp()
        self.configure()
        status, _, err = self.run_daemon("-t", "someone@plant.example")
        self.assertEqual((status, err), (0, ""))
        (mail,) = smtp.mails()
        self.assertEqual((mail["To"], mail["From"], mail["Subject"]),
                         ("someone@plant.example", "alarms@plant.example", "Testing email."))
        self.assertEqual([part.get_content_type() for part in mail.parts], ["text/html"])
        self.assertIn("<h1>Testing mail from Korvato.</h1>", mail.body)

    def test_an_empty_address_means_no_test_mail(self):
        self.start_answers()
        self.configure()
        client = self.fake_client()
        daemon = self.start_daemon("-t", "")
        self.first_poll(daemon)
        self.assertNotIn("Posilam testovaci mail...", daemon.out.text())
        self.assertEqual(client.runs(), 0)

    def test_a_missing_mail_client_is_told_and_the_status_is_0(self):
        self.configure()
        status, out, err = self.run_daemon("-t", "someone@plant.example")
        self.assertEqual(status, 0)
        self.assertEqual(err.count("\n"), 1, err)
        self.assertIn(self.path(plant.CLIENT_PATH), err)


class Configuration(plant.PlantTest):
    def test_missing_configuration_files_are_told_and_the_daemon_goes_on(self):
        daemon = self.start_daemon()
        daemon.out.wait(READY)
        self.assertTrue(daemon.out.text().startswith(
            "Reading korvato.conf \nNelze otevrit konfiguracni soubor\n"
            "Reading msmtp.conf \nNelze otevrit konfiguracni soubor\n"
            "Reading sms.conf \nNelze otevrit konfiguracni soubor\n"), daemon.out.text())
        daemon.err.wait(plant.starting("curl_easy_perform() failed: "))
        self.assertEqual(daemon.err.texts()[:3], ["alarmd: %s.conf: No such file or directory" % name
                                                  for name in ("korvato", "msmtp", "sms")])

    def test_a_folder_in_place_of_a_configuration_file_is_as_a_missing_one(self):
        os.mkdir(self.path("korvato.conf"))
        daemon = self.start_daemon()
        daemon.out.wait(READY)
        daemon.err.wait(plant.starting("curl_easy_perform() failed: "))
        self.assertEqual(daemon.err.texts()[0], "alarmd: korvato.conf: Is a directory")

    def test_start_up_prints_its_steps_in_order(self):
        self.start_answers()
        self.configure()
        self.project()
        daemon = self.start_daemon()
        self.first_poll(daemon)
        expected = (
            "Reading korvato.conf \nReading msmtp.conf \nReading sms.conf \n"
            "Nacitam groups.json\nNacitam cas.json\nNacitam setting.json\nProject ID: 7\nNacitam user.json\n"
            "=> List list_group struct\n"
            "..............\nGroup: 0()\nAlarm list: \nUse_mail: 0\nUse_mobil: 0\nMax_severity: 0\nReporting: 0\n"
            "-> User struct list: \n"
            "..............\nGroup: 1(One)\n------------> jan@plant.example\nMail list: jan@plant.example\n"
            "Alarm list:  12 13 14\nUse_mail: 1\nUse_mobil: 0\nMax_severity: 3\nReporting: 1\n"
            "-> User struct list: \n-> Name: Jan\tMail: jan@plant.example\tMobil: \tLanguage: cs\n"
            "..............\nGroup: 2(Two)\nAlarm list:  13\nUse_mail: 0\nUse_mobil: 0\nMax_severity: 1\nReporting: 0\n"
            "-> User struct list: \n"
            + "".join(empty_group(g) + "-> User struct list: \n" for g in range(3, 10))
            + "-----------------------------------------\n"
            "Nacitam settings.json\nFailed to parse settings.json\n"
        )
        self.assertEqual(daemon.out.text()[: len(expected)], expected)
        rest = daemon.out.text()[len(expected):].split("\n")
        self.assert_in_order(rest, [DEFAULT_SETTINGS, READY])

    def test_settings_file_is_read(self):
        self.start_answers()
        self.configure()
        self.write_settings({"network": {"modem": {"speed": 9600, "smsc": "+420608005681", "pin": "1234"}}})
        daemon = self.start_daemon()
        daemon.out.wait("SMS Setting: SMS center = +420608005681 ; SMS peer minut = 10; PORT = /dev/ttyModem2; PIN = 1234; "
                        "Speed = 9600; Parity = 1; Stopbit = 1; Databit = 8; Flow = 2; SW Flow =2")
        self.assertNotIn("Failed to parse", daemon.out.text())

    def test_a_setting_of_a_wrong_type_is_told_and_keeps_its_default(self):
        self.start_answers()
        self.configure()
        self.write_settings({"network": {"modem": {"speed": "fast", "smspeermin": 3}}})
        daemon = self.start_daemon()
        daemon.out.wait(DEFAULT_SETTINGS.replace("peer minut = 10", "peer minut = 3"))
        self.assertEqual(daemon.stop()[0], 0)
        told = [line for line in daemon.out.texts() + daemon.err.texts() if "speed" in line]
        self.assertEqual(len(told), 1, told)

    def test_a_folder_in_place_of_the_settings_file_gives_the_defaults(self):
        self.start_answers()
        self.configure()
        os.mkdir(plant.SYSTEM_SETTINGS)
        daemon = self.start_daemon()
        daemon.out.wait(DEFAULT_SETTINGS)
        self.assertEqual(daemon.out.count("Failed to parse settings.json"), 1)


CSV_GROUPS = "number;severity;reporting;name\n1;4;YES;Csv one\n"
CSV_CAS_ROW = "2;Area;Message;Device;TAG;-;-;-;-;-;-;-;YES;NO;NO;NO;NO;YES;NO;NO;NO;NO;NO;NO;NO;NO;12"


class ProjectFiles(plant.PlantTest):
    def setUp(self):
        super().setUp()
        self.configure()

    def write_csv(self):
        self.write("project/groups.csv", CSV_GROUPS)
        self.write("project/cas.csv", "header\n" + CSV_CAS_ROW + "\n")
        self.write("project/list.acc", "1;Jan;1;jan@plant.example;+420601000001\n2;Eva;1; ; \n")
        self.write("project/setting.txt", "projectID 49\n")

    def test_only_the_json_files_are_read_where_both_forms_exist(self):
        self.start_answers()
        self.project()
        self.write_csv()
        daemon = self.start_daemon()
        request = self.first_poll(daemon)
        text = daemon.out.text()
        for name in ("groups.csv", "cas.csv", "setting.txt", "list.acc"):
            self.assertNotIn("Nacitam " + name, text)
        self.assertIn("Group: 1(One)\n", text)
        self.assertIn("&prj=7&", request.body)

    def test_csv_files_are_read_where_there_are_no_json_files(self):
        self.start_answers()
        self.write_csv()
        daemon = self.start_daemon()
        request = self.first_poll(daemon)
        expected = (
            "Reading korvato.conf \nReading msmtp.conf \nReading sms.conf \n"
            + self.project_folder + "/groups.csv\nNacitam groups.csv\nPrse file groups.csv\n"
            "Nacitam cas.csv\nPrse file cas.csv\nNacitam setting.txt\nProject ID: 49\n"
            "Nacitam list.acc\n-->Prse file list.acc\n"
            + empty_group(0)
            + "..............\nGroup: 1(Csv one)\n------------> jan@plant.example\nMail list: jan@plant.example\n"
            "Alarm list:  12\nMobil list: +420601000001\nUse_mail: 1\nUse_mobil: 1\nMax_severity: 4\nReporting: 1\n"
            + "".join(empty_group(g) for g in range(2, 10))
            + "-----------------------------------------\n"
        )
        self.assertEqual(daemon.out.text()[: len(expected)], expected)
        self.assertTrue(request.body.startswith("t=30&prj=1&start="), request.body)

    def test_without_project_files_the_daemon_runs_with_an_empty_project_id(self):
        self.start_answers()
        daemon = self.start_daemon()
        self.assertTrue(self.server.wait_requests(1).body.startswith("t=30&prj=&start="))
        self.assertNotIn("Nacitam groups", daemon.out.text())

    def test_a_number_as_project_id_is_sent_as_text(self):
        self.start_answers()
        self.write("project/setting.json", {"projectID": 42})
        self.start_daemon()
        self.assertTrue(self.server.wait_requests(1).body.startswith("t=30&prj=42&start="))

    def assert_aborts(self, daemon, *told):
        """The daemon ends with SIGABRT after one line on standard error that holds the texts told."""
        self.assertEqual(daemon.wait_exit(), -signal.SIGABRT)
        self.assertEqual(len(daemon.err.texts()), 1, daemon.err.text())
        for text in told:
            self.assertIn(text, daemon.err.text())

    def test_a_malformed_project_id_file_ends_the_process(self):
        self.project(setting="{\"projectID\": ")
        daemon = self.start_daemon()
        self.assert_aborts(daemon, "setting.json")
        self.assert_in_order(daemon.out.texts(), ["Nacitam setting.json", "Failed to JSON parse setting.json"])
        self.assertNotIn("Nacitam user.json", daemon.out.text())

    def test_a_user_line_of_four_fields_ends_the_process(self):
        self.write("project/list.acc", "1;Jan;1;jan@plant.example;+420601000001\n2;Eva;1;eva@plant.example\n")
        daemon = self.start_daemon()
        self.assert_aborts(daemon, "list.acc", "2")
        self.assertIn("-->Prse file list.acc", daemon.out.texts())

    def test_malformed_json_files_are_told_and_skipped(self):
        self.start_answers()
        for name in ("groups", "cas", "users"):
            self.write("project/%s.json" % name, "[{\"id\": 1,")
        daemon = self.start_daemon()
        self.first_poll(daemon)
        self.assert_in_order(daemon.out.texts(), [
            "Failed to JSON parse groups.json", "Failed to JSON parse cas.json", "Failed to JSON parse users.json",
            "=> List list_group struct", "-----------------------------------------"])

    def test_a_folder_in_place_of_a_project_file_ends_its_loader(self):
        self.start_answers()
        for name in ("groups.json", "cas.json", "users.json"):
            os.mkdir(self.path("project", name))
        self.write("project/setting.json", {"projectID": 1})
        self.first_poll(self.start_daemon())

    def test_a_folder_in_place_of_a_csv_file_ends_its_loader(self):
        self.start_answers()
        for name in ("groups.csv", "cas.csv", "list.acc", "setting.txt"):
            os.mkdir(self.path("project", name))
        self.first_poll(self.start_daemon())

    def test_a_group_number_out_of_range_is_told_and_ignored(self):
        self.start_answers()
        self.project(groups=[{"groupNo": 12, "name": "Far"}, {"groupNo": -1, "name": "Under"},
                             {"groupNo": 3, "name": "Three"}])
        daemon = self.start_daemon()
        self.first_poll(daemon)
        self.assertEqual(daemon.stop()[0], 0)
        both = daemon.out.texts() + daemon.err.texts()
        self.assertTrue(any("12" in line and "group" in line.lower() for line in both), both)
        self.assertTrue(any("-1" in line and "group" in line.lower() for line in both), both)
        self.assertIn("Group: 3(Three)", both)

    def test_huge_and_negative_alarm_ids_neither_stall_nor_fill_the_memory(self):
        definitions = [dict(plant.SMALL_CAS[0], id=number) for number in (2000000000, -5, 12)]
        self.project(cas=definitions)
        base = int(plant.time.time()) + 2
        self.start_answers(lambda n, request: plant.json_answer(
            {"d": [plant.entry(number, 1, base) for number in (2000000000, -5, 12)] if n == 0 else []}))
        client = self.fake_client()
        daemon = self.start_daemon()
        client.wait_runs(3, detail=daemon.out.text)
        self.assertLess(plant.memory(daemon.pid), 500 * 1024)
        # The look-up walks up from 0, so it finds the texts of any id but a negative one.
        self.assertEqual(["Zpráva 12" in client.input(n).decode() for n in range(3)], [True, False, True])


if __name__ == "__main__":
    plant.main()
