"""The demo: the example plant with a simulated server and GSM modem, the real mail client, a real mail server, and the
daemon.

Runs in a private world (scripts/world.sh), started by run.sh. Shows the road of each alarm, one line an event, and at
the end compares the mailbox, the phones and the server's acknowledge requests with what should be there. That is worked
out here from the project and the scenario alone, not from anything the daemon says. Then local requests are made through
a real web server (demo_requests.py).
"""

import argparse
import collections
import ctypes
import email
import email.policy
import json
import os
import queue
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

import demo_requests

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EXAMPLES = os.path.join(ROOT, "examples")
OUT = os.path.join(ROOT, "out")
PLANT = os.path.join(OUT, "plant")
MAILBOX = os.path.join(OUT, "mailbox")
MAILS = os.path.join(OUT, "mails")
SYSTEM_SETTINGS = "/etc/korvato/settings.json"
MAIL_CLIENT = "/usr/bin/msmtp"
NGINX_SAMPLE = os.path.join(ROOT, "packaging", "nginx", "alarmd.conf")

STATES = {"deactivated": 0, "activated": 1, "acknowledged": 2}
STATUS_WORDS = {0: "Deactivate", 1: "Activate", 2: "Acknowledge"}
STATE_WORDS = {0: "ended", 1: "active", 2: "acknowledged"}
SMS_FLAGS = {0: "smsDeact", 1: "smsAct", 2: "smsAck"}
SMS_FORMS = {0: "(DEA) %s", 1: "(ACT) %s /ack:%d", 2: "(ACK) %s"}
NOTIFIED_GROUPS = 10
START_LIMIT = 20  # seconds
LAST_LIMIT = 60  # seconds from the end of the scenario, for the last mails and SMS to arrive
STOP_LIMIT = 20  # seconds

HELP = """After the scenario the plant stays. Type
  201       alarm 201 goes active        201 off   it ends        201 ack   it is acknowledged
  away      the server goes away         back      it is back
and press Ctrl-C to end. The phone of Jana Nováková acknowledges every alarm that it is told of."""

COLOURS = {"plant": "1", "server": "33", "daemon": "36", "mail": "34", "delivered": "32", "phone": "32", "request": "1;36",
           "note": "35", "error": "31"}


# ---- the terminal ----------------------------------------------------------------------------------------------

class Screen:
    def __init__(self):
        self._colour = sys.stdout.isatty() and "NO_COLOR" not in os.environ and os.environ.get("TERM") != "dumb"
        self._begin = time.monotonic()

    def restart_clock(self):
        self._begin = time.monotonic()

    def seconds(self):
        return time.monotonic() - self._begin

    def paint(self, text, colour):
        return "\033[%sm%s\033[0m" % (colour, text) if self._colour and colour else text

    def event(self, kind, text):
        print("%6.1f s  %s  %s" % (self.seconds(), self.paint("%-9s" % kind, COLOURS[kind]), text), flush=True)

    def line(self, text="", colour=""):
        print(self.paint(text, colour), flush=True)


# ---- what should arrive ----------------------------------------------------------------------------------------

class Project:
    """The example project, read for itself."""

    def __init__(self, folder):
        def load(name):
            with open(os.path.join(folder, name), encoding="utf-8") as file:
                return json.load(file)

        self.definitions = {entry["id"]: entry for entry in load("cas.json")}
        self.users = load("users.json")
        self.group_names = {entry["groupNo"]: entry["name"] for entry in load("groups.json")}
        self.id = str(load("setting.json")["projectID"])

    def texts(self, number, language):
        """Message, area and device of an alarm as a mail in this language shows them."""
        definition = self.definitions[number]

        def pick(name):
            return definition[name + "Langs"].get(language or "default") or definition[name]

        device = pick("device")
        return pick("message") or "-", pick("area") or "-", "-" if device == " " else device

    def name(self, number):
        definition = self.definitions.get(number)
        return "%d %s: %s" % (number, definition["device"], definition["message"]) if definition else str(number)

    def expected(self, number, stat):
        """The mails that this change of an alarm makes: Mail records of those with an address."""
        definition = self.definitions.get(number)
        if not definition or not definition["email"]:
            return
        for group in range(NOTIFIED_GROUPS):
            if not definition["group"][group]:
                continue
            for user in self.users:
                if user["level"] == group and user["mail"]:
                    message, area, device = self.texts(number, user["language"])
                    yield Mail(user["mail"], message, STATUS_WORDS.get(stat, ""), str(definition["severity"]), area,
                               device)

    def expected_sms(self, number, stat):
        """The SMS that this change of an alarm makes: Sms records."""
        definition = self.definitions.get(number)
        if not definition or not definition[SMS_FLAGS.get(stat, "smsAct")] or stat not in SMS_FORMS:
            return
        for group in range(NOTIFIED_GROUPS):
            for user in self.users if definition["group"][group] else ():
                if user["level"] == group and user["tel"]:
                    message = definition["messageLangs"].get(user["language"]) or definition["message"]
                    yield Sms(user["tel"], SMS_FORMS[stat] % ((message, number) if stat == 1 else message))

    def recipients(self, number):
        """To how many users a mail of this alarm goes, with or without an address."""
        groups = self.definitions[number]["group"][:NOTIFIED_GROUPS]
        return sum(groups[user["level"]] for user in self.users if user["level"] < NOTIFIED_GROUPS)

    def may_control(self, number):
        """The id of the user whose phone this is, when it may acknowledge; else None."""
        return next((user["id"] for user in self.users if user["tel"] == number and user["smsControl"]), None)

    def owner(self, number):
        return next(("%s (%s)" % (user["name"], number) for user in self.users if user["tel"] == number), number)


Mail = collections.namedtuple("Mail", "to message status severity area device")
Sms = collections.namedtuple("Sms", "to text")


def read_mail(raw):
    """The Mail record of a delivered mail, as the standard parser reads it; None when it is no alarm mail."""
    message = email.message_from_bytes(raw, policy=email.policy.default)
    parts = [part for part in message.walk() if not part.is_multipart()]
    if [part.get_content_type() for part in parts] != ["text/html"]:
        return None
    cells = re.findall(r"<TD>(.*?)</TD>", parts[0].get_content(), re.DOTALL)
    if len(cells) != 24:
        return None
    row = cells[12:]
    return Mail(str(message["To"]), row[0], row[1], row[2], row[3], row[4])


# ---- the programs of the plant ---------------------------------------------------------------------------------

_libc = ctypes.CDLL(None)


class Program:
    """A child whose lines arrive in the inbox as (name, stream, line); a line of None is the stream's end."""

    def __init__(self, name, arguments, inbox, log=None, stdin=subprocess.DEVNULL):
        self.name = name
        self._log = log
        self._inbox = inbox
        self._lock = threading.Lock()
        self.process = subprocess.Popen(
            arguments, cwd=PLANT, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True,
            preexec_fn=lambda: _libc.prctl(1, signal.SIGKILL))  # PR_SET_PDEATHSIG: nothing outlives the demo
        self._readers = [threading.Thread(target=self._read, args=(stream,), daemon=True) for stream in ("out", "err")]
        for reader in self._readers:
            reader.start()

    def _read(self, stream):
        for line in self.process.stdout if stream == "out" else self.process.stderr:
            if self._log:
                with self._lock:
                    self._log.write(line)
                    self._log.flush()
            self._inbox.put((self.name, stream, line.decode("utf-8", "replace").rstrip("\n")))
        self._inbox.put((self.name, stream, None))

    def command(self, **command):
        self.process.stdin.write(json.dumps(command).encode() + b"\n")
        self.process.stdin.flush()

    def running(self):
        return self.process.poll() is None

    def stop(self):
        """Asks for a stop and returns the exit status, None when it had to be killed."""
        if self.running():
            self.process.terminate()
        try:
            status = self.process.wait(STOP_LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            status = None
        for reader in self._readers:
            reader.join(STOP_LIMIT)
        return status


def usable_port(wanted):
    """The wanted port of 127.0.0.1 when it is free, else another one."""
    for port in (wanted, 0):
        with socket.socket() as probe:
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                probe.bind(("127.0.0.1", port))
                return probe.getsockname()[1]
            except OSError:
                pass
    raise SystemExit("There is no free port on 127.0.0.1.")


def replace_key(name, key):
    """Gives the port in the line 'key N' of a configuration file of the plant a free port, and returns that."""
    path = os.path.join(PLANT, name)
    with open(path, encoding="utf-8") as file:
        text = file.read()
    port = usable_port(int(re.search(r"(?m)^%s (\d+)$" % key, text).group(1)))
    with open(path, "w", encoding="utf-8") as file:
        file.write(re.sub(r"(?m)^%s \d+$" % key, "%s %d" % (key, port), text))
    return port


def prepare():
    """Sets the run's folder up: a copy of the example plant, an empty mailbox. Returns the path of the modem's port."""
    for path in (PLANT, MAILBOX, MAILS):
        shutil.rmtree(path, ignore_errors=True)
    shutil.copytree(EXAMPLES, PLANT)
    os.makedirs(MAILS)
    os.makedirs(os.path.join(PLANT, "ext", "msmtp"))
    os.symlink(MAIL_CLIENT, os.path.join(PLANT, "ext", "msmtp", "msmtp"))
    with open(os.path.join(PLANT, "settings.json"), encoding="utf-8") as file:
        settings = json.load(file)
    modem = settings["network"]["modem"]
    if os.environ.get("KORVATO_WORLD") != "private":
        modem["modemPort"] = os.path.join(PLANT, "ttyModem2")  # /dev is the machine's
    with open(SYSTEM_SETTINGS, "w", encoding="utf-8") as file:
        json.dump(settings, file)
    return modem["modemPort"]


# ---- the demo --------------------------------------------------------------------------------------------------

class Demo:
    def __init__(self, programs, keep):
        self.screen = Screen()
        self.keep = keep
        self.bin = programs
        self.inbox = queue.Queue()
        self.project = Project(EXAMPLES)
        self.failures = []
        self.changes = []  # (alarm id, state) that the server has reported so far
        self.mailed_changes = self.sent = self.without_address = 0
        self.expected = collections.Counter()  # Mail and Sms records, and texts of acknowledge requests
        self.delivered = collections.Counter()
        self.strangers = self.refused = 0  # answers from phones that may not acknowledge
        self.answered = {}  # what a phone answers to each alarm, by number
        self.requests = demo_requests.Requests(self)
        self.sms = {}  # the incoming message that the daemon is printing now
        self.files_seen = set()
        self.queued = []  # of the alarm that the daemon is printing now
        self.block = {}
        self.mail = {}
        with open(os.path.join(EXAMPLES, "scenario.json"), encoding="utf-8") as file:
            self.scenario = json.load(file)

    # -- start and end

    def start(self):
        modem_port = prepare()
        https_port = replace_key("korvato.conf", "https_port")
        smtp_port = replace_key("msmtp.conf", "port")
        # The demo ends server and modem itself, when all has arrived, so their scenario has no end of its own.
        with open(os.path.join(PLANT, "scenario.json"), "w", encoding="utf-8") as file:
            json.dump({key: value for key, value in self.scenario.items() if key != "duration"}, file)

        self.logs = {name: open(os.path.join(OUT, name + ".log"), "wb")
                     for name in ("alarmd", "server", "modem", "smtp", "gps", "nginx")}
        self.smtp = Program("smtp", ["/usr/bin/python3", "-m", "aiosmtpd", "-n", "-c", "aiosmtpd.handlers.Mailbox", MAILBOX,
                                     "-l", "127.0.0.1:%d" % smtp_port], self.inbox, self.logs["smtp"])
        self.wait_for_smtp(smtp_port)
        self.server = Program(
            "server", [os.path.join(self.bin, "korvato-server-sim"), "--json-events", "--control", "--port",
                       str(https_port), "--scenario", "scenario.json"], self.inbox, self.logs["server"], subprocess.PIPE)
        self.wait_for("server")
        self.modem = Program(
            "modem", [os.path.join(self.bin, "gsm-modem-sim"), "--json-events", "--control", "--link", modem_port,
                      "--scenario", "scenario.json"], self.inbox, self.logs["modem"], subprocess.PIPE)
        self.wait_for("modem")
        self.requests.start(lambda name, arguments: Program(name, arguments, self.inbox, self.logs[name]),
                            usable_port(8081), os.path.join(PLANT, "nginx"), NGINX_SAMPLE)
        self.daemon = Program("daemon", [os.path.join(self.bin, "alarmd")], self.inbox, self.logs["alarmd"])
        self.screen.restart_clock()
        users = [user for user in self.project.users if user["level"] < NOTIFIED_GROUPS]
        self.screen.event("plant", "%d groups, %d alarms, %d recipients; a scenario of %d s begins" % (
            len(self.project.group_names), len(self.project.definitions), len(users), self.scenario["duration"]))

    def wait_for_smtp(self, port):
        end = time.monotonic() + START_LIMIT
        while time.monotonic() < end and self.smtp.running():
            try:
                with socket.create_connection(("127.0.0.1", port), 1) as connection:
                    if connection.recv(3) == b"220":
                        return
            except OSError:
                time.sleep(0.05)
        raise SystemExit("The mail server does not start; see out/smtp.log.")

    def wait_for(self, program):
        """Waits for the first line of a simulated program; what the others say meanwhile is kept."""
        end, others = time.monotonic() + START_LIMIT, []
        while time.monotonic() < end:
            try:
                name, stream, line = self.inbox.get(timeout=1)
            except queue.Empty:
                continue
            if name == program and line is None:
                break
            if name == program and stream == "out":
                for other in others:
                    self.inbox.put(other)
                return
            others.append((name, stream, line))
        raise SystemExit("The simulated %s does not start; see out/%s.log." % (program, program))

    def stop(self):
        status = self.daemon.stop()
        if status != 0:
            self.failures.append("the daemon ended with status %s instead of 0" % status)
        self.requests.stop()
        self.modem.stop()
        self.server.stop()
        self.smtp.stop()
        self.look_into_mailbox()
        for log in self.logs.values():
            log.close()

    # -- what the programs tell

    def handle(self, name, stream, line):
        if line is None:
            if name == "daemon" and stream == "out":
                self.failures.append("the daemon ended by itself")
            elif name in ("server", "modem", "gps", "nginx") and stream == "out":
                self.failures.append("the program %s ended by itself" % name)
        elif name == "server" and stream == "out":
            self.server_line(json.loads(line))
        elif name == "modem" and stream == "out":
            self.modem_line(json.loads(line))
        elif name == "gps" and stream == "out":
            self.requests.gps_line(json.loads(line))
        elif name == "daemon" and stream == "out":
            self.daemon_line(line)
        elif name == "daemon":
            self.screen.event("note", "daemon: " + line)

    def server_line(self, event):
        kind = event.get("event")
        if kind == "alarm":
            self.changes.append((event["alarm"], event["stat"]))
            self.screen.event("server", "alarm %s: %s" % (
                self.project.name(event["alarm"]), STATE_WORDS.get(event["stat"], "state %d" % event["stat"])))
        elif kind == "server":
            self.screen.event("server", {"away": "goes away", "back": "is back", "normal": "is back"}.get(
                event["server"], "mode " + event["server"]))
        elif kind == "ack request":
            self.delivered[event["raw"]] += 1
            self.screen.event("server", "is asked to acknowledge alarm %s for user %s%s" % (
                event["id"], event["user"], "" if event["done"] else ": " + event["reason"]))
        elif event.get("ok") is False:
            self.screen.event("note", event["error"])

    def modem_line(self, event):
        self.requests.modem_line(event)
        kind = event.get("event")
        if kind == "sms" and event["sent"]:
            self.delivered[Sms(event["number"], event["text"])] += 1
            self.screen.event("phone", "%s gets: %s" % (self.project.owner(event["number"]), event["text"]))
        elif kind == "sms":
            self.screen.event("note", "the network refuses an SMS to %s" % event["number"])
        elif kind == "phone":
            self.screen.event("phone", "%s sends: %s" % (self.project.owner(event["number"]), event["text"]))

    def daemon_line(self, line):
        if line.startswith(":: Check alarm"):
            self.queued = []
        elif line == "::-> Saving MAIL into fronta_mail":
            self.queued.append("mail")
        elif line.startswith("::-> Saving SMS"):
            self.queued.append("SMS")
        elif line.startswith("---------------NEW ALARM"):
            self.block = {}
        elif line.startswith("-----") and "stat" in self.block:
            self.alarm_seen(int(self.block["id"]), int(self.block["stat"]))
            self.block = {}
        elif re.match(r"(id|stat): -?\d+$", line):
            key, value = line.split(": ")
            self.block[key] = value
        elif line.startswith("(MAIL FOR USER) GROUP: "):
            group, number = re.match(r"\(MAIL FOR USER\) GROUP: (\d+) - FOUND alarm ID: (-?\d+)", line).groups()
            self.mail = {"group": int(group), "id": int(number)}
        elif line.startswith("-> Language: "):
            self.mail["language"] = line[13:]
        elif line.startswith("-> Mail: "):
            self.mail["to"] = line[9:]
        elif line.startswith("-> Odesilam mail"):
            self.mail_composed()
        elif line == "-> Odeslan":
            self.sent += 1
        else:
            self.sms_line(line)
            self.requests.daemon_line(line)

    def sms_line(self, line):
        if line == "MODEM INITIALIZATION SUCCESSFULL":
            self.screen.event("daemon", "has initialised the modem")
        elif line.startswith("\tText: "):
            self.sms = {"text": line[7:].strip()}
        elif line.startswith("\tFrom: "):
            self.sms["from"] = line[7:].strip()
        elif line == "AUTHORIZED USER !!!":
            self.screen.event("daemon", "takes \"%(text)s\" from %(from)s" % self.sms)
        elif line == "UNAUTHORIZED USER !!!":
            self.refused += 1
            self.screen.event("daemon", "refuses \"%(text)s\" from %(from)s" % self.sms)
        elif "COUNT SMS PEER MIN EXCEEDED" in line or "SMS SEND FAIL" in line or "Can't open modem" in line:
            self.screen.event("note", "daemon: " + line.strip("-: "))

    def alarm_seen(self, number, stat):
        self.screen.event("daemon", "sees alarm %d %s, queues it for %s" % (
            number, STATE_WORDS.get(stat, "in state %d" % stat), " and ".join(self.queued) or "nobody"))

    def mail_composed(self):
        mail = self.mail
        self.without_address += not mail["to"]
        group = "group %d %s" % (mail["group"], self.project.group_names.get(mail["group"], ""))
        language = "in language " + mail["language"] if mail["language"] != "default" else "in the default language"
        self.screen.event("mail", "alarm %d for %s, %s, %s" % (
            mail["id"], mail["to"] or "a user without an address", group, language))

    # -- the mailbox

    def look_into_mailbox(self):
        folder = os.path.join(MAILBOX, "new")
        names = [name for name in (os.listdir(folder) if os.path.isdir(folder) else []) if name not in self.files_seen]
        for name in sorted(names, key=lambda each: os.stat(os.path.join(folder, each)).st_mtime_ns):
            self.files_seen.add(name)
            with open(os.path.join(folder, name), "rb") as file:
                self.mail_delivered(file.read())

    def mail_delivered(self, raw):
        mail = read_mail(raw)
        number = len(self.files_seen)
        if mail is None:
            self.failures.append("mail %d in the mailbox is no alarm mail" % number)
            title = "unreadable"
        else:
            self.delivered[mail] += 1
            title = "%s %s" % (mail.to.partition("@")[0], mail.status or "other")
            self.screen.event("delivered", "%s: %s - %s - %s, %s" % (
                mail.to, mail.area, mail.device, mail.message, mail.status or "other state"))
        with open(os.path.join(MAILS, "%02d %s.eml" % (number, title)), "wb") as file:
            file.write(raw)

    # -- the run

    def expect_scenario(self):
        for event in self.scenario["events"]:
            if "alarm" in event and event.get("project", self.project.id) == self.project.id:
                self.expect(event["alarm"], STATES.get(event["state"], event["state"]))
                for sms in self.project.expected_sms(event["alarm"], STATES.get(event["state"])):
                    if sms.to in self.answered and " /ack:" in sms.text:
                        self.expect_answer(sms.to, "%s:%d" % (self.answered[sms.to], event["alarm"]))
            elif "sends" in event:
                self.expect_answer(event["phone"], event["sends"])
            elif "answers" in event:
                self.answered[event["phone"]] = event["answers"]

    def expect(self, number, stat):
        mails = list(self.project.expected(number, stat))
        self.mailed_changes += bool(mails)
        self.expected.update(mails)
        self.expected.update(self.project.expected_sms(number, stat))

    def expect_answer(self, phone, text):
        """An answer "ACK:ID" from a phone, while the alarm ID is active."""
        user = self.project.may_control(phone)
        word, _, alarm = text.upper().partition(":")
        if user is None:
            self.strangers += 1
        elif word == "ACK" and alarm:
            self.expected["t=11&prj=%s&id=%s&userID=%d&ackText=ACK_SMS" % (self.project.id, alarm, user)] += 1
            self.expect(int(alarm), STATES["acknowledged"])

    def missing(self):
        return self.expected - self.delivered or self.refused < self.strangers

    def pump(self, seconds=0.1):
        """Handles what has come within that time."""
        try:
            self.handle(*self.inbox.get(timeout=seconds))
            while True:
                self.handle(*self.inbox.get_nowait())
        except queue.Empty:
            pass
        self.look_into_mailbox()

    def run(self):
        self.expect_scenario()
        duration = self.scenario["duration"]
        while self.screen.seconds() < duration and not self.failures:
            self.pump()
        while self.missing() and not self.failures and (
                self.screen.seconds() < duration + LAST_LIMIT):
            self.pump()
        self.requests.run()
        if self.keep and not self.failures:
            self.stay()

    def stay(self):
        self.screen.line()
        self.screen.line(HELP)
        typed = queue.Queue()
        threading.Thread(target=lambda: [typed.put(line) for line in sys.stdin], daemon=True).start()
        while not self.failures:
            self.pump()
            while not typed.empty():
                self.typed(typed.get().split())

    def settle(self):
        """After a Ctrl-C: what has happened is what counts, and its mails and SMS still get time to arrive."""
        self.expect_changes()
        if self.missing():
            self.screen.line("Waiting for the mails and SMS on their way; Ctrl-C again ends at once.")
        end = self.screen.seconds() + LAST_LIMIT
        while self.missing() and not self.failures and self.screen.seconds() < end:
            self.pump()
            self.expect_changes()

    def expect_changes(self):
        """Takes what the server has reported, and the requests that made it do so, for what should be."""
        self.expected = collections.Counter({each: n for each, n in self.delivered.items() if isinstance(each, str)})
        self.mailed_changes, self.strangers = 0, self.refused
        for number, stat in self.changes:
            if (number, stat) not in self.requests.silenced:
                self.expect(number, stat)

    def typed(self, words):
        states = {"": "activated", "on": "activated", "off": "deactivated", "ack": "acknowledged"}
        if words in (["away"], ["back"]):
            self.server.command(server=words[0])
        elif words and words[0].isdigit() and len(words) <= 2 and (words + [""])[1] in states:
            state = states[(words + [""])[1]]
            self.expect(int(words[0]), STATES[state])
            self.server.command(alarm=int(words[0]), state=state)
        elif words:
            self.screen.line(HELP)

    def tell_difference(self, word, difference):
        for each, count in difference.items():
            if isinstance(each, Mail):
                what = "%d mail to %s: %s, %s" % (count, each.to, each.message, each.status)
            elif isinstance(each, Sms):
                what = "%d SMS to %s: %s" % (count, each.to, each.text)
            else:
                what = "%d request %s" % (count, each)
            self.failures.append(word + what)

    def arrived(self, kind):
        """How many of a kind have arrived, and how many should."""
        return tuple(sum(count for each, count in counter.items() if isinstance(each, kind))
                     for counter in (self.delivered, self.expected))

    def summary(self):
        self.tell_difference("missing: ", self.expected - self.delivered)
        self.tell_difference("not expected: ", self.delivered - self.expected)
        if self.refused != self.strangers:
            self.failures.append("%d answers were refused instead of %d" % (self.refused, self.strangers))
        screen = self.screen
        screen.line()
        screen.line("Summary", "1")
        screen.line("  alarms     %3d changes at the server, %d of them for mail" % (
            len(self.changes), self.mailed_changes))
        screen.line("  sent       %3d mails handed to the mail client%s" % (
            self.sent, ", %d of them for users without an address" % self.without_address if self.without_address else ""))
        screen.line("  delivered  %3d mails of %d that should arrive" % self.arrived(Mail))
        screen.line("  phones     %3d SMS of %d that should arrive" % self.arrived(Sms))
        screen.line("  answers    %3d of %d acknowledged at the server, %d of %d refused" % (
            *self.arrived(str), self.refused, self.strangers))
        screen.line("  requests   %3d of %d answered as they should be, %d mails and SMS held back" % (
            self.requests.right, self.requests.asked, self.requests.held_back))
        screen.line("  files      out/mails/  out/*.log  out/plant/ (configuration and project)")
        for failure in self.failures:
            screen.line("  " + failure, COLOURS["error"])
        screen.line("All that should arrive has arrived." if not self.failures else "Not all is as it should be.",
                    COLOURS["error"] if self.failures else COLOURS["delivered"])
        return 1 if self.failures else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", required=True)
    parser.add_argument("--keep", action="store_true")
    options = parser.parse_args()
    sys.stdout.reconfigure(errors="replace")  # for a terminal that cannot show every letter
    signal.signal(signal.SIGINT, signal.default_int_handler)
    demo = Demo(os.path.abspath(options.bin), options.keep)
    demo.start()
    interrupted = False
    try:
        demo.run()
    except KeyboardInterrupt:
        interrupted = True
        demo.screen.line()
    try:
        if interrupted:
            demo.settle()
    except KeyboardInterrupt:
        demo.screen.line()
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    demo.stop()
    if interrupted and not demo.keep:
        demo.failures.append("interrupted")
    sys.exit(demo.summary())


if __name__ == "__main__":
    main()
