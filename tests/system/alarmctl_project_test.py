"""alarmctl check and alarmctl explain: the example plant, projects with every fault, and the daemon's own mails."""

import json
import os
import pwd
import re
import shutil
import signal
import subprocess
import time

import plant

ALARMCTL = os.path.join(plant.BIN, "alarmctl")
TIME = re.compile(rb"[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}")
BOUNDARY = re.compile(rb'boundary="_(\w{50})"')


def alarmctl(*arguments, **options):
    """Runs it; returns (status, standard output, standard error)."""
    done = subprocess.run([ALARMCTL, *arguments], capture_output=True, timeout=plant.PATIENCE, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def csv_alarm(number, groups=(0,), **columns):
    """A line of cas.csv; columns c0, c1 ... replace those by position."""
    cells = ["2", "Area", "Message", "Device", "Tag", *7 * ["-"], "YES", "YES", "NO", "NO",
             *("YES" if g in groups else "NO" for g in range(10)), str(number)]
    for name, text in columns.items():
        cells[int(name[1:])] = text
    return ";".join(cells) + "\n"


class AlarmctlProjectTest(plant.PlantTest):
    maxDiff = None

    def setUp(self):
        if not os.path.exists(ALARMCTL):
            self.skipTest("alarmctl is not built")
        super().setUp()
        self.configure()
        self.write("msmtp.conf", "account korvato\nhost 127.0.0.1\nfrom alarms@plant.example\n")

    def check(self, *arguments):
        """Checks the test's folder; returns (status, what --json gives)."""
        status, out, err = alarmctl("check", "--json", "--files-only", *arguments, cwd=self.folder)
        self.assertEqual(err, "")
        return status, json.loads(out)

    def found(self, report, *severities):
        """The findings as (file name, line or element, code), notes only when asked for."""
        wanted = severities or ("warning", "error")
        return sorted((os.path.basename(finding["file"]), finding.get("line", finding.get("element", 0)),
                       finding["code"]) for finding in report["findings"] if finding["severity"] in wanted)

    def csv_project(self, cas, users, groups="h;h;h;h\n0;3;YES;Null\n", setting="projectID 49\n"):
        for name, content in (("groups.csv", groups), ("cas.csv", cas), ("list.acc", users), ("setting.txt", setting)):
            self.write("project/" + name, content)

    def test_the_example_plant_earns_notes_only(self):
        arguments = ("--files-only", "--settings", "settings.json")
        status, out, err = alarmctl("check", *arguments, cwd=plant.EXAMPLES)
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.splitlines()[-1],
                         "0 errors, 0 warnings, 5 notes in 8 files: the daemon would start; 20 alarms, 12 users, "
                         "9 groups are in use")
        self.assertIn('./users.json: element 12: note: "Archive" is in group 10, which is never notified '
                      "[silent-group]\n", out)
        status, out, _ = alarmctl("check", "--json", *arguments, cwd=plant.EXAMPLES)
        report = json.loads(out)
        self.assertEqual((status, report["errors"], report["warnings"], report["notes"]), (0, 0, 0, 5))
        self.assertEqual(report["loaded"], {"alarms": 20, "users": 12, "groups": 9})
        self.assertTrue(report["starts"])

    def test_faults_of_the_configuration_are_told_with_their_lines(self):
        self.project()
        self.write_settings({"network": {"modem": {"speed": "fast", "parity": 9, "smspeermin": -1, "tcp_port": 70000,
                                                   "modemPort": "", "Speed": 9600}}})
        self.write("korvato.conf", "pFolder %s\npFolder %s \nhttps_port https\n http_port 80\nhttp-port 80\n"
                   "binFolder /tmp" % (self.folder, self.project_folder))
        self.write("msmtp.conf", "account other\nhost h\n  from a@b.example\npassword secret\n")
        os.chmod(self.path("msmtp.conf"), 0o640)
        os.unlink(self.path("sms.conf"))
        status, report = self.check("--settings", plant.SYSTEM_SETTINGS)
        self.assertEqual(status, 2)
        self.assertEqual(self.found(report), sorted([
            ("korvato.conf", 2, "duplicate-key"), ("korvato.conf", 2, "blank-in-value"), ("korvato.conf", 2, "no-folder"),
            ("korvato.conf", 3, "bad-port"), ("korvato.conf", 4, "indented-key"), ("korvato.conf", 5, "unknown-key"),
            ("korvato.conf", 6, "no-line-feed"), ("korvato.conf", 0, "missing-key"),
            ("msmtp.conf", 3, "no-sender"), ("msmtp.conf", 0, "no-account"), ("msmtp.conf", 0, "open-permissions"),
            ("cas.json", 0, "no-file"), ("users.json", 0, "no-file"), ("setting.json", 0, "no-file"),
            ("settings.json", 0, "wrong-type"), ("settings.json", 0, "out-of-range"), ("settings.json", 0, "no-modem"),
            ("settings.json", 0, "bad-value"), ("settings.json", 0, "bad-value"), ("settings.json", 0, "unknown-key")]))
        self.assertIn(("sms.conf", 0, "unreadable"), self.found(report, "note"))
        self.write_settings("{")
        _, report = self.check()
        self.assertIn(("settings.json", 1, "not-json"), self.found(report))

    def owner_findings(self, report):
        return [(finding["code"], finding["text"]) for finding in report["findings"]
                if finding["code"] in ("foreign-owner", "open-permissions")]

    def test_root_is_told_when_the_services_user_cannot_use_the_password(self):
        if os.environ.get("KORVATO_WORLD") != "private":
            self.skipTest("only a private world has users of its own")
        self.project()
        with open("/etc/passwd") as file:
            users = file.read()
        os.rename("/etc/passwd", "/etc/passwd.kept")  # this world's link to the machine's
        self.addCleanup(os.rename, "/etc/passwd.kept", "/etc/passwd")
        with open("/etc/passwd", "w") as file:
            file.write("korvato:x:54321:54321::/nowhere:/usr/sbin/nologin\n" + users)
        path = "/etc/korvato/msmtp.conf"
        self.addCleanup(os.unlink, path)
        self.write(path, "account korvato\nfrom a@b.example\npassword secret\n")
        os.chmod(path, 0o640)
        mend = "chown korvato %s && chmod 600 %s" % (path, path)
        wanted = [("foreign-owner", "holds a password and belongs to root, not to korvato: the mail client refuses every mail "
                   '("contains secrets and therefore must be owned by you"); ' + mend)]
        status, report = self.check("-m", path)
        self.assertEqual((status, self.owner_findings(report)), (2, wanted))
        os.chmod(path, 0o600)
        self.assertIn('("Permission denied"); ' + mend, self.owner_findings(self.check("-m", path)[1])[0][1])
        # Elsewhere it is not the service's, and root's own mail client does not care.
        self.write("msmtp.conf", "account korvato\nfrom a@b.example\npassword secret\n")
        os.chmod(self.path("msmtp.conf"), 0o600)
        self.assertEqual(self.owner_findings(self.check()[1]), [])
        self.write(path, "account korvato\nfrom a@b.example\npasswordeval echo secret\n")
        self.assertEqual(self.owner_findings(self.check("-m", path)[1]), [])

        self.write(path, "account korvato\nfrom a@b.example\npassword secret\n")
        try:
            os.chown(path, 54321, 54321)
        except OSError:
            return  # a plain user's world has no other users
        self.assertEqual(self.owner_findings(self.check("-m", path)[1]), [])
        os.chmod(path, 0o640)
        self.assertEqual(self.owner_findings(self.check("-m", path)[1]), [
            ("open-permissions", "holds a password and has rights beyond its owner's to read and write: the mail client refuses "
             'every mail ("contains secrets and therefore must have no more than user read/write permissions"); chmod 600 '
             + path)])

    def test_a_plain_user_is_told_when_a_file_with_a_password_is_not_his(self):
        self.project()
        self.write("msmtp.conf", "account korvato\nfrom a@b.example\npassword secret\n")
        os.chmod(self.folder, 0o755)
        os.chmod(self.path("msmtp.conf"), 0o644)
        program = shutil.copy(ALARMCTL, self.path("alarmctl"))  # where any user gets at it
        nobody = pwd.getpwnam("nobody").pw_uid

        def check():
            done = subprocess.run([program, "check", "--json", "--files-only"], capture_output=True, cwd=self.folder,
                                  timeout=plant.PATIENCE, user=nobody)
            return self.owner_findings(json.loads(done.stdout))

        try:
            os.chown(self.path("msmtp.conf"), nobody, -1)
            os.chown(self.path("msmtp.conf"), 0, -1)
            found = check()
        except OSError:
            self.skipTest("a plain user's world has no other users")
        self.assertEqual(found, [
            ("foreign-owner", "holds a password and belongs to root, not to nobody: the mail client refuses every mail "
             '("contains secrets and therefore must be owned by you"); chown nobody msmtp.conf && chmod 600 msmtp.conf')])
        os.chown(self.path("msmtp.conf"), nobody, -1)
        self.assertEqual([code for code, _ in check()], ["open-permissions"])
        os.chmod(self.path("msmtp.conf"), 0o600)
        self.assertEqual(check(), [])

    def test_faults_of_a_json_project_are_told_with_their_elements(self):
        user = {"id": 1, "level": 1, "name": "Jan", "mail": "jan@plant.example", "tel": "+420601000001", "language": "cs"}
        quiet = [{"id": 2, "level": 2, "name": "Eva", "mail": "eva@plant.example"},
                 {"id": 3, "level": 3, "name": "Ivo", "tel": "601000003"}]
        alarm = plant.SMALL_CAS[0]
        groups = lambda *members: [g in members for g in range(12)]
        cas = [{**alarm, "smsAct": True},
               {**alarm, "id": 20, "group": groups()}, {**alarm, "id": 21, "group": groups(10, 11)},
               {**alarm, "id": 22, "group": groups(3)}, {**alarm, "id": 23, "group": groups(2), "smsAck": True},
               {**alarm, "id": 24, "severity": "high"}, {**alarm, "id": 20, "group": groups(1), "messageLangs": {}},
               {**alarm, "id": 25, "group": groups() + [True]}, {**alarm, "id": 26, "message": "", "messageLangs": {}},
               {**alarm, "id": 27, "EMAIL": True, "color": "red"}]
        users = [user, *quiet, {**user, "id": 1, "name": "Other", "mail": "no address"},
                 {"id": 5, "level": 1, "name": "Nobody", "smsControl": True}, {**user, "id": 6, "level": 12},
                 {**user, "id": 7, "level": 11}, {key: user[key] for key in user if key != "level"}, 7]
        self.project(groups=[{"groupNo": 1}, {"groupNo": 1}, {"groupNo": 12}, {"name": "x"}], cas=cas, users=users,
                     setting={"project": 7})
        self.csv_project("h\n", "", setting="")
        status, report = self.check()
        self.assertEqual(status, 1)
        self.assertTrue(report["starts"])
        self.assertEqual(self.found(report, "warning"), sorted([
            ("settings.json", 0, "unreadable"), ("setting.json", 0, "no-project-id"), ("groups.csv", 0, "shadowed"),
            ("cas.csv", 0, "shadowed"), ("setting.txt", 0, "shadowed"), ("list.acc", 0, "shadowed"),
            ("groups.json", 2, "duplicate-group"), ("groups.json", 3, "group-number"), ("groups.json", 4, "missing-key"),
            ("cas.json", 3, "silent-group"), ("cas.json", 4, "mail-to-nobody"), ("cas.json", 5, "sms-to-nobody"),
            ("cas.json", 6, "element-dropped"), ("cas.json", 7, "duplicate-alarm"), ("cas.json", 8, "group-number"),
            ("cas.json", 8, "no-group"), ("cas.json", 9, "empty-text"), ("cas.json", 10, "unknown-key"),
            ("users.json", 3, "bad-number"), ("users.json", 4, "bad-address"), ("users.json", 4, "duplicate-user"),
            ("users.json", 5, "no-contact"), ("users.json", 5, "control-without-number"),
            ("users.json", 6, "group-number"), ("users.json", 8, "missing-key"), ("users.json", 9, "element-dropped")]))
        self.assertIn(("cas.json", 0, "missing-language"), self.found(report, "note"))
        self.assertIn(("users.json", 3, "no-address"), self.found(report, "note"))
        self.assertIn(("users.json", 7, "silent-group"), self.found(report, "note"))
        self.assertEqual(report["loaded"], {"alarms": 8, "users": 6, "groups": 3})
        self.write("project/cas.json", "[\n{},\n}]")
        status, report = self.check()
        self.assertEqual((status, self.found(report, "error")), (2, [("cas.json", 3, "not-json")]))

    def test_faults_of_a_csv_project_are_told_with_their_lines(self):
        self.csv_project(
            groups="0;3;YES;Null\n1;3;yes;One\n1;x;NO;Two\n12;3;NO;Far\n2;;NO;Empty\n3;3\n",
            cas="h\n" + csv_alarm(10) + csv_alarm(11, c3="") + csv_alarm(12, c12="true") + csv_alarm("x") +
                csv_alarm(10, groups=()) + "1;2\n" + csv_alarm(13, c2="a;b") + "x" * (1 << 20) + "y\n" + csv_alarm(14),
            users="1;Jan;0;jan@plant.example;+420601000001\n2;Eva;20;eva@plant.example; \r\n3;Ivo;1; ; \n"
                  "4;Ota;two;at sign;601\nshort\n5;Ema;10;ema@plant.example; \n",
            setting="projectID 256\n")
        status, report = self.check()
        self.assertEqual((status, report["starts"]), (2, True))
        self.assertEqual(self.found(report), sorted([
            ("settings.json", 0, "unreadable"), ("setting.txt", 1, "no-project-id"),
            ("groups.csv", 1, "no-header"), ("groups.csv", 2, "no-flag"), ("groups.csv", 3, "no-number"),
            ("groups.csv", 3, "duplicate-group"), ("groups.csv", 4, "group-number"), ("groups.csv", 5, "empty-column"),
            ("groups.csv", 6, "short-line"),
            ("cas.csv", 0, "csv-texts"), ("cas.csv", 3, "empty-column"), ("cas.csv", 4, "no-flag"),
            ("cas.csv", 5, "no-number"), ("cas.csv", 6, "duplicate-alarm"), ("cas.csv", 7, "short-line"),
            ("cas.csv", 8, "extra-columns"), ("cas.csv", 8, "no-flag"), ("cas.csv", 8, "no-number"),
            ("cas.csv", 9, "line-too-long"), ("cas.csv", 8, "duplicate-alarm"),
            ("list.acc", 0, "users-from-csv"), ("list.acc", 2, "group-number"), ("list.acc", 3, "no-contact"),
            ("list.acc", 4, "no-number"), ("list.acc", 4, "bad-address"), ("list.acc", 4, "bad-number"),
            ("list.acc", 5, "short-line")]))
        self.assertIn(("list.acc", 2, "carriage-return"), self.found(report, "note"))
        self.assertIn(("list.acc", 6, "silent-group"), self.found(report, "note"))

    def test_the_check_ends_well_where_the_daemon_does_not(self):
        self.fake_client()
        self.csv_project("h\n" + csv_alarm(10), "1;Jan;0;jan@plant.example;+420601000001\n2;Eva;0;eva@plant.example\n")
        for code, file, place, words in (("four-columns", "list.acc", 2, "list.acc, line 2: 4 columns"),
                                         ("malformed-setting", "setting.json", 1, "setting.json: Line 1")):
            if file == "setting.json":
                self.write("project/setting.json", "{")
            status, report = self.check()
            self.assertEqual((status, report["starts"]), (2, False))
            self.assertIn((file, place, code), self.found(report, "error"))
            status, out, _ = alarmctl("check", "--files-only", cwd=self.folder)
            self.assertRegex(out.splitlines()[-1], r"^\d errors?, .*: the daemon would not start$")
            status, _, err = self.run_daemon()
            self.assertEqual(status, -signal.SIGABRT)
            self.assertIn(words, err)
            self.assertEqual(alarmctl("explain", "10", cwd=self.folder)[0], 2)

    def test_devices_and_the_mail_client_are_looked_at(self):
        self.project(users=[{**plant.SMALL_USERS[0], "level": group} for group in (1, 2)])
        file = self.write("device", "")
        self.write_settings({"network": {"modem": {"modemPort": file, "gps_enable": True}}})
        self.write(plant.CLIENT_PATH, "#!/bin/sh\n")
        machine = lambda: alarmctl("check", cwd=self.folder)
        status, out, _ = machine()
        self.assertEqual(status, 2)
        self.assertIn("%s: error: is no serial port: " % file, out)
        self.assertIn("/dev/ttyModem3: error: is not there (No such file or directory): ", out)
        self.assertIn("%s: error: is no program that may be run: " % self.path(plant.CLIENT_PATH), out)
        self.write_settings({"network": {"modem": {"modemPort": "/dev/null"}}})
        os.chmod(self.path(plant.CLIENT_PATH), 0o755)
        status, out, _ = machine()
        self.assertEqual(status, 0, out)

    def test_many_findings_of_a_kind_are_counted(self):
        users = [{"id": n, "level": 1, "name": "U%d" % n, "mail": "u%d@plant.example" % n, "tel": str(n)}
                 for n in range(1, 31)]
        self.project(users=users)
        status, out, _ = alarmctl("check", "--files-only", cwd=self.folder)
        self.assertEqual((status, out.count("[bad-number]")), (1, 11))
        self.assertIn("users.json: and 20 more [bad-number]\n", out)
        self.assertEqual(alarmctl("check", "--files-only", "--all", cwd=self.folder)[1].count("[bad-number]"), 30)

    def test_a_mail_is_explained_byte_for_byte(self):
        # But for the times; of the boundaries only the first of a process is always the same.
        self.project(users=[{**plant.SMALL_USERS[0], "tel": "+420601000001"},
                            {"id": 2, "level": 1, "name": "Ota", "mail": "ota@plant.example", "language": ""}])
        self.fake_client()
        now = int(time.time()) + 2
        times = {"atm": [now, 0]}
        answer = plant.json_answer({"d": [plant.entry(12, 1, now), plant.entry(12, 0, now + 1, **times),
                                          plant.entry(12, 2, now + 2, **times)]})
        self.start_answers(lambda n, request: answer if n == 0 else plant.json_answer({"d": []}))
        daemon = self.start_daemon()
        self.client.wait_runs(6, detail=lambda: daemon.out.text()[-3000:])
        masked = lambda mail, boundary: TIME.sub(b"TIME", mail).replace(boundary, b"B")
        for n, state in enumerate(("activated", "deactivated", "acknowledged")):
            for m, who in enumerate(("Jan", "2")):
                explained = subprocess.run([ALARMCTL, "explain", "12", "--state", state, "--user", who, "--mail"],
                                           cwd=self.folder, capture_output=True, check=True).stdout + b"\n"
                sent = self.client.input(2 * n + m)
                if n + m == 0:
                    self.assertEqual(BOUNDARY.search(explained)[1], BOUNDARY.search(sent)[1])
                self.assertEqual(masked(explained, BOUNDARY.search(explained)[1]),
                                 masked(sent, BOUNDARY.search(sent)[1]))
                self.assertEqual(len(TIME.findall(sent)), 1 if state == "activated" else 2)

    def test_an_alarm_is_explained_with_the_texts_of_its_sms(self):
        status, out, err = alarmctl("explain", "101", "--json", "--html", self.path("a.html"), cwd=plant.EXAMPLES)
        self.assertEqual((status, err), (0, ""))
        told = json.loads(out)
        self.assertEqual([(mail["group"], mail["name"], mail["language"]) for mail in told["mails"]],
                         [(0, "Jana Nováková", "cs"), (1, "Peter Hoffmann", "de"), (1, "Alice Carter", "en"),
                          (9, "Night desk", "default")])
        self.assertEqual([(sms["number"][-2:], sms["text"]) for sms in told["sms"]],
                         [("01", 0), ("02", 1), ("03", 2), ("10", 2)])
        self.assertEqual(told["texts"][0], {"text": "(ACT) Výpadek plamene /ack:101", "alphabet": "UCS-2", "units": 30,
                                            "messages": 1, "foreign": ["ý"]})
        self.assertEqual(told["texts"][2], {"text": "(ACT) Flame lost /ack:101", "alphabet": "GSM 7-bit", "units": 25,
                                            "messages": 1, "foreign": []})
        self.assertEqual(told["mail"]["to"], "jana.novakova@lipova.example")
        with open(self.path("a.html"), encoding="utf-8") as file:
            html = file.read()
        self.assertTrue(html.startswith("<html>") and html.endswith("</html>\n") and "Výpadek plamene" in html)
        status, out, _ = alarmctl("explain", "101", cwd=plant.EXAMPLES)
        self.assertEqual(status, 0)
        self.assertIn("  text 1: (ACT) Výpadek plamene /ack:101\n    1 SMS, 30 UCS-2 units of 70, for the GSM 7-bit "
                      "alphabet lacks ý (U+00FD)\n", out)
        self.assertIn("  text 3: (ACT) Flame lost /ack:101\n    1 SMS, 25 septets of 160\n", out)

    def test_why_nobody_hears_is_told(self):
        alarm = plant.SMALL_CAS[0]
        groups = lambda *members: [g in members for g in range(12)]
        self.project(cas=[{**alarm, "smsAct": True}, {**alarm, "id": 20, "email": False},
                          {**alarm, "id": 21, "group": groups()}, {**alarm, "id": 22, "group": groups(10)},
                          {**alarm, "id": 23, "group": groups(3)}])
        for arguments, status, reasons in (
                (("12",), 0, ["Nobody gets an SMS: nobody there has a number."]),
                (("20",), 1, ["Nobody gets a mail: the definition's e-mail flag (email) is off.",
                              "Nobody gets an SMS: the definition's flag for SMS on activation (smsAct) is off."]),
                (("21",), 1, ["Nobody gets a mail: the alarm is in no group."]),
                (("22",), 1, ["Nobody gets a mail: the alarm is in group 10 only, which is never notified."]),
                (("23",), 1, ["Nobody gets a mail: there are no users in group 3."]),
                (("23", "--user", "Jan"), 1, ["Nobody gets a mail: there are no users in group 3."])):
            result, out, err = alarmctl("explain", *arguments, cwd=self.folder)
            self.assertEqual((result, err), (status, ""), arguments)
            for reason in reasons:
                self.assertIn(reason + "\n", out, arguments)
        status, out, err = alarmctl("explain", "12", "-m", "none", cwd=self.folder)
        self.assertEqual((status, err), (0, "alarmctl: none: No such file or directory, so the mails name no sender\n"))
        for arguments, message in (
                (("99",), "there is no definition with the id 99: nobody hears of it"),
                (("12", "--user", "Eva"), 'there is no user "Eva" among those who are told of alarms'),
                (("20", "--mail"), "nobody gets a mail: the definition's e-mail flag (email) is off"),
                (("12", "--html", "/no/where"), "/no/where: No such file or directory"),
                (("12", "-c", "none.conf"), "none.conf: cannot be opened (No such file or directory): the daemon knows "
                 "neither its project nor the server nor the mail client")):
            self.assertEqual(alarmctl("explain", *arguments, cwd=self.folder), (2, "", "alarmctl: %s\n" % message))


if __name__ == "__main__":
    plant.main()
