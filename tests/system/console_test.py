"""The console log: whole lines, at once, whatever standard output is."""

import os
import re
import subprocess
import time

import plant

MAIL_PASS = re.compile(r"\x1b\[0;0;31m-->Thread mail \(queue:\d+\) \x1b\[0;0;37m")

# What the main and the mail thread print after the start-up.
LINES = re.compile("|".join([
    MAIL_PASS.pattern, r"JSON : \{.*\}", r":: Check alarm \(sms,email\) if configured for queue\.\.\.",
    r"::-> Saving MAIL into fronta_mail", r"---------------NEW ALARM-----------------------", r"-{44}",
    r"id: \d+", r"(acktm|atm|dtm): \d+\.\d+\([0-9.e+]+\)", r"(ackv|av|dv): [0-9.]+", r"(area|dev|user): .*",
    r"(stat|sv): \d+", r"\(MAIL FOR USER\) GROUP: 1 - FOUND alarm ID: 12", r"-> Language: cs",
    r"-> Mail: jan@plant\.example", r"-> Device lang: Zařízení 12", r"-> Area lang: Oblast 12",
    r"-> Message lang: Zpráva 12", r"-> Odesilam mail - group: 1 email: jan@plant\.example", r"-> Odeslan",
    r"Alarm email", r"From: alarms@plant\.example", r'echo "From: alarms@plant\.example', r"To: jan@plant\.example",
    r"User-Agent: Korvato mailer", r"MIME-Version: 1\.0", r"Subject: Online Alarming",
    r'Content-Type: multipart/mixed; boundary="_\w{50}"', r"--_\w{50}(--)?", r"Content-Type: text/html; charset=UTF-8",
    r"Content-Transfer-Encoding: quoted-printable", r"Content-Disposition: inline", r"", 
    r"<TR><TD>MESSAGE</TD>.*</TR>", r"<TR><TD>Zpráva 12</TD>.*</TR>", r"</table>", r"</body>", r"</html>",
    r'"\|/.*/ext/msmtp/msmtp -C msmtp\.conf -a korvato -t', r"--> Check Re-Send Queue",
    r"Interrupt signal \(15\) received\.", r"Koncim Vlakno mail\.\.\.\.\.\.\.\.\.",
]))


# Where one of these stands, the whole line must be one of the above.
MARKS = re.compile(r"Thread mail|JSON :|::|ALARM|\(MAIL FOR|-> |: 1?[0-9]{1,9}$|From: |To: |Content-|boundary|<TD>|msmtp")


class Console(plant.PlantTest):
    def test_an_idle_mail_thread_prints_its_pass_every_3_s(self):
        self.start_answers()
        self.configure()
        self.project()
        daemon = self.start_daemon()
        one = "\x1b[0;0;31m-->Thread mail (queue:0) \x1b[0;0;37m"
        first, _ = daemon.out.wait(one)
        second, _ = daemon.out.wait(one, count=2)
        self.assertGreater(second - first, 2.5)
        self.assertEqual([line for line in daemon.out.texts() if "Thread mail" in line and line != one], [])

    def test_lines_of_several_threads_stay_whole(self):
        base = int(time.time()) + 5
        burst = 100
        self.start_answers(lambda n, request: plant.json_answer(
            {"d": [plant.entry(12, k % 2, base + n, k) for k in range(burst)] if n < 3 else []}))
        script = self.path(plant.CLIENT_PATH)
        self.fake_client()
        with open(script, "w") as file:
            file.write("#!/bin/sh\nexec cat >/dev/null\n")
        self.configure()
        self.project()
        daemon = self.start_daemon()
        daemon.out.wait("-> Odeslan", count=3 * burst, limit=120)
        self.assertEqual(daemon.stop()[0], 0)
        lines = daemon.out.texts()
        first = next(n for n, line in enumerate(lines) if line.startswith("<html>"))
        last = next(n for n, line in enumerate(lines) if line.endswith("<table border=1>"))
        style_sheet = set(lines[first:last + 1])
        for line in lines[lines.index("Setting CURL Options.") + 1:]:
            if MARKS.search(line) and not LINES.fullmatch(line) and line not in style_sheet:
                self.fail("a mixed line: %r" % line)
        self.assertEqual(daemon.out.count("id: 12"), 3 * burst)

    def test_a_reader_that_goes_away_does_not_end_the_daemon(self):
        self.start_answers()
        self.configure()
        self.project()
        # The pipe's other end belongs to a reader that ends after the first line.
        reader = subprocess.Popen(["head", "-n", "1"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        self.addCleanup(reader.wait)
        daemon = subprocess.Popen([plant.ALARMD], cwd=self.folder, stdout=reader.stdin, stderr=subprocess.DEVNULL,
                                  preexec_fn=plant.die_with_parent)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        reader.stdin.close()
        reader.wait()
        self.server.wait_requests(3)
        self.assertIsNone(daemon.poll())
        daemon.terminate()
        self.assertEqual(daemon.wait(plant.PATIENCE), 0)

    def test_closed_standard_descriptors_are_no_trouble(self):
        self.start_answers()
        self.configure()
        self.project()
        daemon = self.start_daemon(wrapper=["/bin/sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-'])
        self.server.wait_requests(2)
        standard = [os.readlink("/proc/%d/fd/%d" % (daemon.pid, fd)) for fd in range(3)]
        self.assertTrue(all(name.endswith("/null") for name in standard), standard)

    def test_a_full_device_behind_standard_output_does_not_end_the_daemon(self):
        self.start_answers()
        self.configure()
        self.project()
        self.start_daemon(wrapper=["/bin/sh", "-c", 'exec "$0" "$@" >/dev/full'])
        self.server.wait_requests(2)


class Clock(plant.PlantTest):
    def test_a_clock_set_back_loses_no_alarm(self):
        library = plant.clock_library("libfaketime.so.1")
        if not library:
            self.skipTest("libfaketime is not installed")
        if plant.sanitized():
            self.skipTest("a preloaded clock and a sanitizer do not go together")
        self.start_sim()
        client = self.fake_client()
        self.configure()
        self.project()
        offset = self.write("offset", "+0")
        daemon = self.start_daemon(env={**os.environ, "LD_PRELOAD": library, "FAKETIME_TIMESTAMP_FILE": offset,
                                        "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1"})
        self.sim.wait_polls(1)
        self.sim.alarm(12)
        client.wait_runs(1, detail=daemon.out.text)
        self.write("offset", "-3600")
        self.sim.wait_polls(1)
        self.sim.alarm(12, "deactivated")
        client.wait_runs(2, detail=daemon.out.text)
        self.assertIn("<TD>Deactivate</TD>", client.input(1).decode())


if __name__ == "__main__":
    plant.main()
