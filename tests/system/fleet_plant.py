"""Several daemons side by side in one world, each in a folder of its own: with its own settings, ports of the modem and
the GPS receiver, mail client and log. And modems whose every byte the test decides.

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


class Pty:
    """A terminal at a link. Its other side is the test's: answer(command) gives the bytes that follow each carriage
    return, babble(), if set, the bytes that go out for ever and as fast as they are taken."""

    def __init__(self, link, answer=None, babble=None):
        self.link, self.babble, self.received = link, babble, b""
        self.said = 0  # bytes that were taken
        self.unplug_after = None  # bytes; when they have come, the port goes away
        self._answer = answer or (lambda command: b"")
        self._later = []  # (time, bytes)
        self._ended = False
        self._plug()

    def _plug(self):
        self._master, self._slave = os.openpty()
        tty.setraw(self._slave)
        os.set_blocking(self._master, False)
        os.symlink(os.ttyname(self._slave), self.link)
        self._out = self._rest = b""
        self.plugged = True
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def say(self, data, after=0.0):
        self._later.append((time.monotonic() + after, data))

    def _run(self):
        while self.plugged and not self._ended:
            self._collect()
            ways = select.select([self._master], [self._master] if self._out else [], [], 0.02)
            try:
                if ways[0]:
                    self._take(os.read(self._master, 65536))
                    if self.unplug_after and self.unplug_after in self.received:
                        break
                if ways[1]:
                    count = os.write(self._master, self._out[:4096])
                    self.said += count
                    self._out = self._out[count:]
            except BlockingIOError:
                pass
        self.plugged = False  # the program sees an end of the line
        os.close(self._master)
        os.close(self._slave)
        os.unlink(self.link)

    def _collect(self):
        """What is to go out next."""
        now = time.monotonic()
        while self._later and self._later[0][0] <= now:
            self._out += self._later.pop(0)[1]
        if not self._out and self.babble:
            self._out = self.babble()

    def _take(self, data):
        self.received += data
        self._rest += data
        while b"\r" in self._rest:
            command, self._rest = self._rest.split(b"\r", 1)
            self._out += self._answer(command)

    def wait_received(self, wanted, count=1):
        plant.wait_for(lambda: self.received.count(wanted) >= count, "%r on the line" % wanted,
                       detail=lambda: repr(self.received))

    def wait_unplugged(self):
        self._thread.join(plant.PATIENCE)
        if self.plugged:
            raise AssertionError("%r has not come: %r" % (self.unplug_after, self.received))

    def plug_again(self):
        self.unplug_after, self.received = None, b""
        self._plug()

    def end(self):
        self._ended = True
        self._thread.join()


OK = b"\r\nOK\r\n"


def obliging(_):
    """Answers OK to everything; its store is empty."""
    return OK


class PhoneModem(Pty):
    """A modem that keeps the messages it is given. For each of them outcomes has (whether it is delivered, its answer,
    the mode from then on); the answer is a list of (seconds, bytes). When there are no more outcomes, all is well."""

    WELL = (True, [(0, b"\r\n+CMGS: 1\r\n" + OK)], "well")

    def __init__(self, link, *outcomes):
        self.delivered = collections.Counter()  # (number, text)
        self.mode = "well"  # or "mute", "error": says nothing, or ERROR to everything
        self.outcomes = list(outcomes)
        super().__init__(link)

    def _plug(self):
        self._number = None  # of the message whose text is to come
        super()._plug()

    def _take(self, data):
        self.received += data
        self._rest += data
        while True:
            end = b"\x1a" if self._number is not None else b"\r"
            if end not in self._rest:
                return
            piece, self._rest = self._rest.split(end, 1)
            self._reply(piece.strip(b"\0\t\r\n"))

    def _reply(self, piece):
        if self._number is not None:
            delivered, answer, self.mode = self.outcomes.pop(0) if self.outcomes else self.WELL
            if delivered:
                self.delivered[self._number, piece.decode()] += 1
            self._number = None
            for seconds, data in answer:
                self.say(data, seconds)
        elif self.mode == "error":
            self._out += b"\r\nERROR\r\n"
        elif self.mode == "well":
            order = re.fullmatch(rb'at\+CMGS="(.*)"', piece)
            if order:
                self._number = order[1].decode()
            self._out += b"\r\n> " if order else OK


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

    def processor_seconds(self):
        with open("/proc/%d/stat" % self.daemon.pid) as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory(self):
        with open("/proc/%d/status" % self.daemon.pid) as file:
            return next(int(line.split()[1]) for line in file if line.startswith("VmRSS:"))


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

    def pty(self, path, *arguments, **more):
        """A terminal of the test's at this path in the test's folder."""
        return self._keep(Pty(self.path(path), *arguments, **more))

    def phone_modem(self, path, *outcomes):
        return self._keep(PhoneModem(self.path(path), *outcomes))

    def _keep(self, line):
        self.addCleanup(line.end)
        return line

    def wait_first_polls(self):
        """From then on all changes at the server are new to all daemons."""
        for member in self.members:
            member.out.wait(plant.starting("JSON : "))

    def assert_rest_goes_on(self, mails=(20, 21), burning=()):
        """Polls, mails, requests; without load on processor and memory. Mails are counted exactly."""
        before = {m: (m.processor_seconds(), m.memory(), m.out.count(plant.starting("JSON : "))) for m in self.members}
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
            load = (member.processor_seconds() - processor) / (time.monotonic() - begin)
            growth = member.memory() - memory
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
