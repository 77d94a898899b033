"""What is delivered around the daemon: how the program is hardened, the unit's rules, the manual pages."""

import os
import re
import shutil
import subprocess

import plant

PACKAGING = os.path.join(plant.SOURCE, "packaging")
UNIT = os.path.join(PACKAGING, "systemd", "alarmd.service")
MOST_EXPOSURE = 2.0


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, env={**os.environ, "LC_ALL": "C"}).stdout


class Hardening(plant.PlantTest):
    def test_the_program_is_hardened(self):
        if re.search("lib[at]san", output("ldd", plant.ALARMD)):
            self.skipTest("sanitizers take the place of the hardening")
        if b".gcda" in open(plant.ALARMD, "rb").read():
            self.skipTest("not optimised, as the counting of lines has it")
        for options, wanted in (
                (["-hW"], r"Type:\s+DYN"),
                (["-lW"], r"GNU_RELRO"),
                (["-lW"], r"GNU_STACK.* RW "),
                (["-dW"], r"FLAGS.*BIND_NOW"),
                (["-dW"], r"FLAGS_1.*PIE"),
                (["--dyn-syms", "-W"], r"__stack_chk_fail"),
                (["--dyn-syms", "-W"], r"__(snprintf|read|memcpy|poll|fdelt)_chk")):
            found = re.search(wanted, output("readelf", *options, plant.ALARMD))
            self.assertTrue(found, "readelf %s shows no %s" % (options, wanted))


class Unit(plant.PlantTest):
    def setUp(self):
        super().setUp()
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not installed")

    def test_the_exposure_of_the_unit_is_low(self):
        table = output("systemd-analyze", "security", "--offline=yes", "--no-pager", UNIT)
        exposure = float(re.search(r"Overall exposure level for \S+: ([0-9.]+)", table).group(1))
        self.assertLess(exposure, MOST_EXPOSURE, table)

    def test_the_unit_has_no_mistake(self):
        # Program and manual pages are not installed here.
        path = self.write("unit/alarmd.service", open(UNIT).read().replace("/usr/sbin/alarmd", plant.ALARMD))
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", path], capture_output=True, text=True)
        complaints = [line for line in done.stderr.splitlines() if "alarmd.service" in line]
        self.assertEqual(complaints, [])
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_every_end_is_followed_by_a_start(self):
        lines = open(UNIT).read().splitlines()
        for line in ("Restart=always", "User=korvato", "SupplementaryGroups=dialout", "StartLimitIntervalSec=0"):
            self.assertIn(line, lines)

    def test_memory_is_bounded_above_all_that_input_can_take(self):
        keys = dict(line.split("=", 1) for line in open(UNIT).read().splitlines() if re.match(r"\w+=", line))
        bound = re.fullmatch(r"(\d+)G", keys["MemoryMax"])
        self.assertTrue(1.6 < int(bound.group(1)) <= 4, keys["MemoryMax"])

    def test_a_stop_leaves_the_mail_client_alone_and_time_for_a_slow_relay(self):
        keys = dict(line.split("=", 1) for line in open(UNIT).read().splitlines() if re.match(r"\w+=", line))
        self.assertEqual(keys["KillMode"], "mixed")
        self.assertNotIn("ExecStop", keys)
        seconds = output("systemd-analyze", "timespan", keys["TimeoutStopSec"])
        microseconds = int(re.search(r"[μu]s: (\d+)", seconds).group(1))
        # A hundred mails, each of them a few seconds under way.
        self.assertGreaterEqual(microseconds, 600 * 1000000)
        self.assertLess(microseconds, 3600 * 1000000)


class ManualPages(plant.PlantTest):
    def test_the_manual_names_every_option_and_key(self):
        manual = open(os.path.join(PACKAGING, "man", "alarmd.8")).read()
        for option in "cmsth":
            self.assertIn(r"\-%s" % option, manual)
        keys = open(os.path.join(plant.SOURCE, "alarmd", "settings", "setting_table.cpp")).read()
        described = open(os.path.join(PACKAGING, "man", "korvato.conf.5")).read()
        names = re.findall(r'^        \{"(\w+)",', keys, re.MULTILINE)
        self.assertGreater(len(names), 10)
        for name in names:
            self.assertIn(name + "@", described)


if __name__ == "__main__":
    plant.main()
