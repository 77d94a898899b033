"""Files that are there and cannot be read: nothing waits for them, and what can go on does."""

import os
import signal

import plant

JSON_FILES = ["groups.json", "cas.json", "users.json"]
CSV_FILES = ["groups.csv", "cas.csv", "list.acc"]
KINDS = ["empty", "a pipe", "unreadable"]
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
        for kind, reason in zip(KINDS, [None, "Not a regular file", "Permission denied"]):
            with self.subTest(kind):
                for name in CSV_FILES:
                    self.spoil(self.path("project", name), kind)
                self.spoil(self.path("project", "setting.txt"), kind)
                out, err = self.polls_and_stops()
                self.assertEqual(err, ["alarmd: %s: %s" % (self.path("project", name), reason) for name in CSV_FILES]
                                 if reason else [])
                self.assertEqual(out.count("Project ID: 0"), 1)
                self.assertEqual(out.count(UNREADABLE), kind == "unreadable")

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
        for kind in KINDS:
            with self.subTest(kind):
                for path in (self.path("msmtp.conf"), self.path("sms.conf"), plant.SYSTEM_SETTINGS):
                    self.spoil(path, kind)
                out, err = self.polls_and_stops()
                self.assertEqual(out.count(UNREADABLE), 2 if kind == "unreadable" else 0)
                self.assertEqual((out.count("Failed to parse settings.json"), err), (1, []))

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
