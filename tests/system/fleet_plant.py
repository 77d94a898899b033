"""Several daemons side by side in one world, each in a folder of its own: with its own settings, ports of the modem and
the GPS receiver, mail client and log. And a line that babbles.

The daemon's fixed paths lead through /proc/self/cwd, so each daemon finds the files of its own folder there. All of
them ask one simulated server, unless they are given another one. The first that was started has the FastCGI port.
"""

import collections
import json
import os
import re
import select
import signal
import threading
import time
import tty

import plant
import requests_plant
import sms_plant
from sms_plant import EVE, SEND_FAIL, SEND_OK

GPS_LINK = requests_plant.GPS_PORT
JAN_MAIL = "jan@plant.example"

# Alarms 20 to 29 go to Jan by mail, 30 to 39 to Eve by SMS.
USERS = [{"id": 1, "level": 1, "name": "Jan", "mail": JAN_MAIL, "tel": "", "language": "", "smsControl": False},
         {"id": 2, "level": 2, "name": "Eve", "mail": "eve@plant.example", "tel": EVE, "language": "",
          "smsControl": True}]
CAS = ([sms_plant.definition(n, [1], email=True, smsAct=False, smsDeact=False, smsAck=False) for n in range(20, 30)] +
       [sms_plant.definition(n, [2]) for n in range(30, 40)])

# What a stop may take beyond the daemon's own pauses, on a machine that is busy with other tests.
ALLOWANCE = 15
# The longest way of the SMS thread to its end: the initialisation of a mute modem (3 s, three times 4 s), 1 s, 2 s.
INITIALISATION_PAUSES = 3 + 3 * 4 + 1 + 2

QUIET_CPU = 0.1  # of a processor, at most, for a daemon that has nothing to do, slowed down by a sanitizer
GROWTH = 20000  # kB, at most; a sanitizer keeps what was freed for a while


def sms_text(number):
    return "(ACT) Message %d /ack:%d" % (number, number)


class Babbler:
    """A terminal at a link, whose other side says what babble() gives, for ever and as fast as it is taken."""

    def __init__(self, link, babble):
        self.link, self.babble = link, babble
        self.said = 0  # bytes that were taken
        self._ended = False
        self._master, self._slave = os.openpty()
        tty.setraw(self._slave)
        os.set_blocking(self._master, False)
        os.symlink(os.ttyname(self._slave), link)
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        out = b""
        while not self._ended:
            out = out or self.babble()
            readable, writable, _ = select.select([self._master], [self._master], [], 0.02)
            try:
                if readable:
                    os.read(self._master, 65536)
                if writable:
                    count = os.write(self._master, out[:4096])
                    self.said += count
                    out = out[count:]
            except BlockingIOError:
                pass

    def end(self):
        self._ended = True
        self._thread.join()
        os.close(self._master)
        os.close(self._slave)
        os.unlink(self.link)


OK = b"\r\nOK\r\n"
FOR_EVER = 1000000


class Modem(sms_plant.ModemSim):
    """A simulated modem of one daemon. What it says to the first message can be a test's own: outcome is (whether the
    message is delivered, what the modem says, the mode from then on); what it says is a list of (seconds, bytes), the
    mode is "well", "mute" or "error": says nothing, or ERROR to everything."""

    def __init__(self, link, outcome=None):
        super().__init__(link=link)
        if outcome:
            delivered, answer, mode = outcome
            self.modem("quiet", count=1)
            for seconds, data in answer:
                self.modem("instead", seconds=seconds, hex=data.hex())
            if not delivered:
                self.command(network="refuses", count=1)
            threading.Thread(target=self._become, args=(mode,), daemon=True).start()

    def always(self, reply):
        """From now on this is the answer to everything."""
        self.modem("reply", to="", hex=reply.hex(), times=FOR_EVER)

    def _become(self, mode):
        """The daemon waits for the answer, so the mode is in force before its next command."""
        self.out.wait(sms_plant.event("sms"), limit=2 * plant.PATIENCE)
        if mode == "mute":
            self.modem("mute")
        elif mode == "error":
            self.always(b"\r\nERROR\r\n")

    @property
    def delivered(self):
        """How many times each message, (number, text), has got to its phone."""
        return collections.Counter((sms["number"], sms["text"]) for sms in self.events("sms") if sms["sent"])

    def wait_unplugged(self):
        self.out.wait(sms_plant.event("port", what="unplugged"))

    def plug_again(self):
        self.command(clear="line")
        self.modem("plug")


class Member:
    """One daemon and its folder."""

    def __init__(self, test, name, port, client_script, server_port, settings):
        self.name, self.folder, self.daemon = name, test.path(name), None
        self.env = None  # the test's own
        self.modem_port = port if port is not None else os.path.join(self.folder, "modem")
        keys = {"smsc": sms_plant.CENTRE, "modemPort": self.modem_port, **settings}
        for file, content in (("settings.json", {"network": {"modem": keys}}), ("project/cas.json", CAS),
                              ("project/users.json", USERS), ("project/groups.json", []),
                              ("project/setting.json", {"projectID": "7"}), ("sms.conf", "# nothing\n"),
                              ("korvato.conf", "pFolder %s/project\nhttps_port %d\nbinFolder %s\n" % (
                                  self.folder, server_port, self.folder)),
                              ("msmtp.conf", "from alarms@plant.example\n")):
            test.write(os.path.join(name, file), content)
        self.client = plant.FakeClient(os.path.join(self.folder, plant.CLIENT_PATH), client_script)

    def start(self, test):
        self.daemon = plant.Daemon([plant.ALARMD], cwd=self.folder, env=self.env)
        test.daemons.append(self.daemon)
        test.addCleanup(test._end_daemon, self.daemon)
        return self

    @property
    def out(self):
        return self.daemon.out

    def mails(self):
        """(recipient, message) of each mail so far, with their counts."""
        found = [plant.Mail(self.client.input(n)) for n in range(self.client.runs())]
        return collections.Counter((mail["To"], mail.row()["MESSAGE"]) for mail in found)

    def told_sms(self):
        """(number, text, whether it was sent) of each SMS, as the log tells them."""
        told, begun = [], None
        for line in self.out.texts():
            order = re.fullmatch("Sending ....Number: (.*); Text: (.*)", line)
            if order:
                begun = order.groups()
            elif begun and line in (SEND_OK, SEND_FAIL):
                told.append((*begun, line == SEND_OK))
                begun = None
        return told

    def unsent(self, kind):
        """How many entries of the queue of this kind, mail or SMS, the daemon told as unsent at its stop."""
        return sum(int(line.split()[3]) for line in self.daemon.err.texts()
                   if line.startswith("alarmd: stopping with ") and line.endswith(" %s queue entries unsent" % kind))


class FleetTest(sms_plant.SmsTest):
    """Base of the tests."""

    def setUp(self):
        super().setUp()
        os.symlink("/proc/self/cwd/settings.json", plant.SYSTEM_SETTINGS)
        os.symlink("/proc/self/cwd/gps", GPS_LINK)
        self.addCleanup(os.unlink, GPS_LINK)
        self.members = []

    def add(self, name, port=None, script="", server_port=None, start=True, **settings):
        """A daemon of this name, with the simulated server unless another port is given."""
        if server_port is None and not hasattr(self, "sim"):
            self.start_server()
        member = Member(self, name, port, script, server_port or self.https_port, settings)
        if start:
            self.start_member(member)
        return member

    def start_member(self, member):
        self.members.append(member.start(self))
        return member

    def modem_at(self, path, *outcome):
        """A modem at this path in the test's folder."""
        return self._keep(Modem(self.path(path), *outcome))

    def babbler(self, path, babble):
        return self._keep(Babbler(self.path(path), babble))

    def _keep(self, line):
        self.addCleanup(line.end)
        return line

    def wait_first_polls(self):
        """From then on all changes at the server are new to all daemons."""
        for member in self.members:
            member.out.wait(plant.starting("JSON : "))

    def assert_rest_goes_on(self, mails=(20, 21), burning=()):
        """Polls, mails, requests; without load on processor and memory. Mails are counted exactly."""
        before = {m: (plant.processor_seconds(m.daemon.pid), plant.memory(m.daemon.pid),
                      m.out.count(plant.starting("JSON : "))) for m in self.members}
        begin = time.monotonic()
        known = {m: m.mails() for m in self.members}
        for number in mails:
            self.sim.alarm(number)
            self.assertEqual(requests_plant.ask(requests_plant.request(51))[:14], b'\n{"r":51,"s":1')
        for member in self.members:
            member.client.wait_runs(known[member].total() + len(mails), detail=member.out.text)
        for member in self.members:
            member.out.wait(plant.starting("JSON : "), before[member][2] + 2)
            self.assertEqual(requests_plant.ask(requests_plant.request(51))[:14], b'\n{"r":51,"s":1')
        for member in self.members:
            processor, memory, _ = before[member]
            pid = member.daemon.pid
            load = (plant.processor_seconds(pid) - processor) / (time.monotonic() - begin)
            growth = plant.memory(pid) - memory
            print("%s: %.1f %% of a processor, %+d kB" % (member.name, 100 * load, growth))
            if member not in burning:
                self.assertLess(load, QUIET_CPU, member.name)
            self.assertLess(growth, GROWTH, member.name)
            wanted = known[member] + collections.Counter((JAN_MAIL, "Message %d" % n) for n in mails)
            self.assertEqual(member.mails(), wanted, member.name)

    def assert_ended_well(self, member):
        self.assertEqual(member.daemon.wait_exit(), 0, member.name + ": " + member.daemon.err.text()[-4000:])
        self.assertNotIn("Sanitizer", member.daemon.err.text(), member.name)

    def assert_all_stop(self, limit, number=signal.SIGTERM, members=None):
        """All at once; each ends with status 0 within the limit, and sends no mail that it has already sent."""
        members = self.members if members is None else members
        sent = {member: member.mails() for member in members}
        begin = time.monotonic()
        for member in members:
            member.daemon.signal(number)
        for member in members:
            member.daemon.wait_exit(limit + plant.PATIENCE)
            seconds = time.monotonic() - begin
            print("%s: stopped after %.1f s" % (member.name, seconds))
            self.assert_ended_well(member)
            self.assertLess(seconds, limit, member.name)
            self.assertEqual(member.mails(), sent[member], member.name)
