"""What the tests of SMS share: the simulated modem, the server's raw port, a project with phones, a clock to set."""

import json
import os
import re
import socket
import threading
import time

import plant

MODEM_SIM = os.path.join(plant.BIN, "gsm-modem-sim")
MODEM_PORT = "/dev/ttyModem2"  # the daemon's default
SERVER_PORT = 11010

JAN, GRETA, EVE, STRANGER = "+420601000001", "+420601000002", "+420601000003", "+420777777777"
CENTRE = "+420603052000"

INITIALISED = "MODEM INITIALIZATION SUCCESSFULL"
NOT_INITIALISED = "MODEM INITIALIZATION FAILED"
READING = "\t-->Thread sms: Cteni SMS"
SEND_OK = "--------------:::::::: SMS SEND OK !!!! ::::::::------------"
SEND_FAIL = "--------------:::::::: SMS SEND FAIL !!!! ::::::::------------"
EXCEEDED = "!!!! COUNT SMS PEER MIN EXCEEDED !!!"

# Lines of the other threads that may stand between those of the SMS thread.
_OTHERS = re.compile("JSON : |::|--> Check|\x1b\\[0;0;31m|-{15}|(id|acktm|ackv|area|atm|av|dev|dtm|dv|stat|sv|user): ")

# Pauses are seen on the line by another process, which may be late, though by less than any pause that is timed.
LATE = 0.6  # seconds

# What the daemon sends to a modem without a PIN in its settings, until the working loop begins.
INITIALISATION = b'AT+CPIN=""\r\rAT^CURC=0\rAT+CMGF=1\rAT+CSCA="%s"\r' % CENTRE.encode()
READ, CLEAR = b"\tAT+CMGR=0\r", b"AT+CMGD=0,4\r"

USERS = [
    {"id": 1, "level": 1, "name": "Jan", "mail": "jan@plant.example", "tel": JAN, "language": "cs", "smsControl": True},
    {"id": 2, "level": 1, "name": "Greta", "mail": "greta@plant.example", "tel": GRETA, "language": "de",
     "smsControl": False},
    {"id": 3, "level": 2, "name": "Eve", "mail": "", "tel": EVE, "language": "", "smsControl": True},
]


def definition(number, groups, message=None, **flags):
    """An alarm that is told by SMS in every state; flags change its members."""
    message = message or "Message %d" % number
    return {"id": number, "severity": 2, "area": "Area", "message": message, "device": "Device", "tag": "T",
            "email": False, "areaLangs": {}, "deviceLangs": {},
            "messageLangs": {"cs": "Zpráva %d" % number, "de": "Meldung %d" % number},
            "smsAct": True, "smsDeact": True, "smsAck": True, "group": [g in groups for g in range(12)], **flags}


# Alarm 12 goes to group 1, alarm 13 to groups 1 and 2, alarm 14 to group 2 alone; 13 also by mail.
CAS = [definition(12, [1]), definition(13, [1, 2], email=True), definition(14, [2])]


def sent_as(number, text):
    """The bytes of one message on the line: ten more behind its Ctrl-Z, a zero first."""
    return b'at+CMGS="%s"\r' % number.encode() + text.encode() + b"\r\x1a" + bytes(10)


def cmgr(header, text):
    return "\r\n+CMGR: %s\r\n%s\r\n\r\nOK\r\n" % (header, text)


def event(name, **members):
    """Predicate: the line is this event of a program of the simulated plant, with these members."""
    def matches(line):
        if '"event":"%s"' % name not in line:
            return False
        found = json.loads(line)
        return found.get("event") == name and all(found.get(key) == value for key, value in members.items())

    matches.__name__ = "event %s %r" % (name, members)
    return matches


class ModemSim(plant.Sim):
    """The simulated modem, at the daemon's port unless another link is given."""

    def __init__(self, *arguments, link=MODEM_PORT):
        self.link = link
        super().__init__(MODEM_SIM, "--link", link, *arguments)

    def phone(self, number, text, **more):
        """This phone sends a message."""
        self.command(phone=number, sends=text, **more)

    def modem(self, word, **more):
        self.command(modem=word, **more)

    def sms(self):
        """The messages handed to the modem so far, as (number, text)."""
        return [(event["number"], event["text"]) for event in self.events("sms")]

    def wait_sms(self, *wanted, limit=plant.PATIENCE, detail=None):
        """Waits until these messages, (number, text), have come, in any order and with others between them."""
        for number, text in wanted:
            try:
                self.out.wait(event("sms", number=number, text=text), wanted.count((number, text)), limit)
            except AssertionError:
                raise AssertionError("no SMS %r to %s; there are %r\n%s" % (
                    text, number, self.sms(), detail() if detail else "")) from None

    def line(self):
        """What came from the daemon, as (seconds, bytes)."""
        return [(record["at"], bytes.fromhex(record["hex"])) for record in self.command(query="line")["line"]
                if record["from"] == "host"]

    def received(self):
        return b"".join(piece for _, piece in self.line())

    def when(self, wanted, occurrence=1):
        """The seconds at which the bytes wanted were complete, or None."""
        seen, found = b"", 0
        for at, piece in self.line():
            for byte in piece:
                seen += bytes([byte])
                if seen.endswith(wanted):
                    found += 1
                    if found == occurrence:
                        return at
        return None

    def wait_received(self, wanted, occurrence=1, limit=plant.PATIENCE):
        plant.wait_for(lambda: self.received().count(wanted) >= occurrence, "%r on the line" % wanted, limit,
                       lambda: repr(self.received()))

    def commands(self):
        """The commands so far with the modem's results."""
        return [(event["command"], event["answer"]) for event in self.events("command")]


class RawPort:
    """The server's local port with every byte that comes in, connection by connection."""

    def __init__(self, port=SERVER_PORT):
        self.connections = []  # of each: [bytes, seconds from begin to end or None]
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind(("127.0.0.1", port))
        self._socket.listen(16)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            self.connections.append([b"", None])
            threading.Thread(target=self._receive, args=(connection, self.connections[-1]), daemon=True).start()

    @staticmethod
    def _receive(connection, record):
        begin = time.monotonic()
        with connection:
            while True:
                try:
                    data = connection.recv(4096)
                except OSError:
                    data = b""
                if not data:
                    record[1] = time.monotonic() - begin
                    return
                record[0] += data

    def end(self):
        self._socket.close()


class SmsTest(plant.PlantTest):
    """Base of the tests: an HTTPS and TCP server, a modem and the daemon, as far as a test starts them."""

    def start_modem(self, *arguments):
        self.modem = ModemSim(*arguments)
        self.addCleanup(self.modem.end)
        return self.modem

    def start_server(self):
        """The simulated server with its local port."""
        return self.start_sim(tcp_port=SERVER_PORT)

    def settings(self, **changes):
        """Writes the modem settings; a key set to None is left out."""
        keys = {"smsc": CENTRE, **changes}
        self.write_settings({"network": {"modem": {key: value for key, value in keys.items() if value is not None}}})

    def start_plant(self, users=None, cas=None, clock=False, env=None, **settings):
        """Starts the daemon with the project and the modem settings."""
        self.settings(**settings)
        self.configure()
        self.project(groups=[], cas=cas or CAS, users=users or USERS)
        self.daemon = self.start_daemon(env=self.fake_clock() if clock else env)
        return self.daemon

    def fake_clock(self):
        """An environment in which set_clock() moves the time of day (not the pauses)."""
        library = plant.clock_library()
        if not library:
            self.skipTest("libfaketime is not installed")
        if plant.sanitized():
            self.skipTest("a preloaded clock and a sanitizer do not go together")
        self.set_clock(0)
        return {**os.environ, "LD_PRELOAD": library, "FAKETIME_TIMESTAMP_FILE": self.path("offset"),
                "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}

    def set_clock(self, seconds):
        """Puts the daemon's clock so far ahead of the real one."""
        # In one step: a file that is being written is no time.
        self.write("offset.new", "%+d" % seconds)
        os.rename(self.path("offset.new"), self.path("offset"))

    def wait_initialised(self):
        self.daemon.out.wait(INITIALISED)

    def start_all(self, **options):
        """Server, modem and daemon, until the modem is initialised."""
        self.start_server()
        self.start_modem()
        self.start_plant(**options)
        self.wait_initialised()

    def wait_sms(self, *wanted, limit=plant.PATIENCE):
        self.modem.wait_sms(*wanted, limit=limit, detail=lambda: self.daemon.out.text()[-6000:])

    def acks(self):
        """The acknowledge requests at the simulated server, as they came."""
        return [ack["raw"] for ack in self.sim.command(query="acks")["acks"]]

    def wait_acks(self, *wanted):
        """Waits for as many requests as wanted are; they must be these."""
        self.sim.out.wait(event("ack request"), len(wanted))
        self.assertEqual(self.acks(), list(wanted))

    def phone(self, number, text):
        """A phone sends a message, and the daemon reads it. One that comes between a reading and the clearing of the
        store behind it is lost with the rest, and one whose announcement comes between the order and its answer is not
        understood, so it is sent again."""
        read = plant.starting("\tText: " + text.splitlines()[0])
        for _ in range(5):
            before = self.daemon.out.count(read)
            self.modem.phone(number, text)
            plant.wait_for(lambda: not self.modem.command(query="store")["store"], "the reading of the store",
                           detail=self.daemon.out.text)
            time.sleep(0.2)
            if self.daemon.out.count(read) > before:
                return
        self.fail("the message is not read:\n" + self.daemon.out.text()[-4000:])

    def keep_alive(self, condition, text=""):
        """Pushes the text to the connected daemon every second until the condition holds."""
        for _ in range(60):
            if condition():
                return
            self.sim.command(push=text)
            time.sleep(1)
        self.fail("in vain\n" + self.daemon.out.text()[-4000:])

    def wait_pass(self):
        """Waits until the SMS thread begins its next pass."""
        begins = lambda line: "-->Thread sms (queue:" in line
        self.daemon.out.wait(begins, self.daemon.out.count(begins) + 1)

    def sms_log(self):
        """What the SMS thread has printed so far, as long as there are no mails."""
        return "".join(line + "\n" for line in self.daemon.out.texts() if not _OTHERS.match(line))

    def assert_stops(self, limit=15):
        status, seconds = self.daemon.stop()
        self.assertEqual(status, 0, self.daemon.err.text()[-4000:])
        self.assertLess(seconds, limit)
