"""alarmctl and a running daemon: what it shows, what it asks for, and what it says when there is no daemon."""

import json
import os
import socket
import subprocess
import threading
import time

import plant
import requests_plant
from requests_plant import FCGI_PORT
from sms_plant import EVE, STRANGER

ALARMCTL = os.path.join(plant.BIN, "alarmctl")
NASTY_SMS = 'x","From":"%s" \\ }} %%s <b>' % EVE
COMPLETION = os.path.join(plant.SOURCE, "packaging", "bash-completion", "alarmctl")


def alarmctl(*arguments, **options):
    """Runs it; returns (status, standard output, standard error)."""
    done = subprocess.run([ALARMCTL, *arguments], capture_output=True, text=True, timeout=plant.PATIENCE,
                          env={**os.environ, "TZ": "UTC", "LC_ALL": "C.UTF-8"}, **options)
    return done.returncode, done.stdout, done.stderr


class Port:
    """A peer at the responder's port; answer(connection) is called for each connection."""

    def __init__(self, answer):
        self._socket = socket.create_server(("127.0.0.1", FCGI_PORT))
        self._answer = answer
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            with connection:
                connection.recv(65536)
                self._answer(connection)

    def end(self):
        # A thread that waits in accept() would keep the port.
        self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()


class AlarmctlTest(requests_plant.RequestTest):
    def setUp(self):
        if not os.path.exists(ALARMCTL):
            self.skipTest("alarmctl is not built")
        super().setUp()

    def run_well(self, *arguments):
        """Runs it; it must succeed and complain of nothing. Returns what it shows."""
        status, out, err = alarmctl(*arguments)
        self.assertEqual((status, err), (0, ""), out)
        return out

    def check_failure(self, message, *arguments):
        """It must fail with this message and show nothing."""
        self.assertEqual(alarmctl(*arguments), (2, "", "alarmctl: %s\n" % message))

    def rows(self, *arguments):
        """The table that it shows, as a dictionary."""
        return dict(line.split("  ", 1) for line in self.run_well(*arguments).splitlines())


class Daemon(AlarmctlTest):
    def test_an_sms_goes_out_and_is_counted(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.assertEqual(self.rows("status")["SMS count"], "0 handed to the modem since the daemon's start")
        # A text may look like a command, and a number be written with blanks.
        for text in ('say "hi" \\ 100 %s ř', "status"):
            out = self.run_well("sms", "+420 601 000 003", text)
            self.assertTrue(out.startswith("queued for %s\n" % EVE), out)
            self.wait_sms((EVE, text))
        self.run_well("sms", EVE, "--", "-x")
        self.wait_sms((EVE, "-x"))
        plant.wait_for(lambda: "3 handed" in self.rows("status")["SMS count"], "the count")
        answer = json.loads(self.run_well("status", "--json"))
        self.assertEqual((answer["r"], answer["s"], answer["d"]["SMSCOUNT"], len(answer["d"])), (51, 1, "3", 14))

    def test_the_last_sms_is_shown_whatever_is_in_it(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.assertEqual(self.run_well("last-sms"), "No SMS has come in since the daemon's start.\n")
        before = int(time.time())
        self.phone(STRANGER, NASTY_SMS)
        rows = self.rows("last-sms")
        self.assertEqual([value.strip() for value in (rows["From"], rows["Text"])], [STRANGER, NASTY_SMS])
        shown = time.strptime(rows["Received"].split(" UTC")[0].strip(), "%Y-%m-%d %H:%M:%S")
        answer = json.loads(self.run_well("last-sms", "--json"))
        self.assertEqual((answer["d"]["From"], answer["d"]["Text"]), (STRANGER, NASTY_SMS))
        self.assertEqual(tuple(shown)[:6], tuple(time.gmtime(answer["d"]["Timestamp"]))[:6])
        self.assertTrue(before <= answer["d"]["Timestamp"] <= time.time())

    def test_notifications_are_switched(self):
        self.start_alone()
        self.assertTrue(self.run_well("notifications", "off").startswith("Notifications are off"))
        self.assert_logged("Request protocol 55 (Disable notification)\n")
        self.assertEqual(self.run_well("notifications", "on"), "Notifications are on.\n")
        self.assert_logged("Request protocol 56 (Enable notification)\n")
        self.assertEqual(json.loads(self.run_well("notifications", "on", "--json")), {"r": 56, "s": 1})

    def test_the_position_is_shown(self):
        self.start_modem()
        self.start_gps()
        self.start_plant(gps_enable=True)
        # As the sentences come in, those of two seconds may be together, and the satellites come last.
        plant.wait_for(lambda: "in view" in alarmctl("gps")[1], "a position", detail=lambda: repr(alarmctl("gps")))
        rows = {name: value.strip() for name, value in self.rows("gps").items()}
        self.assertRegex(rows["Position"], r"^50°0\d\.\d{4}' N  014°2\d\.\d{4}' E$")
        self.assertRegex(rows["Degrees"], r"^50\.\d{6}, 14\.\d{6}$")
        self.assertRegex(rows["Speed"], r"^12\.0 kn \(22\.2 km/h\)$")
        self.assertRegex(rows["Satellites"], r"^\d+ used, \d+ in view$")
        self.assertRegex(rows["Fix time"], r"^20\d\d-\d\d-\d\d \d\d:\d\d:\d\d UTC \(.*\)$")
        lines = self.run_well("gps", "--raw").splitlines()
        said = [sentence for second in self.gps.said() for sentence in
                [second[kind] for kind in ("GGA", "GSA", "RMC", "VTG")] + second["GSV"]]
        self.assertGreater(len(lines), 4)
        self.assertLessEqual(set(lines), set(said))
        self.gps.gps("no fix")
        plant.wait_for(lambda: "none: the receiver has no fix" in alarmctl("gps")[1], "no position")
        self.gps.gps("corrupt")
        plant.wait_for(lambda: "checksums of its sentences are wrong" in alarmctl("gps")[2], "the wrong checksums")


class Failures(AlarmctlTest):
    def test_gps_that_is_disabled(self):
        self.start_alone()
        reason = "GPS is disabled (gps_enable in /etc/korvato/settings.json)"
        self.check_failure(reason, "gps")
        self.check_failure(reason, "gps", "--raw")
        status, out, _ = alarmctl("gps", "--raw", "--json")
        self.assertEqual((status, json.loads(out)), (2, {"r": 52, "s": 0, "err": "GPS disabled"}))

    def test_a_queue_of_messages_that_is_full(self):
        self.start_alone()
        with requests_plant.FcgiClient() as client:
            for _ in range(1000):
                client.ask(requests_plant.request(50, number=EVE, text="x"), keep=True)
        self.check_failure("the daemon refuses: SMS queue is full", "sms", EVE, "x")
        status, out, _ = alarmctl("sms", EVE, "x", "--json")
        self.assertEqual((status, json.loads(out)), (2, {"r": 50, "s": 0, "err": "SMS queue is full"}))

    def test_no_daemon(self):
        place = "127.0.0.1:%d" % FCGI_PORT
        for command in (["status"], ["sms", "112", "x"], ["last-sms"], ["gps"], ["notifications", "on"]):
            self.check_failure("no daemon answers on %s: Connection refused" % place, *command)
        for answer, message in (
                (lambda connection: connection.recv(1), "no answer from %s within 0.3 s" % place),
                (lambda connection: None, "the connection to %s was closed before the answer was complete" % place),
                (lambda connection: connection.sendall(b"HTTP/1.1 400\r\n"),
                 "what answers on %s is no FastCGI responder" % place),
                (lambda connection: connection.sendall(requests_plant.record(3, bytes(8))),
                 "the daemon gave no answer: it is about to stop, or does not know the request"),
                (lambda connection: connection.sendall(
                    requests_plant.record(6, b"\nhello") + requests_plant.record(3, bytes(8))),
                 "the daemon's answer is not understood")):
            port = Port(answer)
            self.check_failure(message, "status", "--timeout", "0.3" if "0.3" in message else "30")
            port.end()

    def test_what_is_no_message_is_not_sent(self):
        self.start_alone()
        form = ": up to 15 digits, as +420601000001 or 601000001"
        for number in ("", "+", "abc", "+0123", "1234567890123456", '1";2', "1+2", "0x12"):
            self.check_failure('"%s" is no phone number%s' % (number, form), "sms", number, "x")
        for text in ("", " \t\n"):
            self.check_failure("the text is empty", "sms", EVE, text)
        self.check_failure("the text is no valid UTF-8", "sms", EVE, b"caf\xe9")
        for wrong in (["sms", EVE], ["sms", EVE, "two", "words"], ["notifications"], ["notifications", "maybe"], [],
                      ["sta"], ["status", "--timeout", "0"], ["status", "--port", "70000"], ["status", "-z"]):
            status, out, err = alarmctl(*wrong)
            self.assertEqual((status, out), (2, ""), wrong)
            self.assertIn("--help", err)
        self.assertNotIn("FCGI: QUERY_STRING", self.daemon.out.text())

    def test_output_that_cannot_be_written(self):
        self.start_alone()
        with open("/dev/full", "w") as full:
            done = subprocess.run([ALARMCTL, "status"], stdout=full, stderr=subprocess.PIPE, timeout=plant.PATIENCE)
        self.assertEqual((done.returncode, done.stderr),
                         (2, b"alarmctl: the output cannot be written: No space left on device\n"))
        read, write = os.pipe()
        os.close(read)
        done = subprocess.run([ALARMCTL, "status"], stdout=write, stderr=subprocess.PIPE, timeout=plant.PATIENCE)
        os.close(write)
        self.assertEqual((done.returncode, done.stderr),
                         (2, b"alarmctl: the output cannot be written: Broken pipe\n"))


class Help(AlarmctlTest):
    COMMANDS = ["status", "sms", "last-sms", "gps", "notifications"]

    def complete(self, *words):
        """What bash offers for the last of the words."""
        script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _alarmctl "$1"; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        done = subprocess.run(["bash", "--norc", "-c", script, "-", COMPLETION, ALARMCTL, *words], capture_output=True,
                              text=True, timeout=plant.PATIENCE, cwd=self.folder)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.split()

    def test_help_has_examples(self):
        for command in self.COMMANDS:
            self.assertIn("Examples:\n  alarmctl %s" % command, self.run_well(command, "--help"))
            self.assertIn("\n  %s " % command, self.run_well("--help"))
        self.assertRegex(self.run_well("--version"), r"^alarmctl \d+\.\d+\.\d+\n$")

    def test_bash_completes_commands_options_and_words(self):
        self.assertLessEqual(set(self.COMMANDS), set(self.complete("")))
        self.assertEqual(self.complete("no"), ["notifications"])
        self.assertEqual(self.complete("--v"), ["--version"])
        self.assertEqual(self.complete("notifications", ""), ["on", "off"])
        self.assertEqual(self.complete("notifications", "of"), ["off"])
        self.assertEqual(self.complete("notifications", "off", ""), [])
        self.assertEqual(self.complete("notifications", "--timeout", "5", "o"), ["on", "off"])
        self.assertEqual(self.complete("gps", "--"), ["--help", "--json", "--timeout", "--port", "--raw"])
        self.assertEqual(self.complete("gps", "--json", "--r"), ["--raw"])
        self.assertEqual(self.complete("status", "--timeout", ""), [])
        self.assertEqual(self.complete("explain", "--state", "=", "d"), ["deactivated"])
        self.assertEqual(self.complete("explain", "--state", "="), ["activated", "deactivated", "acknowledged"])
        for command in ("check", "explain"):
            self.assertLessEqual({"-c", "--config", "--json"}, set(self.complete(command, "-")))
        self.write("korvato.conf", "")
        self.assertEqual(self.complete("check", "-c", "kor"), ["korvato.conf"])


if __name__ == "__main__":
    plant.main()
