"""A mail client that fails: each mail is handed over exactly once, and the rest of the daemon goes on.

A mail that the client did not take is not sent again; standard error tells of it.
"""

import os
import signal
import time

from aiosmtpd.controller import Controller

import faults_plant
import plant
import requests_plant
import sms_plant
from faults_plant import FIRST, USER, message

STOP_LIMIT = 15
CLIENT = plant.CLIENT_PATH

# The n-th run, from 0, is one line in the file .runs and then what part n of the script does.
COUNTING = """#!/bin/sh
n=$(cat "$0.runs" 2>/dev/null | wc -l)
echo run >>"$0.runs"
take() { cat >"$0.stdin.$n.part"; mv "$0.stdin.$n.part" "$0.stdin.$n"; }
case $n in
"""

# More than a pipe takes at once, so that a client which does not read makes the daemon wait.
MANY = ",".join("recipient.%05d@plant.example" % n for n in range(3500))

CRASHES = [
    # What the client does at its n-th run, what is told of it.
    ("takes it and ends with status 1", "take; exit 1", "status 1"),
    ("is killed by a fault of its own", "take; kill -SEGV $$", "signal 11"),
    ("is killed while it reads", "head -c 70000 >/dev/null; kill -KILL $$", "signal 9"),
    ("ends without reading", "exit 0", None),
    ("closes its input at once and works on", "exec <&-; sleep 1; exit 0", None),
    ("writes 10 MB to standard output", "take; yes 'what the client says' | head -c 10000000; echo", None),
    ("writes 10 MB to standard error", "take; yes 'what the client complains' | head -c 10000000 >&2; echo >&2", None),
    ("reads slowly", "for i in 1 2 3 4; do head -c 20000; sleep 0.5; done >\"$0.stdin.$n.part\"\n"
                     "  cat >>\"$0.stdin.$n.part\"; mv \"$0.stdin.$n.part\" \"$0.stdin.$n\"", None),
    ("leaves a child that keeps the pipes", "sleep 1000 <&0 & echo $! >\"$0.child\"; take", None),
    ("works", "take", None),
]


def part(n, commands):
    return "%d) %s ;;\n" % (n, commands)


class MailFaultTest(faults_plant.FaultTest):
    def start(self, count, users=None, **settings):
        """Server and daemon, until the first poll is answered."""
        self.start_server()
        self.start_daemon_for(count, users, **{"modemPort": "", **settings})
        self.sim.wait_polls(1)

    def happen(self, numbers, ahead=1):
        """These alarms become active, so that one answer brings all of them."""
        moment = int(time.time()) + ahead
        for micro, number in enumerate(numbers):
            self.sim.alarm(number, time=[moment, micro])

    def write_client(self, script):
        """The client is replaced in one step, or put there."""
        os.chmod(self.write("client.new", script), 0o755)
        os.makedirs(os.path.dirname(self.path(CLIENT)), exist_ok=True)
        os.rename(self.path("client.new"), self.path(CLIENT))

    def runs(self):
        """How often the client was started."""
        if not os.path.exists(self.path(CLIENT + ".runs")):
            return 0
        with open(self.path(CLIENT + ".runs")) as file:
            return len(file.readlines())

    def inputs(self):
        """The messages of the mails that were taken whole, by number of the run."""
        found = {}
        for name in os.listdir(self.path(os.path.dirname(CLIENT))):
            number = name.rpartition(".stdin.")[2]
            if number.isdigit() and number != name:
                with open(self.path(os.path.dirname(CLIENT), name), "rb") as file:
                    found[int(number)] = plant.Mail(file.read()).row()["MESSAGE"]
        return found

    def sent(self):
        return self.daemon.out.count("-> Odeslan")

    def wait_sent(self, count, limit=plant.PATIENCE):
        self.daemon.out.wait("-> Odeslan", count, limit)

    def told(self, count):
        """What standard error tells of the client and of mails, so many lines."""
        of_mails = lambda line: line.startswith("Mail client ") or "mails" in line
        if count:
            self.daemon.err.wait(of_mails, count)
        lines = [line for line in self.daemon.err.texts() if of_mails(line)]
        self.assertEqual(len(lines), count, lines)
        return lines

    def assert_goes_on(self):
        """Polls go on, and so do the requests."""
        self.sim.wait_polls(2)
        self.assertEqual(requests_plant.ask(requests_plant.request(56)), b"\n" + requests_plant.ENABLED)


class Clients(MailFaultTest):
    def test_clients_that_cannot_be_started(self):
        working = COUNTING + "*) take ;;\nesac\n"
        self.start(4)

        def replace(kind):
            if os.path.lexists(self.path(CLIENT)):
                os.unlink(self.path(CLIENT))
            if kind != "missing":
                self.write_client("#!/no/such/interpreter\n" if kind == "of no interpreter" else working)
                if kind == "not executable":
                    os.chmod(self.path(CLIENT), 0o644)

        kinds = ["missing", "not executable", "of no interpreter"]
        for n, kind in enumerate(kinds):
            replace(kind)
            self.sim.alarm(FIRST + n)
            self.wait_sent(n + 1)
            self.assertIn(self.path(CLIENT) + " cannot be started: ", self.told(n + 1)[-1], kind)
        self.write_client(working)
        self.sim.alarm(FIRST + 3)
        self.wait_sent(4)
        self.wait_idle()
        self.assertEqual((self.runs(), self.inputs()), (1, {0: message(FIRST + 3)}))
        self.assertEqual((self.sent(), len(self.told(3))), (4, 3))

    def test_clients_that_crash_or_do_not_read(self):
        count = len(CRASHES)
        script = COUNTING + "".join(part(n, does) for n, (_, does, _) in enumerate(CRASHES)) + "esac\n"
        self.write_client(script)
        self.start(count, users=[{**USER, "mail": MANY}])
        self.happen(range(FIRST, FIRST + count))
        self.wait_sent(count)
        self.end_child()
        self.wait_idle()
        self.assert_goes_on()
        self.assertEqual((self.runs(), self.sent()), (count, count))
        self.assertEqual(self.daemon.out.count(faults_plant.QUEUED_FOR_MAIL), count)
        expected = {n: message(FIRST + n) for n, (_, does, _) in enumerate(CRASHES) if "stdin" in does or "take" in does}
        self.assertEqual(self.inputs(), expected)
        told = [how for _, _, how in CRASHES if how]
        for line, how in zip(self.told(len(told)), told):
            self.assertTrue(line.endswith(how), line)
        self.assertGreater(len(self.daemon.out.text()), 10000000)
        self.assertGreater(len(self.daemon.err.text()), 10000000)
        print("%d mails, %d started, %d taken whole, %d told as failed" % (
            count, self.runs(), len(self.inputs()), len(told)))

    def end_child(self):
        """The child that was left is not waited for by anybody: it must still be there."""
        with open(self.path(CLIENT + ".child")) as file:
            os.kill(int(file.read()), signal.SIGKILL)

    def test_mails_wait_while_the_client_hangs_and_go_out_once(self):
        gate = "while [ ! -e %s ]; do sleep 0.2; done; " % self.path("gate")
        self.write_client(COUNTING + part(0, gate + "take") + "*) take ;;\nesac\n")
        self.start_modem()
        self.start(3, modemPort=sms_plant.MODEM_PORT)
        self.wait_initialised()
        self.happen(range(FIRST, FIRST + 2))
        plant.wait_for(self.runs, "the client")
        self.sim.wait_polls(1)
        self.sim.alarm(FIRST + 2)
        self.wait_sms(*((sms_plant.EVE, "(ACT) %s /ack:%d" % (message(n), n)) for n in range(FIRST, FIRST + 3)))
        self.assert_goes_on()
        self.assertEqual((self.runs(), self.sent(), self.inputs()), (1, 0, {}))
        self.write("gate", "")
        self.wait_sent(3)
        self.wait_idle()
        self.assertEqual((self.runs(), self.inputs()), (3, {n: message(FIRST + n) for n in range(3)}))
        self.assertEqual(len(self.modem.sms()), 3)
        self.told(0)


class Stop(MailFaultTest):
    def stop_at(self, run, script, count=5, speed=1):
        """Asks the daemon to stop when the client has been started so often, with this many mails in the queue. Returns
        when that was, and how many times as fast the daemon's clock runs: speed, or 1 where it cannot be turned."""
        self.write_client(script)
        env, speed = plant.fast_clock(speed) if speed > 1 else (None, 1)
        self.start(count, env=env)
        self.happen(range(FIRST, FIRST + count), plant.AHEAD)
        plant.wait_for(lambda: self.runs() >= run, "the client")
        begin = time.monotonic()
        self.daemon.signal(signal.SIGTERM)
        return begin, speed

    def assert_ends(self, begin, limit):
        self.assertEqual(self.daemon.wait_exit(limit + plant.PATIENCE), 0, self.daemon.err.text()[-4000:])
        self.assertLess(time.monotonic() - begin, limit)

    def test_a_stop_while_mails_go_out_sends_them_all_once(self):
        begin, _ = self.stop_at(2, COUNTING + "*) sleep 0.5; take ;;\nesac\n")
        self.assert_ends(begin, STOP_LIMIT)
        self.assertEqual((self.runs(), self.inputs()), (5, {n: message(FIRST + n) for n in range(5)}))
        self.told(0)

    def test_a_stop_waits_for_slow_clients_and_sends_what_is_behind_them(self):
        gate = "while [ ! -e \"$0.gate.$n\" ]; do sleep 0.2; done; take"
        _, speed = self.stop_at(2, COUNTING + part(1, gate) + part(2, gate) + "*) take ;;\nesac\n", speed=5)
        # Together they take longer than one may.
        for n in (1, 2):
            plant.wait_for(lambda: self.runs() > n, "client %d" % n)
            time.sleep(0.6 * plant.CLIENT_LIMIT / speed)
            self.assertEqual((self.runs(), self.inputs()), (n + 1, {k: message(FIRST + k) for k in range(n)}))
            self.write(CLIENT + ".gate.%d" % n, "")
        self.assert_ends(time.monotonic(), STOP_LIMIT)
        self.assertEqual((self.runs(), self.inputs()), (5, {n: message(FIRST + n) for n in range(5)}))
        self.told(0)

    def test_a_stop_while_the_client_hangs_tells_what_was_not_sent(self):
        begin, speed = self.stop_at(2, COUNTING + part(0, "take") + part(1, "trap '' TERM; while :; do sleep 0.2; done")
                                    + "*) take ;;\nesac\n", speed=10)
        self.assert_ends(begin, plant.CLIENT_LIMIT / speed + STOP_LIMIT)
        took = speed * (self.daemon.err.wait(plant.holding("was ended"))[0] - begin)
        print("The client was ended %.1f s after the request" % took)
        self.assertGreater(took, plant.CLIENT_LIMIT)
        self.assertEqual((self.runs(), self.inputs()), (2, {0: message(FIRST)}))
        self.assertEqual(self.sent(), 2)
        ended, not_sent = self.told(2)
        self.assertIn("was ended", ended)
        self.assertEqual(not_sent, "Stop requested, mails not sent: 3")


class Mailbox:
    """Takes mails, refuses recipients whose name begins with refused, and breaks the connection within the mail of
    those whose name begins with broken."""

    def __init__(self):
        self.mails = []  # (recipient, message of the alarm)

    async def handle_RCPT(self, server, session, envelope, address, options):
        if address.startswith("refused"):
            return "550 no such mailbox"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        if envelope.rcpt_tos[0].startswith("broken"):
            server.transport.abort()
            return "451 broken"
        row = plant.Mail(envelope.content).row()
        self.mails.extend((address, row["MESSAGE"]) for address in envelope.rcpt_tos)
        return "250 OK"


class BehindTheClient(MailFaultTest):
    """The real mail client, and a mail server that goes wrong behind it."""

    def start_smtp(self):
        self.mailbox = Mailbox()
        self.smtp_port = plant.free_port()
        os.makedirs(os.path.dirname(self.path(CLIENT)))
        os.symlink(plant.MSMTP, self.path(CLIENT))
        self.open_smtp()

    def open_smtp(self):
        self.controller = Controller(self.mailbox, hostname="127.0.0.1", port=self.smtp_port)
        self.controller.start()
        self.addCleanup(self.close_smtp)

    def close_smtp(self):
        if self.controller:
            self.controller.stop()
        self.controller = None

    def configure(self, **changes):
        super().configure(**changes)
        self.write("msmtp.conf", "account korvato\nhost 127.0.0.1\nport %d\ntls off\nauth off\n"
                                 "from alarms@plant.example\n" % self.smtp_port)

    def test_a_mail_server_that_is_away_and_comes_back(self):
        self.start_smtp()
        self.start(5)
        self.sim.alarm(FIRST)
        self.wait_sent(1)
        self.close_smtp()
        self.happen([FIRST + 1, FIRST + 2])
        self.wait_sent(3)
        self.open_smtp()
        self.happen([FIRST + 3, FIRST + 4])
        self.wait_sent(5)
        self.wait_idle()
        self.assertEqual(self.mailbox.mails, [(USER["mail"], message(FIRST + n)) for n in (0, 3, 4)])
        # No service at hand (EX_UNAVAILABLE) or none for now (EX_TEMPFAIL): msmtp tells why itself.
        self.told(2)
        self.assertIn("cannot connect to 127.0.0.1", self.daemon.err.text())

    def test_recipients_that_are_refused_and_connections_that_break(self):
        addresses = ["first@plant.example", "refused@plant.example", "broken@plant.example",
                     "list@plant.example,refused.too@plant.example", "last@plant.example"]
        users = [{**USER, "id": n, "name": "User %d" % n, "mail": mail} for n, mail in enumerate(addresses)]
        self.start_smtp()
        self.start(2, users=users)
        self.happen([FIRST, FIRST + 1])
        self.wait_sent(10)
        self.wait_idle()
        self.assertEqual(self.mailbox.mails, [(address, message(number)) for number in (FIRST, FIRST + 1)
                                              for address in (addresses[0], addresses[4])])
        self.told(6)
        self.assertEqual(self.daemon.err.text().count("no such mailbox"), 4, self.daemon.err.text())
        self.assert_goes_on()


if __name__ == "__main__":
    plant.main()
