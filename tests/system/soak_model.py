"""The soak's own idea of what must come out of the daemon: its project, and the balance of what is owed and what came.

The model works from what goes in (the server's answers as the daemon received them, requests, phones' messages) and from
the project, and never from what the daemon says that it does with them.
"""

import collections
import json
import re
import threading
import time

DEACTIVATED, ACTIVATED, ACKNOWLEDGED, TIMED = 0, 1, 2, 8
EVENT_TIMES = {DEACTIVATED: "dtm", ACTIVATED: "atm", ACKNOWLEDGED: "acktm", TIMED: "acktm"}
STATUS_WORDS = {DEACTIVATED: "Deactivate", ACTIVATED: "Activate", ACKNOWLEDGED: "Acknowledge"}
SMS_FLAGS = {DEACTIVATED: "smsDeact", ACTIVATED: "smsAct", ACKNOWLEDGED: "smsAck"}
SMS_TAGS = {DEACTIVATED: "(DEA)", ACTIVATED: "(ACT)", ACKNOWLEDGED: "(ACK)"}
NOTIFIED_GROUPS, GROUPS = 10, 12
LONGEST_SMS = 160  # bytes; the modem refuses longer ones


# ---- the project ---------------------------------------------------------------------------------------------------

MAIL_ONLY, SILENT, UNHEARD, UNKNOWN = range(100, 130), range(130, 134), range(134, 137), range(9000, 9003)
BY_SMS = range(200, 212)
ALARMS = [*MAIL_ONLY, *SILENT, *UNHEARD, *BY_SMS]
LANGUAGES = ["cs", "de", "en", "", "fr"]  # nothing is translated into the last one


def definition(number, groups, email, sms):
    texts = {"cs": "Hlášení %d, příliš dlouhé čekání" % number, "de": "Meldung %d, Gerät läuft" % number,
             "en": "Message %d" % number}
    return {"id": number, "severity": number % 4, "area": "Area %d" % (number % 7), "tag": "T%d" % number,
            "message": "Default message %d" % number, "device": ["Device", " ", ""][number % 3], "messageLangs": texts,
            "areaLangs": {"cs": "Oblast %d" % (number % 7)},
            "deviceLangs": {"de": "Apparat"} if number % 3 == 0 else {},
            "email": email, "smsAct": sms, "smsDeact": sms and number % 2 == 0, "smsAck": sms and number % 3 > 0,
            "group": [group in groups for group in range(GROUPS)]}


def definitions():
    """Most alarms go by mail to one to three groups; few by SMS, which take seconds each."""
    for number in MAIL_ONLY:
        yield definition(number, [number % 10, number % 7] if number % 3 else [number % 10, 1, 5], True, False)
    for number in SILENT:
        yield definition(number, [1, 2], False, False)
    for number in UNHEARD:
        yield definition(number, [10, 11], True, True)
    for number in BY_SMS:
        yield definition(number, [number % 4], number % 4 > 0, True)


def users():
    """20 users in the groups 0 to 9 and two that are never told; those of the groups 0 to 3 have phones."""
    for number in range(22):
        group = number % 10 if number < 20 else number - 10
        language = LANGUAGES[number % 5] if number < 15 else LANGUAGES[number % 3]
        yield {"id": number + 1, "level": group, "name": "User %d" % number, "language": language,
               "mail": "" if number == 13 else "user%d@plant.example" % number,
               "tel": "+4206010000%02d" % number if group < 4 and number < 14 or number >= 20 else "",
               "smsControl": number % 2 == 0}


class Project:
    def __init__(self):
        self.id = "7"
        self.users = list(users())
        self.cas = list(definitions())
        self.groups = [{"groupNo": number, "name": "Group %d" % number, "reportingMaxSeverity": 3, "reporting": True}
                       for number in range(GROUPS)]
        self._definitions = {entry["id"]: entry for entry in self.cas}
        self._control = {user["tel"]: user["id"] for user in self.users if user["tel"] and user["smsControl"]}

    def phones(self):
        return [user["tel"] for user in self.users if user["tel"]]

    def controls(self, number):
        """The id of the user who may acknowledge with this phone, else None."""
        return self._control.get(number)

    def _recipients(self, alarm):
        return [user for group in range(NOTIFIED_GROUPS) if alarm["group"][group]
                for user in self.users if user["level"] == group]

    @staticmethod
    def _text(alarm, name, language):
        return alarm[name + "Langs"].get(language) or alarm[name]

    def mails(self, entry):
        """(recipient, cells of the row) of each mail that this history entry makes."""
        alarm, cell = self._definitions.get(entry["id"]), entry["cell"]
        if not alarm or not alarm["email"]:
            return
        for user in self._recipients(alarm):
            device = self._text(alarm, "device", user["language"] or "default")
            yield user["mail"], (
                self._text(alarm, "message", user["language"] or "default") or "-", STATUS_WORDS.get(cell["stat"], ""),
                str(alarm["severity"]), self._text(alarm, "area", user["language"] or "default") or "-",
                "-" if device == " " else device, readable(cell["atm"][0]), readable(cell["dtm"][0]),
                readable(cell["acktm"][0]), "%.2f" % cell["av"], "%.2f" % cell["dv"], "%.2f" % cell["ackv"],
                cell["user"] or "-")

    def sms(self, entry):
        """(number, text) of each SMS that this history entry makes."""
        alarm, stat = self._definitions.get(entry["id"]), entry["cell"]["stat"]
        if not alarm or stat not in SMS_FLAGS or not alarm[SMS_FLAGS[stat]]:
            return
        for user in self._recipients(alarm):
            if user["tel"]:
                text = SMS_TAGS[stat] + " " + self._text(alarm, "message", user["language"])
                yield user["tel"], text + (" /ack:%d" % entry["id"] if stat == ACTIVATED else "")


def readable(seconds):
    return time.strftime("%c", time.localtime(seconds)) if seconds >= 1 else "-"


# ---- the balance ---------------------------------------------------------------------------------------------------

def entry_key(number, stat, moment):
    """An entry whose state has no time of its own is known by its id, which the soak then takes only once."""
    return "entry", number, stat, tuple(moment) if stat in EVENT_TIMES else None


def upper(text):
    """Of plain letters only, as in a program without a locale."""
    return text.encode("utf-8", "surrogateescape").upper().decode("utf-8", "surrogateescape")


def number_on_line(number):
    return "".join(c for c in number if c != '"' and c >= " " and c != "\x7f")


def is_good(called):
    """The modem takes this number."""
    return re.fullmatch(r"\+?[0-9*#]{1,19}", called) is not None


def instant(seconds, microseconds):
    return float(seconds) + float(microseconds) / 1000000.0


class Model:
    """What is owed (+) and what came (-), each thing a key. All is well while the balance is empty at quiet moments."""

    def __init__(self, project):
        self.project = project
        self.lock = threading.RLock()
        self.starts = []  # the start points so far, as (seconds, microseconds)
        self.received = set()  # entries of the server's history
        self.mail_status, self.notified, self.sms_mode = 0, True, "normal"
        self.refused_mails = False
        self.balance = collections.Counter()
        self.counts = collections.Counter()
        self.wrong = []
        self.reads = []  # incoming messages as the daemon read them: (time, number, text)
        self.outstanding = collections.Counter()  # messages that phones have sent, (number, text)
        self.boundaries = set()

    def owe(self, key, count=1):
        self._add(key, count)

    def came(self, key, count=1):
        self._add(key, -count)

    def _add(self, key, count):
        with self.lock:
            self.balance[key] += count
            if self.balance[key] == 0:
                del self.balance[key]

    def fail(self, text):
        with self.lock:
            self.wrong.append(text)

    def settled(self):
        with self.lock:
            return not self.balance

    def open_items(self, kind):
        """How many things of this kind are owed still."""
        with self.lock:
            return sum(count for key, count in self.balance.items() if key[0] == kind and count > 0)

    def differences(self):
        with self.lock:
            return ["%s %d: %r" % ("missing" if count > 0 else "too many", abs(count), key)
                    for key, count in self.balance.items()]

    # -- alarms

    def server_has(self, number, stat, moment):
        """The server has a new entry, which must reach the daemon."""
        key = entry_key(number, stat, moment)
        with self.lock:
            if key not in self.received:
                self.owe(key)

    def answer(self, text):
        """The daemon has received this answer to a poll, or this line."""
        try:
            entries = json.loads(text).get("d")
        except ValueError:
            self.counts["unreadable answers"] += 1
            return
        except AttributeError:
            return
        with self.lock:
            self.counts["answers"] += 1
            for entry in entries or ():
                self._entry(entry)
            if entries:
                name = EVENT_TIMES.get(entries[-1]["cell"]["stat"])
                if name:
                    seconds, microseconds = entries[-1]["cell"][name]
                    self.starts.append((seconds, microseconds + 1))

    def _entry(self, entry):
        cell = entry["cell"]
        name = EVENT_TIMES.get(cell["stat"])
        moment = cell[name] if name else None
        key = entry_key(entry["id"], cell["stat"], moment)
        if key in self.balance:
            self.came(key)
        self.received.add(key)
        if name and instant(*moment) > instant(*self.starts[-1]):
            self._notify(entry)

    def polls_began_at(self, polled):
        """The start points of all polls so far are the model's, in its order."""
        with self.lock:
            at = 0
            for start in polled:
                try:
                    at = self.starts.index(start, at)
                except ValueError:
                    self.fail("a poll began at %r, which is not its turn" % (start,))
                    return
            del self.starts[:at]

    def _notify(self, entry):
        self.counts["alarms"] += 1
        for recipient, cells in self.project.mails(entry):
            if not self.notified:
                self.owe(("held back",))
            elif self.refused_mails:
                self.owe(("mail", self.mail_status, None, ()))
            else:
                self.owe(("mail", self.mail_status, recipient, cells))
        for number, text in self.project.sms(entry):
            if self.notified:
                self.expect_sms(number, text)
            else:
                self.owe(("held back",))

    def mail(self, mail):
        self.counts["mails"] += 1
        self.came(("mail", mail.status, mail.recipient, mail.cells))
        if mail.boundary is not None and (len(mail.boundary) != 51 or mail.boundary in self.boundaries):
            self.fail("a boundary is no new one: %r" % mail.boundary)
        self.boundaries.add(mail.boundary)

    # -- SMS out

    def expect_sms(self, number, text):
        """This SMS is to be sent under what is the modem's and the network's state now."""
        on_line = "".join(c for c in text if c not in "\x1a\x1b")
        called = number_on_line(number)
        with self.lock:
            if self.sms_mode == "mute" or not is_good(called):
                told, arrives = False, None
            else:
                told = arrives = self.sms_mode != "refused" and len(on_line.encode()) <= LONGEST_SMS
            self.owe(("told", number, text, told))
            if arrives is not None:
                self.owe(("phone", called, on_line, arrives))

    def sms_told(self, number, text, sent):
        self.counts["sms sent" if sent else "sms failed"] += 1
        # A number that the modem refuses gets no text, so that message is not handed over.
        self.counts["sms to good numbers"] += is_good(number_on_line(number))
        self.came(("told", number, text, sent))

    def sms_arrived(self, number, text, sent):
        self.came(("phone", number, text, sent))

    # -- SMS in

    def phone_sends(self, number, text):
        with self.lock:
            self.outstanding[number, text] += 1

    def read(self, number, text):
        """The daemon has read this message. One that nobody has sent was put together from a message and the modem's
        own line about it, when that came between question and answer; phones send again what was lost so."""
        with self.lock:
            self.reads.append((time.time(), number, text))
            if self.outstanding[number, text] <= 0:
                self.counts["misread"] += 1
                if self.project.controls(number):
                    self.fail("a message that nobody has sent: %r from %r" % (text, number))
                return
            self.outstanding[number, text] -= 1
            self.counts["messages read"] += 1
            user = self.project.controls(number)
            pieces = [piece for piece in upper(text).split(":") if piece]
            if user and len(pieces) == 2 and pieces[0] == "ACK":
                self.owe(("ack", "t=11&prj=%s&id=%s&userID=%d&ackText=ACK_SMS" % (self.project.id, pieces[1], user)))

    def acknowledged(self, raw):
        self.counts["acknowledges"] += 1
        self.came(("ack", raw))


# ---- answers to requests -------------------------------------------------------------------------------------------

def formatted_with_itself(text):
    """What printf makes of a text that is its own format and first argument, as far as %% and the first %s go."""
    result, rest, used = "", text, False
    while rest:
        if rest.startswith("%%"):
            result, rest = result + "%", rest[2:]
        elif rest.startswith("%s") and not used:
            result, rest, used = result + text, rest[2:], True
        else:
            result, rest = result + rest[0], rest[1:]
    return result
