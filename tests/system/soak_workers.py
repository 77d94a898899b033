"""The soak's workers: local programs that ask over FastCGI, directly or through a web server, and over TCP, good ones
and bad ones, and the phones. Each does a step of its own choice, looks at what came of it, and rests."""

import contextlib
import json
import random
import re
import socket
import time

import requests_plant
import soak_model
from requests_plant import request

LATE = 30  # seconds that a clock's reading in an answer may differ from the soak's own
READING_LIMIT = 900  # seconds until a phone's message is read: a long queue of SMS goes first
STRANGERS = ["+420777000000", "12345", "Operator"]

# What a program may ask for and is no request.
BAD_BODIES = [b"hello", b"{", b"[1]", b'"50"', b'{"t":"50"}', b'{"t":50,"number":7}', b'{"t":50,"text":{}}',
              b'{"t":5e99}', b"\x00\xff\xfe", b'{"t":54', b"[" * 5000, b'{"t":51' + b"," * 3000]
NO_ANSWER = [b'{"t":49}', b'{"t":57}', b"{}", b'{"t":-1}', b'{"x":1}', b"null", b'{"t":0,"number":"1"}']


class Worker:
    pause = 1.0  # seconds in the mean between two steps

    def __init__(self, soak):
        self.soak, self.model = soak, soak.model
        self.random = random.Random("%s %s" % (soak.seed, type(self).__name__))

    def rest(self, stopping):
        stopping.wait(self.random.expovariate(1 / self.pause))

    def leave(self):
        """Gives up what it still has of the daemon."""

    def judge(self, what, right, answer):
        self.soak.judge("%s: %s" % (type(self).__name__, what), right, answer)

    # -- SMS

    def some_sms(self):
        """A number and a text to send, or None while enough are under way."""
        if not self.soak.sms_is_cheap():
            return None
        number = self.random.choice(self.soak.project.phones() + ["+420", '"777"', "*101#"])
        text = self.random.choice([
            "Pump %d is off", "Čerpadlo %d: porucha, 100 %% zátěž", "tab\there, \x01\x02 and \x1a\x1b %d \x7f",
            "a quotation \" mark and a \\ %d", "%%s %%n %%%% %d", "PUMPER %d", "",
            "long %d " + "x" * self.random.randint(100, 300), "\x1b%d\x1a"])
        text = text % self.soak.value() if "%d" in text else text
        if self.random.random() < 0.1:
            # The modem takes the text for a command then, so nothing in it may look like one.
            number, text = self.random.choice(["", "+", "nobody", "12 34", "1" * 30]), "nobody"
        return number, text

    # -- what is told of the last message

    def last_message_is(self, answer, made_of):
        """The answer tells a message that was, or is about to be, the last one when it was given. made_of makes the
        answer of time, number and text."""
        end = time.monotonic() + LATE
        while True:
            with self.model.lock:
                reads = [(0, "", "")] + self.model.reads[-4:]
            for at, number, text in reads:
                found = re.search(rb'"Timestamp":(\d+),', answer)
                stamp = int(found.group(1)) if found else -1
                if abs(stamp - at) <= LATE and answer == made_of(stamp, number, text):
                    return True
            if time.monotonic() > end:
                return False
            time.sleep(0.1)


def last_message(stamp, number, text):
    return requests_plant.last_sms(stamp, number, text).decode("utf-8", "surrogateescape")


def as_bytes(text):
    return text.encode("utf-8", "surrogateescape")


class FastCgi(Worker):
    """Asks directly."""

    pause = 0.5
    nothing = b""

    def ask(self, body):
        with requests_plant.FcgiClient() as client:
            answer = client.ask(body)
        return answer[1:] if answer.startswith(b"\n") else answer

    def step(self):
        self.random.choice([self.send_sms, self.status, self.gps_raw, self.gps_parsed, self.last_sms, self.last_sms,
                            self.bad, self.unanswered])()

    def send_sms(self):
        sms = self.some_sms()
        if sms:
            self.model.expect_sms(*sms)
            answer = self.ask(request(50, number=sms[0], text=sms[1]))
            self.judge("50", answer == requests_plant.SMS_TAKEN, answer)

    def status(self):
        with self.model.lock:
            least = self.model.counts["sms to good numbers"]
        answer = self.ask(request(51))
        found = re.search(rb'"SMSCOUNT":"(\d+)"', answer)
        count = int(found.group(1)) if found else -1
        end = time.monotonic() + LATE
        while count > self.soak.handed_over and time.monotonic() < end:
            time.sleep(0.1)  # the log has it, but it has not been read yet
        self.judge("51", least <= count <= self.soak.handed_over and
                   answer == as_bytes(requests_plant.STATUS % (0, count)), answer)

    def was_said(self, told, part=lambda sentence: sentence):
        """All of it was said by the receiver, whose own word of that may come a little later."""
        end = time.monotonic() + LATE
        while True:
            said = {part(sentence) for sentence in set().union(*list(self.soak.fixes))} | {""}
            if told <= said:
                return True
            if time.monotonic() > end or None in told:
                return False
            time.sleep(0.1)

    def gps_raw(self):
        answer = self.ask(request(52))
        try:
            data = json.loads(answer)["d"]
            told = {data[kind] for kind in ("GGA", "GSA", "RMC", "VTG")} | set(data["GSV"])
        except (ValueError, KeyError):
            told = {None}
        self.judge("52", self.was_said(told), answer)

    def gps_parsed(self):
        excused = self.soak.bad_gps_until
        answer = self.ask(request(53))
        if answer == requests_plant.NO_GPS:
            self.judge("53", time.time() < max(excused, self.soak.bad_gps_until), answer)
            return
        try:
            data = json.loads(answer)["d"]
            told = {data[kind] for kind in ("GGA", "GSA", "RMC", "VTG")}
        except (ValueError, KeyError):
            told = {None}
        self.judge("53", self.was_said(told, lambda sentence: sentence[7:-3]), answer)

    def last_sms(self):
        answer = self.ask(request(54))
        self.judge("54", self.last_message_is(answer, lambda *message: as_bytes(
            soak_model.formatted_with_itself(last_message(*message)))), answer)

    def bad(self):
        answer = self.ask(self.random.choice(BAD_BODIES))
        self.judge("a bad request", answer == requests_plant.PARSE_FAILURE, answer)

    def unanswered(self):
        answer = self.ask(self.random.choice(NO_ANSWER))
        self.judge("an unknown request", answer == self.nothing, answer)


class WebServer(FastCgi):
    """Asks through the web server."""

    nothing = 502

    def ask(self, body):
        status, answer = self.soak.nginx.post(body)
        return answer if status == 200 else status


class KeptConnection(FastCgi):
    """Asks again and again on one connection, that it gives up now and then."""

    client = None

    def ask(self, body):
        if self.client is None or self.random.random() < 0.1:
            self.leave()
            self.client = requests_plant.FcgiClient()
        try:
            answer = self.client.ask(body, keep=True)
        except (EOFError, OSError):
            # It was silent for too long, and the connection closed.
            self.client = requests_plant.FcgiClient()
            answer = self.client.ask(body, keep=True)
        return answer[1:] if answer.startswith(b"\n") else answer

    def leave(self):
        if self.client:
            self.client.socket.close()
            self.client = None


class BadFastCgi(Worker):
    """Sends half of a request, noise, or far too much, and leaves at once or after a while."""

    pause = 3.0

    def step(self):
        kind = self.random.randrange(4)
        whole = requests_plant.records(request(54))
        if kind == 3:
            body = b'{"t":50,"text":"' + b"x" * (1200 << 10) + b'"}'
            with requests_plant.FcgiClient() as client:
                answer = client.ask(body)
            self.judge("too long a request", answer == b"\n" + requests_plant.PARSE_FAILURE, answer)
            return
        with requests_plant.FcgiClient() as client, contextlib.suppress(OSError):
            if kind == 2:
                client.send(self.random.randbytes(self.random.randint(1, 3000)))
            else:
                client.send(whole[:self.random.randrange(len(whole) - 8)])
            if kind == 1:
                time.sleep(self.random.uniform(0, 3))
        self.model.counts["broken off"] += 1


class Tcp(Worker):
    """Asks over TCP, on a connection that it keeps for some time."""

    client = None

    def connected(self):
        if self.client is None or self.random.random() < 0.1:
            self.leave()
            self.client = requests_plant.TcpClient(self.soak.TCP_PORT)
        return self.client

    def leave(self):
        if self.client:
            self.client.socket.close()
            self.client = None

    def step(self):
        self.random.choice([self.send_sms, self.last_sms, self.last_sms, self.bad, self.unanswered, self.leave])()

    def ask(self, data, line=True):
        """The answer: a line, or as much as the refusal of a bad request. A connection that was silent for too long is
        closed, and then there is a new one."""
        for _ in range(2):
            with contextlib.suppress(ConnectionError, BrokenPipeError):
                answer = self._exchange(data, line)
                if answer:
                    return answer
            self.leave()
        return b""

    def _exchange(self, data, line):
        client, answer = self.connected(), b""
        client.send(data)
        while not (answer.endswith(b"\n") if line else len(answer) >= len(requests_plant.PARSE_FAILURE)):
            chunk = client.socket.recv(4096)
            if not chunk:
                break
            answer += chunk
        return answer

    def send_sms(self):
        sms = self.some_sms()
        if sms:
            # On a new connection: on one that is being closed nobody could tell whether it was taken.
            self.leave()
            self.model.expect_sms(*sms)
            answer = self.ask(request(50, number=sms[0], text=sms[1]))
            self.judge("50", answer == requests_plant.SMS_TAKEN, answer)

    def last_sms(self):
        answer = self.ask(request(54))
        self.judge("54", self.last_message_is(answer, lambda *message: as_bytes(last_message(*message))), answer)

    def bad(self):
        answer = self.ask(self.random.choice([body for body in BAD_BODIES if len(body) < 2000]), line=False)
        self.judge("a bad request", answer == requests_plant.PARSE_FAILURE, answer)

    def unanswered(self):
        with requests_plant.TcpClient(self.soak.TCP_PORT) as client, contextlib.suppress(OSError):
            client.send(self.random.choice([request(51), request(55), b"{}", b'{"t":'[:self.random.randint(0, 4)]]))
            if self.random.random() < 0.3:
                client.socket.shutdown(socket.SHUT_WR)
                client.receive(100)
        self.model.counts["broken off"] += 1


class Phones(Worker):
    """Users who acknowledge and others who may not, with right and wrong words."""

    pause = 2.0

    def some_message(self):
        if self.soak.told_alarms and self.random.random() < 0.6:
            number, alarm = self.random.choice(list(self.soak.told_alarms))
            return number, self.random.choice(["ACK:%d", "ack:%d"]) % alarm
        number = self.random.choice(self.soak.project.phones() * 3 + STRANGERS)
        alarm = self.random.choice([*soak_model.BY_SMS] * 3 + soak_model.ALARMS)
        text = self.random.choice([
            "ACK:%d", "ACK:%d", "ACK:%d", "ack:%d", "Ack:%d:now", "ACK", "ACK:", "ACK:x%d", ":ACK:%d", "NACK:%d",
            "Hello", "ACK:%d" + " please" * 20, "příliš žluťoučký %d", "50 %% %s \"quoted\" %%d", "\x01\x02\x7f %d",
            "ack : %d"])
        return number, text.replace("%d", str(alarm))

    def step(self):
        if self.soak.phones_rest:
            return
        number, text = self.some_message()
        self.model.phone_sends(number, text)
        for _ in range(10):
            before = len(self.model.reads)
            self.soak.modem.command(phone=number, sends=text)
            self.soak.wait(lambda: not self.soak.modem.command(query="store")["store"], "the reading of a message",
                           READING_LIMIT)
            if self._read(before, number, text):
                return
            # A message that comes between a reading and the clearing of the store behind it is lost with the rest.
            self.model.counts["sent again"] += 1
        self.model.fail("a message is never read: %r" % text)

    def _read(self, before, number, text):
        """The daemon has it; its log, which tells so before the store is cleared, may be read a little later."""
        end = time.monotonic() + 3
        while time.monotonic() < end:
            if any(item[1:] == (number, text) for item in self.model.reads[before:]):
                return True
            time.sleep(0.05)
        return False


WORKERS = [FastCgi, WebServer, KeptConnection, BadFastCgi, Tcp, Phones]
