"""The machine around the daemon in trouble: its log, disk, descriptors, threads, memory, clock, environment."""

import fcntl
import os
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import termios
import time
import tty

import plant
import requests_plant
import sms_plant

# A mail client that keeps the alarm's row of each mail. It starts no process of its own.
ROW_CLIENT = """#!/bin/sh
while IFS= read -r line; do
    case $line in '<TR><TD>Message '*) printf '%s\\n' "$line" >>"$0.rows" || exit 1 ;; esac
done
"""
F_SETPIPE_SZ = 1031
FILLING = b"-" * 4095 + b"\n"
DROPPED = re.compile(r"(\d+) lines of the log dropped").fullmatch
SYSTEM_LOG = "/dev/log"
WALK = "--> Check Re-Send Queue"
YEAR_2040 = 2208988800  # in seconds since the epoch, more than 31 bits hold

# Becomes the daemon with all signals blocked, and those that matter to it ignored.
DEAF_PARENT = """
import os, signal, sys
for number in (signal.SIGTERM, signal.SIGINT, signal.SIGUSR1, signal.SIGCHLD, signal.SIGPIPE):
    signal.signal(number, signal.SIG_IGN)
signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
os.execv(sys.argv[1], sys.argv[1:])
"""

NOT_SENT = re.compile(r"Mail client .* (cannot be started: .*|ended with status \d+)").fullmatch


class Member:
    """One of several daemons that ask the same server, each with a mail client of its own."""

    def __init__(self, test, name, wrapper=(), script="", arguments=(), env=None):
        self.name = name
        self.client = test.path(name, plant.CLIENT_PATH)
        test.write(self.client, ROW_CLIENT + script)
        os.chmod(self.client, 0o755)
        test.write(name + ".conf", "pFolder %s\nhttps_port %d\nbinFolder %s\n"
                   % (test.project_folder, test.https_port, test.path(name)))
        self.daemon = test.start_daemon("-c", test.path(name + ".conf"), "-m", test.path("msmtp.conf"), *arguments,
                                        env=env, wrapper=wrapper)

    def rows(self):
        try:
            with open(self.client + ".rows") as file:
                return file.read().splitlines()
        except FileNotFoundError:
            return []

    def mailed(self):
        """The alarms mailed so far, in order."""
        return [int(re.match(r"<TR><TD>Message (\d+)</TD>", row).group(1)) for row in self.rows()]

    def wait_mailed(self, count):
        plant.wait_for(lambda: len(self.mailed()) >= count, "%d mails of %s" % (count, self.name),
                       detail=lambda: "%r\n%s\n%s" % (self.mailed(), self.daemon.out.text()[-3000:],
                                                      self.daemon.err.text()[-3000:]))


class MachineTest(requests_plant.RequestTest):
    """Base of the tests: alarms 1 to 99 are mailed to one user each."""

    def setUp(self):
        super().setUp()
        self.members = []
        self.given = []
        self.configure()
        self.settings(modemPort="")
        self.project(cas=[dict(sms_plant.definition(number, [1], email=True), messageLangs={})
                          for number in range(1, 100)], users=plant.SMALL_USERS)

    def member(self, name, *shell, **options):
        """Starts a daemon; shell is a line of the shell in which "$@" is the daemon."""
        wrapper = ["/bin/sh", "-c", shell[0], "sh"] if shell else options.pop("wrapper", ())
        self.members.append(Member(self, name, wrapper, **options))
        return self.members[-1]

    def alarms(self, count):
        """The server gives so many more alarms."""
        for _ in range(count):
            self.given.append(len(self.given) + 1)
            self.sim.alarm(self.given[-1])

    def connected(self, daemon):
        """Whether the daemon is connected to the server, as it is from its first poll on."""
        with open("/proc/net/tcp") as file:
            lines = [line.split() for line in file.readlines()[1:]]
        to_server = {"socket:[%s]" % line[9] for line in lines
                     if line[3] == "01" and line[2].endswith(":%04X" % self.https_port)}
        return not to_server.isdisjoint(descriptors(daemon))

    def wait_all_polled(self):
        for member in self.members:
            plant.wait_for(lambda: self.connected(member.daemon), "the first poll of " + member.name,
                           detail=member.daemon.err.text)

    def wait_mailed(self):
        for member in self.members:
            member.wait_mailed(len(self.given))

    def assert_each_mailed_once(self):
        for member in self.members:
            self.assertEqual(sorted(member.mailed()), self.given, member.name)

    def assert_members_stop(self):
        for member in self.members:
            self.assertEqual(member.daemon.stop()[0], 0, member.name + member.daemon.err.text()[-4000:])


def descriptors(daemon):
    """What the daemon's descriptors are."""
    folder = "/proc/%d/fd" % daemon.pid
    found = []
    for number in os.listdir(folder):
        try:
            found.append(os.readlink(os.path.join(folder, number)))
        except FileNotFoundError:
            pass  # closed in between
    return found


class Log(MachineTest):
    def test_an_output_that_is_full_or_gone_costs_no_mail(self):
        self.start_sim()
        log = self.path("disk", "log")
        os.mkdir(self.path("disk"))
        if subprocess.run(["mount", "-n", "-t", "tmpfs", "-o", "size=8k", "log", self.path("disk")]).returncode != 0:
            self.skipTest("no small disk can be had")
        self.addCleanup(subprocess.run, ["umount", "-n", "-l", self.path("disk")])
        os.mkfifo(self.path("pipe"))
        reader = os.open(self.path("pipe"), os.O_RDONLY | os.O_NONBLOCK)
        self.member("device", 'exec "$@" >/dev/full 2>/dev/full')
        self.member("closed", 'exec "$@" >&- 2>&-')
        self.member("reader", 'exec "$@" >"%s" 2>&1' % self.path("pipe"))
        self.member("full", 'exec "$@" >>"%s" 2>&1' % log)
        self.wait_all_polled()
        self.alarms(3)
        self.wait_mailed()
        os.close(reader)
        self.assertEqual(os.stat(log).st_size, 8192)
        self.alarms(3)
        self.wait_mailed()
        # Somebody makes room: the log goes on.
        os.truncate(log, 0)
        plant.wait_for(lambda: os.stat(log).st_size > 0, "new lines in the log")
        self.assert_members_stop()
        self.assert_each_mailed_once()
        with open(log) as file:
            self.assertIn("Interrupt signal (15) received.", file.read().splitlines())

    def full_pipe(self):
        """A pipe that is full and that nobody reads: its path and its reading end."""
        path = self.path("pipe")
        os.mkfifo(path)
        reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        fcntl.fcntl(reader, F_SETPIPE_SZ, len(FILLING))
        with open(path, "wb", buffering=0) as writer:
            self.assertEqual(writer.write(FILLING), len(FILLING))
        return path, reader

    def start_into(self, path, client=""):
        """Server, modem and a daemon that writes all of its log to path; alarm 14 is told by mail and SMS. client: what
        the mail client does besides."""
        self.start_server()
        self.start_modem()
        self.settings()
        self.project(cas=[sms_plant.definition(14, [2], email=True)], users=sms_plant.USERS)
        self.fake_client(client)
        self.daemon = self.start_daemon(wrapper=["/bin/sh", "-c", 'exec "$@" >"%s" 2>&1' % path, "sh"])
        self.sim.wait_polls(1)

    def tell(self, state, count, text):
        """Alarm 14 changes, which makes so many mails in all, and one SMS."""
        self.sim.alarm(14, state)
        self.client.wait_runs(count)
        self.wait_sms((sms_plant.EVE, text))

    def read_on(self, reader):
        os.set_blocking(reader, True)
        return plant.Output(open(os.dup(reader), "rb"))

    def assert_goes_on(self, log, before):
        """Behind the text before, the log goes on with the number of lost lines, and by whole lines."""
        number, line = log.wait(DROPPED), log.wait("Interrupt signal (15) received.")
        self.assertLess(number, line)
        log.wait("Koncim Vlakno mail.........")
        lost, = DROPPED(number[1]).groups()
        self.assertGreater(int(lost), 20)
        self.assertTrue(log.text().startswith(before + number[1] + "\n"), log.text()[:6000])
        for text in log.texts():
            if "-->Thread" in text:
                self.assertRegex(text, r"^(\x1b\[0;0;3[12]m-->Thread (mail|sms) .*|\t-->Thread sms: .*)$")

    def test_a_log_that_is_not_read_for_a_while_costs_no_mail(self):
        path, reader = self.full_pipe()
        self.start_into(path)
        self.tell("activated", 1, "(ACT) Message 14 /ack:14")
        log = self.read_on(reader)
        log.wait(DROPPED)
        self.tell("deactivated", 2, "(DEA) Message 14")
        log.wait(sms_plant.SEND_OK)
        self.assert_stops()
        self.assert_goes_on(log, FILLING.decode())
        self.assertEqual((self.client.runs(), len(self.modem.sms())), (2, 2))

    def test_a_log_that_is_not_read_does_not_hold_the_stop(self):
        path, reader = self.full_pipe()
        self.start_into(path)
        self.tell("activated", 1, "(ACT) Message 14 /ack:14")
        self.assert_stops()
        self.assertEqual(os.read(reader, 65536), FILLING)

    def test_a_client_that_complains_into_a_log_that_is_not_read_costs_no_mail(self):
        path, reader = self.full_pipe()
        self.start_into(path, "echo 'the relay refuses'; echo 'the relay refuses' >&2; exit 69")
        self.tell("activated", 1, "(ACT) Message 14 /ack:14")
        self.tell("deactivated", 2, "(DEA) Message 14")
        self.assert_stops()
        self.assertEqual(os.read(reader, 65536), FILLING)

    def test_a_terminal_that_was_stopped_costs_no_mail(self):
        terminal, own = os.openpty()
        self.addCleanup(os.close, terminal)
        tty.setraw(own)
        termios.tcflow(own, termios.TCOOFF)
        self.start_into(os.ttyname(own))
        self.tell("activated", 1, "(ACT) Message 14 /ack:14")
        termios.tcflow(own, termios.TCOON)
        log = self.read_on(terminal)
        log.wait(DROPPED)
        termios.tcflow(own, termios.TCOOFF)
        self.tell("deactivated", 2, "(DEA) Message 14")
        termios.tcflow(own, termios.TCOON)
        log.wait(DROPPED, 2)
        self.assert_stops()
        self.assert_goes_on(log, "")
        os.close(own)

    def test_errors_that_are_not_read_cost_no_mail_and_are_counted(self):
        path, reader = self.full_pipe()
        member = self.member("errors", 'exec "$@" 2>"%s"' % path)
        member.daemon.out.wait(WALK)  # behind the first poll, which has failed
        self.start_sim()
        self.sim.wait_polls(2)
        self.alarms(3)
        self.wait_mailed()
        errors = self.read_on(reader)
        # No further error is needed for it.
        errors.wait(DROPPED)
        self.assert_members_stop()
        self.assert_each_mailed_once()
        filling, number, end = errors.texts()
        self.assertEqual(filling + "\n", FILLING.decode())
        self.assertGreater(int(DROPPED(number).group(1)), 0)
        self.assertEqual(end, "alarmd: stopping with 3 SMS queue entries unsent")

    def test_a_system_log_that_nobody_reads_costs_no_message(self):
        if os.environ.get("KORVATO_WORLD") != "private":
            self.skipTest("the system log is the machine's")
        if os.path.lexists(SYSTEM_LOG):
            os.unlink(SYSTEM_LOG)
        self.start_sim()
        with socket.socket() as taken, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
            log.bind(SYSTEM_LOG)
            log.settimeout(plant.PATIENCE)
            self.fill(SYSTEM_LOG)
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            self.settings(tcp_port=taken.getsockname()[1])
            self.project(cas=[sms_plant.definition(14, [2], email=True)], users=sms_plant.USERS)
            client = self.fake_client()
            self.daemon = self.start_daemon()
            self.daemon.out.wait("Problem s pojmenovanim soketu.")
            self.daemon.out.wait("INFO: Can't open modem port.")
            # Read again, it gets lines again.
            while b" comcontrol: DBG: OpenPort: Unable to open/dev/ttyModem2" not in log.recv(1000):
                pass
            self.fill(SYSTEM_LOG)
            self.start_modem()
            self.wait_initialised()
            self.sim.alarm(14)
            self.wait_sms((sms_plant.EVE, "(ACT) Message 14 /ack:14"))
            client.wait_runs(1)
            self.assert_stops(plant.PATIENCE)
            self.assertEqual(len(self.modem.sms()), 1)

    @staticmethod
    def fill(path):
        """Sends to a datagram socket until it takes no more."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            sender.connect(path)
            try:
                while True:
                    sender.send(b"filled")
            except BlockingIOError:
                pass


class Descriptors(MachineTest):
    def test_too_few_from_the_start_are_told_and_more_of_them_heal_it(self):
        self.start_sim()
        for limit in (20, 12, 10, 8, 7):
            self.member("of%d" % limit, wrapper=["prlimit", "--nofile=%d:1024" % limit])
            self.wait_all_polled()  # one by one: the first one is to have the responder's port
        self.alarms(3)
        # What is not mailed is told, mail by mail.
        for member in self.members:
            plant.wait_for(lambda: len(member.mailed()) + member.daemon.err.count(NOT_SENT) == 3, member.name,
                           detail=lambda: "%r\n%s" % (member.mailed(), member.daemon.err.text()))
        self.assertEqual([member.mailed() for member in self.members[:2]], [[1, 2, 3]] * 2)
        self.assertEqual(self.members[-1].mailed(), [])
        before = {member: set(member.mailed()) for member in self.members}
        for member in self.members:
            resource.prlimit(member.daemon.pid, resource.RLIMIT_NOFILE, (1024, 1024))
        self.alarms(3)
        for member in self.members:
            plant.wait_for(lambda: set(member.mailed()) >= {4, 5, 6}, member.name)
        self.assert_members_stop()
        for member in self.members:
            self.assertEqual(sorted(member.mailed()), sorted(before[member] | {4, 5, 6}), member.name)

    def test_used_up_by_silent_clients_and_given_back(self):
        tcp_port = plant.free_port()
        self.settings(modemPort="", tcp_port=tcp_port, tcp_timeout=300)
        self.start_sim()
        member = self.member("one", wrapper=["prlimit", "--nofile=40:1024"])
        daemon = member.daemon
        self.wait_all_polled()
        plant.wait_for(lambda: ("0100007F", tcp_port) in requests_plant.listening(), "the TCP port")
        # The listening side keeps some more waiting.
        silent = [requests_plant.TcpClient(tcp_port) for _ in range(40 - len(descriptors(daemon)) + 2)]
        daemon.err.wait("Accept mainSocket failed: Too many open files")
        self.assertEqual(len(descriptors(daemon)), 40)
        self.alarms(3)
        with requests_plant.FcgiClient() as waiting:
            waiting.send(requests_plant.records(requests_plant.request(55)))
            daemon.err.wait(NOT_SENT, 3)
            before = plant.processor_seconds(daemon.pid)
            self.sim.wait_polls(1)
            self.assertLess(plant.processor_seconds(daemon.pid) - before, 2)
            for client in silent:
                client.socket.close()
            self.assertEqual(waiting.answer(), b"\n" + requests_plant.DISABLED)
        self.assertEqual(requests_plant.ask(requests_plant.request(56)), b"\n" + requests_plant.ENABLED)
        with requests_plant.TcpClient(tcp_port) as client:
            client.ask(requests_plant.request(54), requests_plant.NOT_READY)
        self.alarms(3)
        member.wait_mailed(3)
        self.assert_members_stop()
        self.assertEqual(member.mailed(), [4, 5, 6])
        self.assertEqual(daemon.err.count(plant.starting("Accept mainSocket failed")), 1)


class Processes(MachineTest):
    def setUp(self):
        super().setUp()
        # A user of the test's own: the limit counts all processes of a user. Root has none.
        self.user = str(random.SystemRandom().randrange(200000, 4000000))
        self.as_user = ["setpriv", "--reuid", self.user, "--regid", self.user, "--clear-groups", "--"]
        if subprocess.run([*self.as_user, "true"], stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("another user cannot be had")
        for name in (".", "one", "one/ext", "one/ext/msmtp"):
            os.makedirs(self.path(name), exist_ok=True)
            os.chmod(self.path(name), 0o777)
        # To be found by a user who may not look into the folder that this one was built in.
        shutil.copy(plant.ALARMD, self.path("alarmd"))

    def limited(self, daemon, limit):
        subprocess.run([*self.as_user, "prlimit", "--pid", str(daemon.pid), "--nproc=%d:" % limit], check=True)

    def start_as_user(self, *more):
        return self.member("one", wrapper=[*self.as_user, *more, "/bin/sh", "-c", 'shift; exec "%s" "$@"'
                                           % self.path("alarmd"), "sh"])

    def test_a_worker_that_cannot_be_made_is_told_and_waited_for(self):
        self.start_sim()
        member = self.start_as_user("prlimit", "--nproc=3:")
        daemon = member.daemon
        daemon.err.wait("Thread3::start failed creating thread!")
        daemon.err.wait(": Resource temporarily unavailable")
        daemon.signal(signal.SIGTERM)
        daemon.out.wait("Interrupt signal (15) received.")
        self.limited(daemon, 1000)
        time.sleep(1)
        self.assertTrue(daemon.running())
        daemon.signal(signal.SIGKILL)
        self.assertEqual(daemon.wait_exit(), -signal.SIGKILL)

    def test_clients_that_cannot_be_made_are_told_and_the_next_ones_are_made(self):
        tcp_port = plant.free_port()
        self.settings(modemPort="", tcp_port=tcp_port)
        self.start_sim()
        member = self.start_as_user()
        daemon = member.daemon
        self.wait_all_polled()
        plant.wait_for(lambda: ("0100007F", tcp_port) in requests_plant.listening(), "the TCP port")
        self.alarms(1)
        member.wait_mailed(1)
        self.limited(daemon, len(os.listdir("/proc/%d/task" % daemon.pid)))
        with requests_plant.TcpClient(tcp_port) as client:
            self.assertIsNotNone(client.closed_within(plant.PATIENCE))
        daemon.err.wait("ClientThread failed creating thread: Resource temporarily unavailable")
        self.alarms(3)
        daemon.err.wait(lambda line: line.endswith(" cannot be started: Resource temporarily unavailable"), 3)
        self.limited(daemon, 1000)
        with requests_plant.TcpClient(tcp_port) as client:
            self.assertEqual(client.ask(requests_plant.request(54), requests_plant.NOT_READY),
                             requests_plant.NOT_READY)
        self.alarms(3)
        member.wait_mailed(4)
        self.assert_members_stop()
        self.assertEqual(member.mailed(), [1, 5, 6, 7])
        self.assertEqual(daemon.err.count(NOT_SENT), 3)


class Memory(MachineTest):
    def start(self, *lengths, env=None):
        """A daemon whose first polls get answers of so many bytes."""
        def answer(n, request):
            return plant.http_answer(b'{"d": [], "x": "%s"}' % (b"y" * lengths[n]) if n < len(lengths) else "{}")

        self.start_answers(answer)
        return self.member("one", env=env).daemon

    def test_an_answer_beyond_all_measure_is_told_and_dropped(self):
        daemon = self.start(256 << 20)
        daemon.err.wait("history answer of more than 16777216 bytes dropped")
        daemon.out.wait("JSON : {}")
        if not plant.sanitized():
            self.assertLess(plant.memory(daemon.pid, "VmHWM"), 100 << 10)

    def test_without_memory_it_ends_with_a_line_and_sigabrt(self):
        if plant.sanitized():
            self.skipTest("a sanitizer needs more address space than can be limited")
        # The threads' own heaps would have room for an answer, though not for several.
        daemon = self.start(0, 15 << 20, env={**os.environ, "MALLOC_ARENA_MAX": "1"})
        daemon.out.wait(plant.starting("JSON : "))
        size = plant.memory(daemon.pid, "VmSize") << 10
        resource.prlimit(daemon.pid, resource.RLIMIT_AS, (size + (16 << 20),) * 2)
        self.assertEqual(daemon.wait_exit(), -signal.SIGABRT)
        self.assertIn("std::bad_alloc", daemon.err.text())


class Clock(MachineTest):
    def setUp(self):
        super().setUp()
        self.clock = self.fake_clock()

    def test_jumps_neither_lose_nor_double_a_mail(self):
        self.start_sim()
        member = self.member("one", env=self.clock)
        self.wait_all_polled()
        self.set_clock(-86400)
        self.alarms(2)
        member.wait_mailed(2)
        # For a clock a day ahead an alarm of now is a day old. The server's clock is ahead too for one alarm.
        self.set_clock(86400 + 60)
        ahead = int(time.time()) + 3600
        self.alarms(1)
        self.sim.alarm(10, time=[ahead, 0])
        member.wait_mailed(3)
        # One by the mail thread. Nobody takes the SMS, and three of them are a day old, too.
        too_old = plant.starting("ALARM TIMEOUT !!! (")
        member.daemon.out.wait(too_old, count=4)
        # Until that has caught up with it, its alarms are older than the last one.
        self.set_clock(0)
        self.sim.alarm(11)
        self.sim.wait_polls(2)
        self.sim.alarm(12, time=[ahead + 1, 0])
        member.wait_mailed(4)
        self.assert_members_stop()
        self.assertEqual(member.mailed(), [1, 2, 10, 12])
        self.assertEqual(member.daemon.out.count(too_old), 4)

    def start_sms(self, **settings):
        self.start_server()
        self.start_modem()
        self.settings(**settings)
        self.project(cas=sms_plant.CAS, users=sms_plant.USERS)
        self.fake_client()
        self.daemon = self.start_daemon(env=self.clock)
        self.wait_initialised()

    def test_set_back_the_walk_the_minute_and_the_reading_wait_for_it_and_the_rest_goes_on(self):
        self.start_sms(smspeermin=0, resend_enable=1)
        log = self.daemon.out
        self.sim.alarm(14)
        first = (sms_plant.EVE, "(ACT) Message 14 /ack:14")
        self.wait_sms(first)
        # The next reading is behind the drain, and fixes the time of the one that follows.
        log.wait(sms_plant.READING, log.count(sms_plant.READING) + 1)
        log.wait(plant.starting("\tCtu SMS cislo: "), log.count(sms_plant.READING))
        with requests_plant.FcgiClient() as silent:
            self.set_clock(-3600)
            self.sim.alarm(14, "deactivated")
            log.wait(sms_plant.EXCEEDED)
            counts = log.count(WALK), log.count(sms_plant.READING)
            log.wait(sms_plant.EXCEEDED, log.count(sms_plant.EXCEEDED) + 2)
            self.sim.wait_polls(2)
            self.assertEqual((log.count(WALK), log.count(sms_plant.READING)), counts)
            self.assertEqual(self.modem.sms(), [first])
            self.assertEqual(silent.socket.recv(1), b"")  # its 10 s are none of the time of day
        self.set_clock(61)
        second = (sms_plant.EVE, "(DEA) Message 14")
        self.wait_sms(second)
        log.wait(WALK, counts[0] + 1)
        log.wait(sms_plant.READING, counts[1] + 1)
        self.assert_stops()
        self.assertEqual(self.modem.sms(), [first, second])

    def test_after_2038_alarms_make_their_mails_and_sms_and_move_the_start_point(self):
        ahead = YEAR_2040 - int(time.time())
        self.set_clock(ahead)
        self.start_sms(resend_enable=1)
        moment = int(time.time()) + ahead
        self.sim.alarm(13, time=[moment, 5])
        self.wait_sms((sms_plant.JAN, "(ACT) Zpráva 13 /ack:13"), (sms_plant.GRETA, "(ACT) Meldung 13 /ack:13"),
                      (sms_plant.EVE, "(ACT) Message 13 /ack:13"))
        self.client.wait_runs(3)
        shown = time.strftime("%a %b %e %H:%M:%S %Y", time.localtime(moment))
        self.assertEqual([plant.Mail(self.client.input(n)).row()["ACT TIME"] for n in range(3)], 3 * [shown])
        log = self.daemon.out
        log.wait(plant.starting("atm: %d.5(" % moment))
        _, walked = log.wait(plant.starting("| 13\t|"))
        self.assertIn(int(walked.split("|")[2]) - moment, range(600))
        # The next poll begins behind the alarm, so that nothing comes twice.
        self.sim.wait_polls(2)
        self.assertEqual(self.sim.polls()[-1]["body"], "t=30&prj=7&start=%d.6&limit=10000" % moment)
        self.sim.alarm(13, "deactivated", time=[moment + 1, 0])
        log.wait(plant.starting("dtm: %d.0(" % (moment + 1)))
        self.client.wait_runs(6)
        self.assert_stops()
        self.assertEqual(self.client.runs(), 6)
        self.assertEqual(log.count(plant.starting("ALARM TIMEOUT")), 0)

    def test_set_back_in_a_wait_for_the_modem_it_ends_in_time(self):
        self.start_sms()
        self.modem.modem("reply", to="AT+CMGD", text="")
        self.modem.wait_received(sms_plant.CLEAR)
        self.set_clock(-86400)
        begins = lambda line: "-->Thread sms (queue:" in line
        self.daemon.out.wait(begins, self.daemon.out.count(begins) + 2)
        self.assert_stops()


class Environment(MachineTest):
    def test_zone_and_locale_of_the_mails(self):
        self.start_sim()
        zones = {"east": "Asia/Kathmandu", "west": "America/St_Johns", "nowhere": "Mars/Phobos"}
        for name, zone in zones.items():
            self.member(name, env={**os.environ, "TZ": zone, "LC_ALL": "cs_CZ.UTF-8", "LANGUAGE": "cs"})
        self.wait_all_polled()
        now = int(time.time()) + 1
        self.sim.alarm(1, time=[now, 0])
        for member, zone in zip(self.members, zones.values()):
            member.wait_mailed(1)
            date = subprocess.run(["date", "-d", "@%d" % now, "+%a %b %e %T %Y"], capture_output=True, text=True,
                                  env={"TZ": zone, "LC_ALL": "C"}).stdout.strip()
            self.assertIn("<TD>%s</TD><TD>-</TD><TD>-</TD>" % date, member.rows()[0])
        self.assert_members_stop()

    def test_folders_variables_and_signals_of_the_parent(self):
        self.start_sim()
        gone = self.path("gone")
        os.mkdir(gone)
        self.member("bare", 'cd "%s" && rmdir "%s" && exec env -i LD_BIND_NOW=1 "$@"' % (gone, gone))
        signals = self.member("signals", wrapper=[plant.PYTHON, "-c", DEAF_PARENT], script="exit 3\n")
        self.wait_all_polled()
        self.alarms(2)
        self.wait_mailed()
        signals.daemon.err.wait(lambda line: line.endswith(" ended with status 3"), 2)
        self.assert_members_stop()
        self.assert_each_mailed_once()


if __name__ == "__main__":
    plant.main()
