"""Files that are there and cannot be read: nothing waits for them, and what can go on does."""

import os
import signal
import socket

import plant

JSON_FILES = ["groups.json", "cas.json", "users.json"]
CSV_FILES = ["groups.csv", "cas.csv", "list.acc"]
KINDS = ["empty", "a pipe", "unreadable"]
REASONS = [None, "Not a regular file", "Permission denied"]
UNREADABLE = "Nelze otevrit konfiguracni soubor"
SETPRIV = "/usr/bin/setpriv"


class Files(plant.PlantTest):
    def spoil(self, path, kind):
        """Puts a file of this kind in the path's place."""
        if os.path.lexists(path):
            os.unlink(path)
        if kind == "a pipe":
            os.mkfifo(path)
            return
        with open(path, "w") as file:
            file.write("" if kind == "empty" else "[]")
        os.chmod(path, 0o000 if kind == "unreadable" else 0o644)

    def without_modem(self):
        self.write_settings({"network": {"modem": {"modemPort": ""}}})

    def start_plain(self):
        """Starts the daemon without the right to read every file, which root has."""
        if not os.path.exists(SETPRIV):
            self.skipTest("setpriv is not installed")
        return self.start_daemon(wrapper=[SETPRIV, "--bounding-set=-dac_override,-dac_read_search"])

    def polls_and_stops(self):
        """Starts the daemon; it must come to its first poll and stop well. Returns what it has printed."""
        polls = len(self.server.requests)
        daemon = self.start_plain()
        self.server.wait_requests(polls + 1)
        daemon.out.wait(plant.starting("JSON : "))
        self.assertEqual(daemon.stop()[0], 0, daemon.err.text())
        return daemon.out.texts(), daemon.err.texts()

    def test_project_files_in_json(self):
        self.without_modem()
        self.configure()
        self.project()
        self.start_answers()
        for kind in KINDS:
            with self.subTest(kind):
                for name in JSON_FILES:
                    self.spoil(self.path("project", name), kind)
                out, err = self.polls_and_stops()
                self.assertEqual([line for line in out if line.startswith("Failed to JSON parse ")],
                                 ["Failed to JSON parse " + name for name in JSON_FILES])
                self.assertEqual((out.count("Project ID: 7"), err), (1, []))

    def test_project_files_in_csv(self):
        self.without_modem()
        self.configure()
        self.start_answers()
        for kind, reason in zip(KINDS, REASONS):
            with self.subTest(kind):
                for name in CSV_FILES:
                    self.spoil(self.path("project", name), kind)
                self.spoil(self.path("project", "setting.txt"), kind)
                out, err = self.polls_and_stops()
                # In the order in which they are read.
                names = ["groups.csv", "cas.csv", "setting.txt", "list.acc"]
                self.assertEqual(err, ["alarmd: %s: %s" % (self.path("project", name), reason) for name in names]
                                 if reason else [])
                self.assertEqual(out.count("Project ID: 0"), 1)
                self.assertEqual(out.count(UNREADABLE), 1 if reason else 0)

    def test_a_project_id_that_cannot_be_read_ends_the_process(self):
        self.configure()
        self.project()
        for kind in KINDS:
            with self.subTest(kind):
                self.spoil(self.path("project", "setting.json"), kind)
                daemon = self.start_plain()
                self.assertEqual(daemon.wait_exit(), -signal.SIGABRT)
                self.assertEqual(len(daemon.err.texts()), 1, daemon.err.text())
                self.assertIn("setting.json", daemon.err.text())

    def test_configuration_and_settings(self):
        self.configure()
        self.start_answers()
        for kind, reason in zip(KINDS, REASONS):
            with self.subTest(kind):
                for path in (self.path("msmtp.conf"), self.path("sms.conf"), plant.SYSTEM_SETTINGS):
                    self.spoil(path, kind)
                out, err = self.polls_and_stops()
                self.assertEqual(out.count(UNREADABLE), 2 if reason else 0)
                self.assertEqual(err, ["alarmd: %s: %s" % (name, reason) for name in ("msmtp.conf", "sms.conf")]
                                 if reason else [])
                self.assertEqual(out.count("Failed to parse settings.json"), 1)

    def test_key_value_files_that_never_end_hold_nothing_up(self):
        self.without_modem()
        self.configure()
        self.start_answers()
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.path("socket"))
            os.unlink(self.path("msmtp.conf"))
            os.rename(self.path("socket"), self.path("msmtp.conf"))
            os.unlink(self.path("sms.conf"))
            os.symlink("/dev/zero", self.path("sms.conf"))
            os.mkfifo(self.path("project", "setting.txt"))
            writer = os.open(self.path("project", "setting.txt"), os.O_RDWR)  # who says nothing
            self.addCleanup(os.close, writer)
            out, err = self.polls_and_stops()
        self.assertEqual(err, ["alarmd: msmtp.conf: No such device or address",
                               "alarmd: sms.conf: Not a regular file",
                               "alarmd: %s: Not a regular file" % self.path("project", "setting.txt")])
        self.assertEqual((out.count(UNREADABLE), out.count("Project ID: 0")), (3, 1))

    def test_a_line_of_a_configuration_file_that_is_too_long_is_told_and_the_next_ones_are_read(self):
        self.without_modem()
        self.start_answers()
        self.configure()
        with open(self.path("korvato.conf")) as file:
            content = file.read()
        self.write("korvato.conf", "https_port " + "9" * (1 << 20) + "\n" + content)
        _, err = self.polls_and_stops()
        self.assertEqual(err, ["alarmd: korvato.conf, line 1: longer than 1048576 bytes, ignored"])

    def test_the_main_configuration(self):
        # Nothing is known then, the server's port neither.
        self.without_modem()
        for kind in KINDS:
            with self.subTest(kind):
                self.spoil(self.path("korvato.conf"), kind)
                daemon = self.start_plain()
                daemon.err.wait(plant.starting("curl_easy_perform() failed: "))
                self.assertEqual(daemon.stop()[0], 0)


if __name__ == "__main__":
    plant.main()
