"""The soak: the daemon among all its peers, with everything that can happen to it in a random mixture, for as long as
is asked for. A model (soak_model.py) works out what must come of it; at the end, and at quiet moments on the way, what
came must be exactly that: each mail once, each SMS as often as it was told, each acknowledge at the server, each request
its answer.

Runs in a private world (scripts/world.sh), started by soak.sh. The seed fixes what is chosen, not when it happens.
"""

import argparse
import collections
import contextlib
import json
import os
import random
import re
import shutil
import signal
import sys
import tempfile
import threading
import time

import counting_plant
import plant
import requests_plant
import sms_plant
import soak_model
import soak_workers

STATUS_RIGHT, STATUS_WRONG = 0, 1
MOST_MAILS_OWED = 3000
MOST_SMS_OWED = 5
SMS_INTERVAL = 8.0  # seconds in the mean between two causes of SMS
SETTLE_LIMIT = 900  # seconds; a queue of SMS that nobody answers is slow
STILL = 1.0  # seconds without anything owed make a quiet moment
LONGEST_READING = 400  # seconds until a phone's message is read: the queue goes first
KNOWN_ERRORS = re.compile(r"curl_easy_perform\(\) failed: |Mail client \S+ ended with status (75|78)$")


class Ended(Exception):
    """The daemon or a peer has ended by itself, or something has gone wrong that makes going on useless."""


class Gate:
    """Lets the workers do their steps, or holds them all between two of them."""

    def __init__(self):
        self._condition = threading.Condition()
        self._holders = self._steps = 0
        self.closed = False

    @contextlib.contextmanager
    def step(self):
        with self._condition:
            while self._holders and not self.closed:
                self._condition.wait()
            self._steps += 1
        try:
            yield
        finally:
            with self._condition:
                self._steps -= 1
                self._condition.notify_all()

    @contextlib.contextmanager
    def held(self):
        with self._condition:
            self._holders += 1
            self._condition.wait_for(lambda: self._steps == 0)
        try:
            yield
        finally:
            with self._condition:
                self._holders -= 1
                self._condition.notify_all()

    def close(self):
        with self._condition:
            self.closed = True
            self._condition.notify_all()


# ---- the plant -----------------------------------------------------------------------------------------------------

class Soak:
    TCP_PORT = 11033

    def __init__(self, seed, folder):
        self.random = random.Random("%s generator" % seed)
        self.sms_random = random.Random("%s SMS" % seed)  # of its own, since workers take from it too
        self.seed, self.folder = seed, folder
        self.project = soak_model.Project()
        self.model = soak_model.Model(self.project)
        self.gate = Gate()
        self.began = time.monotonic()
        self.errors = collections.Counter()  # lines on the daemon's standard error
        self.polled = []  # start points of the polls since the last quiet moment
        self.sending = self.text = None  # what the daemon's log is in the middle of
        self.handed_over = 0  # SMS that the daemon has begun to send
        self.fixes = collections.deque(maxlen=60)  # what the GPS receiver has said, a set a second
        self.bad_gps_until, self.gps_silent = 0.0, False
        self.told_alarms = collections.deque(maxlen=5)  # of late, each the phone and the alarm
        self.phones_rest = False
        self.serial = 0
        self.most_sms_owed, self.next_sms = MOST_SMS_OWED, 0.0
        self.stopping = threading.Event()
        self.programs = []

    # -- start

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, content):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(content if isinstance(content, str) else json.dumps(content, ensure_ascii=False))

    def configure(self, https_port):
        self.write("korvato.conf", "pFolder %s\nhttps_port %d\nbinFolder %s\n" % (
            self.path("project"), https_port, self.folder))
        self.write("msmtp.conf", "from alarms@plant.example\n")
        self.write("sms.conf", "# nothing\n")
        for name, content in (("groups", self.project.groups), ("cas", self.project.cas), ("users", self.project.users),
                              ("setting", {"projectID": self.project.id})):
            self.write("project/%s.json" % name, content)
        modem = {"smsc": sms_plant.CENTRE, "smspeermin": 20, "resend_enable": 1, "gps_enable": True,
                 "tcp_port": self.TCP_PORT, "tcp_timeout": 5}
        with open(plant.SYSTEM_SETTINGS, "w") as file:
            json.dump({"network": {"modem": modem}}, file)

    def start(self):
        sim = counting_plant.Sim
        self.server = sim("korvato-server-sim", "--project", self.project.id, "--tcp-port", str(sms_plant.SERVER_PORT),
                          on_event=self.server_event)
        self.modem = sim("gsm-modem-sim", "--link", sms_plant.MODEM_PORT, on_event=self.modem_event)
        self.gps = sim("gps-sim", "--link", requests_plant.GPS_PORT, on_event=self.gps_event)
        self.client = counting_plant.CountingClient(self.path(plant.CLIENT_PATH))
        self.configure(self.server.ready["https"])
        self.nginx = requests_plant.Nginx(self.folder)
        self.initialised = threading.Event()
        self.daemon = counting_plant.Program(
            [plant.ALARMD], cwd=self.folder, out=self.daemon_line, err=self.daemon_error,
            prefixes=(b"JSON : ", b"Sending ....Number: ", b"-------", b"Notification DISABLED", b"\tText: ",
                      b"\tFrom: ", b"MODEM INIT"))
        self.programs = [self.server, self.modem, self.gps, self.daemon]
        if not self.initialised.wait(60):
            raise Ended("the modem is not initialised")
        for port in (requests_plant.FCGI_PORT, self.TCP_PORT):
            plant.wait_for(lambda: ("0100007F", port) in requests_plant.listening(), "port %d" % port)
        self.wait(lambda: self.model.counts["answers"] >= 2 and self.fixes, "the first polls")
        self.ask_exactly(56, requests_plant.ENABLED)  # the first request opens what the others use
        self.at_start = self.at_rest()

    def resources(self):
        return counting_plant.resources(self.daemon.pid)

    def at_rest(self):
        """What the daemon takes while nobody asks it: connections that are just being closed do not count."""
        samples = []
        for _ in range(20):
            samples.append(self.resources())
            time.sleep(0.1)
        return min(samples, key=lambda sample: sample.descriptors)

    # -- what the peers tell, each in its own thread

    def server_event(self, event):
        kind = event["event"]
        if kind == "alarm" and event["moment"][0] > time.time() - 3000:
            self.model.server_has(event["alarm"], event["stat"], event["moment"])
        elif kind == "ack request":
            self.model.acknowledged(event["raw"])
        elif kind == "poll":
            seconds, microseconds = re.search(r"&start=(\d+)\.(\d+)&", event["body"]).groups()
            start = int(seconds), int(microseconds)
            with self.model.lock:
                if not self.model.starts:
                    self.model.starts.append(start)
                self.polled.append(start)

    def modem_event(self, event):
        if event["event"] != "sms":
            return
        self.model.sms_arrived(event["number"], event["text"], event["sent"])
        alarm = re.search(r" /ack:(\d+)$", event["text"])
        if alarm:
            self.told_alarms.append((event["number"], int(alarm.group(1))))

    def gps_event(self, event):
        if event["event"] == "fix":
            self.fixes.append(set(event["sentences"]))

    def daemon_line(self, line):
        text = line.decode("utf-8", "surrogateescape")
        if text.startswith("JSON : "):
            self.wait(lambda: self.model.starts, "the first poll")
            self.model.answer(text[7:])
        elif text.startswith("Sending ....Number: "):
            self.sending = re.match(r"Sending \.\.\.\.Number: (.*?); Text: (.*)$", text, re.DOTALL).groups()
            self.handed_over += 1
        elif text in (sms_plant.SEND_OK, sms_plant.SEND_FAIL):
            self.model.sms_told(*self.sending, text == sms_plant.SEND_OK)
        elif text.startswith("Notification DISABLED"):
            self.model.counts["held back"] += 1
            self.model.came(("held back",))
        elif text.startswith("\tText: "):
            self.text = text[7:].rstrip("\r")
        elif text.startswith("\tFrom: "):
            self.model.read(text[7:], self.text)
        elif text == sms_plant.INITIALISED:
            self.initialised.set()

    def daemon_error(self, line):
        text = line.decode("utf-8", "replace")
        self.errors[re.sub(r"\d{4,}", "N", text)] += 1
        if not KNOWN_ERRORS.match(text) and not self.stopping.is_set():
            self.model.fail("standard error: " + text)

    def count_mails(self):
        for mail in self.client.new():
            self.model.mail(mail)

    # -- waiting

    def check(self):
        """Raises when going on is useless."""
        for program, name in zip(self.programs, ("server", "modem", "gps", "daemon")):
            if not program.running():
                raise Ended("the program %s has ended with status %s" % (name, program.process.returncode))
        if self.model.wrong:
            raise Ended("something came out wrong")

    def wait(self, condition, what, limit=SETTLE_LIMIT):
        end = time.monotonic() + limit
        while not condition():
            self.check()
            if time.monotonic() > end:
                raise Ended("waited %d s in vain for %s" % (limit, what))
            time.sleep(0.05)

    def settle(self):
        """Waits until all that is owed has come, and nothing more comes."""
        still_since = None

        def still():
            nonlocal still_since
            self.count_mails()
            if not self.model.settled():
                still_since = None
                return False
            still_since = still_since or time.monotonic()
            return time.monotonic() - still_since > STILL

        self.wait(still, "what is owed")
        with self.model.lock:
            self.model.polls_began_at(self.polled)
            self.polled.clear()

    @contextlib.contextmanager
    def quiet(self):
        """A moment in which all queues are empty and nobody starts anything."""
        with self.gate.held():
            self.settle()
            yield

    def pause(self, seconds):
        """Passes the time, with an eye on the mails."""
        end = time.monotonic() + seconds
        while True:
            self.count_mails()
            self.check()
            left = end - time.monotonic()
            if left <= 0:
                return
            time.sleep(min(left, 0.5))

    # -- alarms

    def value(self):
        self.serial += 1
        return self.serial

    def alarm(self, number, state, **more):
        user = self.random.choice(["", "novak", "Köhler"])
        self.server.command(alarm=number, state=state, value=self.value(), user=user, **more)

    def sms_is_cheap(self):
        """Whether there may be some more SMS now. There must be times without any, or no message of a phone is read."""
        with self.model.lock:
            now = time.monotonic()
            if now < self.next_sms or self.model.open_items("told") >= self.most_sms_owed:
                return False
            self.next_sms = now + self.sms_random.expovariate(1 / SMS_INTERVAL)
            return True

    def some_alarm(self):
        any_kind = self.random.random() < 0.3 and self.sms_is_cheap()
        return self.random.choice(soak_model.ALARMS if any_kind else soak_model.MAIL_ONLY)

    def some_state(self):
        return self.random.choice([0, 1, 1, 1, 2, 2, 8])

    def single(self):
        self.alarm(self.some_alarm(), self.some_state())

    def by_sms(self):
        if self.sms_is_cheap():
            self.alarm(self.random.choice(soak_model.BY_SMS), self.random.choice([0, 1, 1, 2]))

    def burst(self, most=60):
        if self.model.open_items("mail") > MOST_MAILS_OWED:
            return
        for _ in range(self.random.randint(1, 5)):
            self.alarm(self.random.choice(soak_model.MAIL_ONLY), self.some_state(),
                       count=self.random.randint(1, most // 4))

    def unknown(self):
        self.alarm(self.random.choice(soak_model.UNKNOWN), self.some_state())

    def without_time(self):
        # Behind an entry without a time of its own the daemon asks for the same again, until another one comes.
        self.alarm(100000 + self.value(), self.random.choice([3, 4, 7, -1]))
        self.alarm(self.random.choice(soak_model.MAIL_ONLY), self.some_state())

    def old(self):
        self.alarm(self.some_alarm(), self.some_state(), ago=self.random.choice([7200, 90000, 10000000]))

    # -- the server's moods

    def bad_answer(self):
        kind = self.random.randrange(5)
        times = self.random.randint(1, 2)
        if kind == 0:
            self.server.command(server="status", status=self.random.choice([400, 404, 500, 503]), times=times)
        elif kind == 1:
            body = self.random.choice(["{", "hello", "", "[1,2", "{\"d\":[{]}", "<html></html>", "{\"d\":[{\"id\":12,",
                                       "\u0001\u0002", "nil"])
            self.server.command(raw=body, times=times, repeat=self.random.choice([1, 1, 3000]))
        else:
            mode = ("reset", "cut", "slow")[kind - 2]
            self.server.command(server=mode, times=times, seconds=self.random.uniform(0.5, 8))

    def server_away(self):
        # An acknowledge that finds nobody is lost, so none is under way then.
        with self.gate.held():
            self.wait(lambda: not self.model.open_items("ack"), "the acknowledges")
            self.server.command(server="away")
            for _ in range(self.random.randint(0, 3)):
                self.single()
            self.pause(self.random.uniform(1, 12))
            self.server.command(server="back")

    def push(self):
        """The server says something that is no answer on the line that takes the acknowledges, where there is one."""
        self.server.command(may_fail=True, push=self.random.choice(["hello", "{", "OK", "x" * 3000]),
                            newline=self.random.random() < 0.8)

    # -- times at which things come out differently

    def while_off(self):
        with self.quiet():
            self.ask_exactly(55, requests_plant.DISABLED)
            self.model.notified = False
        self.some_events(self.random.uniform(3, 15))
        with self.quiet():
            self.ask_exactly(56, requests_plant.ENABLED)
            self.model.notified = True

    def while_mails_fail(self):
        mode, status = self.random.choice([("fail", 75), ("refuse", 78), ("slow", 0)])
        with self.quiet():
            self.client.behave(mode, status or self.random.randint(20, 300))
            self.model.mail_status, self.model.refused_mails = status, mode == "refuse"
        self.some_events(self.random.uniform(3, 12), few=mode == "slow")
        with self.quiet():
            self.client.behave()
            self.model.mail_status, self.model.refused_mails = 0, False

    def while_modem_ails(self):
        command, back, mode = self.random.choice([
            ({"modem": "mute"}, {"modem": "normal"}, "mute"),
            ({"network": "refuses", "count": 1000000, "code": 500}, {"network": "back"}, "refused"),
            ({"network": "away"}, {"network": "back"}, "refused"),
            ({"network": "slow", "seconds": 1.5}, {"network": "back"}, "normal")])
        with self.quiet():
            self.modem.command(**command)
            self.model.sms_mode = mode
            self.most_sms_owed = 2
            self.phones_rest = True  # what they sent would wait in the network
        for _ in range(2):
            self.by_sms()
        self.some_events(self.random.uniform(3, 12))
        with self.quiet():
            self.modem.command(modem="noise", count=self.random.randint(1, 60))
            self.modem.command(**back)
            self.model.sms_mode = "normal"
            self.most_sms_owed = MOST_SMS_OWED
            self.phones_rest = False

    def some_events(self, seconds, few=False):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.random.choice([self.single, self.single, self.by_sms, self.unknown, self.old, self.without_time]
                               + ([] if few else [self.burst]))()
            self.pause(self.random.expovariate(1))

    # -- GPS

    def gps_trouble(self):
        kind = self.random.choice(["noise", "corrupt", "line", "silent", "no fix", "normal", "normal"])
        if kind in ("corrupt", "line") and not self.gps_silent:
            self.bad_gps_until = time.time() + 60  # the next second is a good one again
        line = "$GPGGA,%d,nowhere*00" % self.value()
        if kind == "noise":
            self.gps.command(gps=kind, count=self.random.randint(1, 300))
        elif kind == "corrupt" and not self.gps_silent:
            self.gps.command(gps=kind, count=self.random.randint(1, 20))
        elif kind == "line" and not self.gps_silent:
            self.fixes.append({line})
            self.gps.command(gps=kind, text=line)
        elif kind in ("no fix", "normal") or kind == "silent" and time.time() > self.bad_gps_until:
            self.gps.command(gps=kind)
            self.gps_silent = (self.gps_silent or kind == "silent") and kind != "normal"

    # -- requests

    def ask_exactly(self, protocol, wanted):
        answer = requests_plant.ask(requests_plant.request(protocol))
        self.judge("request %d" % protocol, answer == b"\n" + wanted, answer)

    def judge(self, what, right, answer):
        with self.model.lock:
            self.model.counts["requests"] += 1
        if not right:
            self.model.fail("%s was answered %r" % (what, answer))

    # -- the run

    ACTIONS = [
        (30, single), (8, burst), (10, by_sms), (3, unknown), (3, without_time), (3, old), (5, bad_answer),
        (1, server_away), (2, push), (3, gps_trouble), (0.5, while_off), (0.5, while_mails_fail), (0.5, while_modem_ails),
        (0.3, lambda self: self.burst(2000))]

    def run(self, seconds, workers):
        end = time.monotonic() + seconds
        threads = [threading.Thread(target=self.work, args=(worker(self),), daemon=True) for worker in workers]
        for thread in threads:
            thread.start()
        weights, actions = zip(*self.ACTIONS)
        try:
            while time.monotonic() < end:
                self.random.choices(actions, weights)[0](self)
                self.pause(self.random.expovariate(1 / 0.8))
        finally:
            self.gate.close()
            for thread in threads:
                thread.join(60)

    def work(self, worker):
        try:
            while not self.gate.closed:
                with self.gate.step():
                    if not self.gate.closed:
                        worker.step()
                worker.rest(self.stopping)
            worker.leave()
        except Ended as why:
            self.model.fail("%s: %s" % (type(worker).__name__, why))
        except Exception as failure:  # whatever it is, it is no right answer
            if not self.stopping.is_set():
                self.model.fail("%s: %r" % (type(worker).__name__, failure))

    # -- the end

    def finish(self):
        """Waits for all that is owed, then for the daemon to be as it was at the start."""
        self.server.command(server="back")
        self.gps.command(gps="normal")
        self.settle()
        wanted = self.at_start.descriptors, self.at_start.threads
        # The line to the server and clients that said nothing are closed after a while.
        self.wait(lambda: self.resources()[2:] == wanted, "%d descriptors and %d threads as at the start" % wanted, 100)

    def stop(self):
        self.stopping.set()
        self.gate.close()
        self.last = self.resources() if self.daemon.running() else self.at_start
        status = self.daemon.stop()
        if status != 0:
            self.model.fail("the daemon ended with status %s" % status)
        for program in (self.gps, self.modem, self.server):
            program.stop()
        self.nginx.end()


# ---- the report ----------------------------------------------------------------------------------------------------

class Report:
    def __init__(self, soak):
        self.soak = soak
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._tick, daemon=True)

    def begin(self, minutes, seed):
        print("%g minutes, seed %s. Each minute: alarms, mails, SMS, messages from phones, requests; resident memory, "
              "processor time, descriptors, threads." % (minutes, seed), flush=True)
        self.line()
        self._thread.start()

    def _tick(self):
        while not self._end.wait(60):
            self.line()

    def line(self):
        counts = self.soak.model.counts
        try:
            now = self.soak.resources()
        except OSError:
            return
        print("%7.1f min  %6d alarms %7d mails %5d SMS %5d phones %6d requests  %6.1f MB %7.1f s %3d fd %2d threads" % (
            (time.monotonic() - self.soak.began) / 60, counts["alarms"], counts["mails"],
            counts["sms sent"] + counts["sms failed"], counts["messages read"], counts["requests"], now.rss / 1024,
            now.processor, now.descriptors, now.threads), flush=True)

    def end(self):
        self._end.set()
        soak, counts = self.soak, self.soak.model.counts
        first, last = soak.at_start, soak.last
        elapsed = time.monotonic() - soak.began
        print("\nSummary of %.1f minutes" % (elapsed / 60))
        print("  alarms       %7d new ones, in %d answers; %d answers were none" % (
            counts["alarms"], counts["answers"], counts["unreadable answers"]))
        print("  mails        %7d handed to the mail client" % counts["mails"])
        print("  SMS          %7d told as sent, %d told as failed" % (counts["sms sent"], counts["sms failed"]))
        print("  held back    %7d mails and SMS while notifications were off" % counts["held back"])
        print("  phones       %7d messages read, %d sent again since they were lost in the modem, %d acknowledges" % (
            counts["messages read"], counts["sent again"], counts["acknowledges"]))
        print("  requests     %7d answered, %d broken off" % (counts["requests"], counts["broken off"]))
        print("  memory       %7.1f MB at the start, %.1f MB at the end" % (first.rss / 1024, last.rss / 1024))
        print("  processor    %7.1f s at the start, %.1f s at the end: %.2f %% of a core" % (
            first.processor, last.processor, 100 * (last.processor - first.processor) / max(elapsed, 1)))
        print("  descriptors  %7d at the start, %d at the end" % (first.descriptors, last.descriptors))
        print("  threads      %7d at the start, %d at the end" % (first.threads, last.threads))
        print("  log          %7.1f MB on standard output" % (soak.daemon.out.bytes / 1e6))
        for text, count in soak.errors.most_common(10):
            print("  %11d x  %s" % (count, text))

    def verdict(self, differences):
        for text in differences[:50]:
            print("  " + text)
        print("All counts are right." if not differences else "Not all counts are right.", flush=True)
        return STATUS_WRONG if differences else STATUS_RIGHT


def keep_log(soak):
    """Leaves the end of the daemon's log to whoever looks for a difference."""
    folder = os.path.join(plant.SOURCE, "out")
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, "soak-alarmd.log")
    with open(path, "w", encoding="utf-8", errors="surrogateescape") as file:
        file.write(soak.daemon.out.text())
    print("  The end of the daemon's log is in " + path)


def run(minutes, seed, folder):
    soak = Soak(seed, folder)
    report = Report(soak)
    try:
        soak.start()
    except (Ended, AssertionError) as why:
        print("The plant does not start: %s" % why)
        return STATUS_WRONG
    report.begin(minutes, seed)
    trouble = []
    try:
        soak.run(minutes * 60, soak_workers.WORKERS)
    except KeyboardInterrupt:
        print("\nEnding; what is owed is waited for.", flush=True)
    except Ended as why:
        trouble.append(str(why))
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        if not trouble:
            soak.finish()
    except Ended as why:
        trouble.append(str(why))
    soak.stop()
    soak.count_mails()
    report.end()
    differences = trouble + soak.model.wrong + soak.model.differences()
    if differences:
        keep_log(soak)
    return report.verdict(differences)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=float)
    parser.add_argument("--seed", default="1")
    options = parser.parse_args()
    sys.stdout.reconfigure(errors="replace")  # for a terminal that cannot show every letter
    signal.signal(signal.SIGINT, signal.default_int_handler)
    folder = tempfile.mkdtemp(prefix="soak-")
    try:
        return run(options.minutes, options.seed, folder)
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
