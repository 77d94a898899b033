"""What the tests of faults share: alarms that can be counted, and a server that goes wrong poll by poll."""

import collections
import json
import os
import re
import socket
import ssl
import struct
import subprocess
import threading
import time

import plant
import requests_plant
import sms_plant

FIRST = 100  # id of the first alarm
FAILED_LINE = plant.starting("curl_easy_perform() failed: ")
UNREADABLE_LINE = "Failed to parse JSON"
QUEUED_FOR_MAIL = "::-> Saving MAIL into fronta_mail"
QUEUED_FOR_SMS = "::-> Saving SMS ACTIVATION into fronta_sms"

# What the daemon makes of a poll.
FAILED = "failed"  # the transfer: told on standard error
UNREADABLE = "unreadable"  # the transfer succeeded, the answer is no JSON
NOTHING = "nothing"  # an answer without alarms
TAKEN = "taken"  # the answer's alarms are queued
TAKEN_LATE = "taken late"  # the alarms of the answer before are queued, which stood in front of this one

Row = collections.namedtuple("Row", "name outcome act")

USER = {"id": 3, "level": 1, "name": "Eve", "mail": "eve@plant.example", "tel": sms_plant.EVE, "language": "",
        "smsControl": True}


def definitions(count):
    """So many alarms from FIRST on that are told by mail in every state and by SMS when they come."""
    return [sms_plant.definition(number, [1], email=True, smsDeact=False, smsAck=False)
            for number in range(FIRST, FIRST + count)]


def message(number):
    return "Message %d" % number


class History:
    """The alarms that have happened, in the order of their times."""

    def __init__(self):
        self.moments = []  # of each: (id, seconds, microseconds)

    def happen(self, number):
        """The alarm becomes active now."""
        moment = time.time_ns() // 1000
        if self.moments:
            moment = max(moment, self.moments[-1][1] * 1000000 + self.moments[-1][2] + 1)
        self.moments.append((number, moment // 1000000, moment % 1000000))

    def since(self, seconds, micro):
        """What a good server answers to a poll from this start point."""
        new = [moment for moment in self.moments if moment[1:] >= (seconds, micro)]
        return json.dumps({"d": [plant.entry(number, 1, *at) for number, *at in new]})


class Connection:
    """A connection as the server has it, from its first byte on."""

    def __init__(self, server, raw):
        self.server = server
        self.raw = raw
        self.stream = raw
        self.start = None  # the start point that was asked for

    def talk(self, certificate=None):
        """Makes the handshake and takes the request."""
        self.stream = self.server.context(certificate).wrap_socket(self.raw, server_side=True)
        self.take()

    def take(self):
        request, _ = plant.AnswerServer._read(self.stream, b"", 0)
        if request is None:
            raise OSError("closed")
        self.head = request.head
        found = re.search(r"start=(\d+)\.(\d+)&", request.body)
        if found:
            self.start = int(found.group(1)), int(found.group(2))

    def good(self):
        """The body of the right answer."""
        return self.server.history.since(*self.start)

    def send(self, *pieces, pause=0.0):
        for piece in pieces:
            self.stream.sendall(piece)
            if pause:
                time.sleep(pause)

    def answer(self, body, status="200 OK", content_type="application/json", extra=""):
        self.send(plant.http_answer(body, status, content_type, "Connection: close\r\n" + extra))

    def reset(self):
        self.stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.stream.close()

    def wait_closed(self, limit=plant.PATIENCE):
        """Takes what comes and says nothing, until the other side has closed."""
        self.raw.settimeout(limit)
        while self.raw.recv(65536):
            pass


def whole(connection):
    connection.talk()
    connection.answer(connection.good())


class FaultServer:
    """An HTTPS server with an alarm history. Each connection is one poll: the n-th goes as the n-th row says, with an
    alarm, FIRST + n, that has just happened. Behind the last row the polls are answered well and nothing happens."""

    def __init__(self, folder, port, rows):
        self.history = History()
        self.rows = rows
        self.starts = []  # of each poll so far; None when its request was not taken
        self.begun = 0  # polls
        self._folder = folder
        self._certificates = {}
        self.context(None)
        self._socket = socket.create_server(("127.0.0.1", port), backlog=16)
        threading.Thread(target=self._serve, daemon=True).start()

    def context(self, certificate):
        """TLS with this certificate, a pair of paths; with that of the address when there is none."""
        if certificate not in self._certificates:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(*(certificate or plant.make_certificate(self._folder)))
            self._certificates[certificate] = context
        return self._certificates[certificate]

    def _serve(self):
        while True:
            try:
                raw, _ = self._socket.accept()
            except OSError:
                return
            raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            number = self.begun
            if number < len(self.rows):
                self.history.happen(FIRST + number)
            self.begun += 1
            connection = Connection(self, raw)
            try:
                (self.rows[number].act if number < len(self.rows) else whole)(connection)
            except OSError:
                pass  # the daemon has given up first
            self.starts.append(connection.start)
            connection.stream.close()

    def end(self):
        self._socket.close()


def make_certificate(folder, name, subject, day=None):
    """Makes a self-signed certificate, three days valid, today or on another day; returns certificate and key. None
    when there is nothing to turn the clock with."""
    certificate, key = "%s/%s.crt" % (folder, name), "%s/%s.key" % (folder, name)
    env = dict(os.environ)
    if day:
        # Not the program faketime: it makes a name of its process number, which another world's process has too.
        library = plant.clock_library("libfaketime.so.1")
        if not library:
            return None
        env.update(LD_PRELOAD=library, FAKETIME=day + " 00:00:00")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=" + subject, "-days", "3",
                    "-keyout", key, "-out", certificate], check=True, capture_output=True, env=env)
    return certificate, key


class FaultTest(requests_plant.RequestTest):
    """Base of the tests."""

    def mails(self):
        """The messages of the alarms of the mails so far, sorted."""
        return sorted(plant.Mail(self.client.input(n)).row()["MESSAGE"] for n in range(self.client.runs()))

    def start_daemon_for(self, count, users=None, **settings):
        """Starts the daemon with so many alarms."""
        self.start_plant(users=users or [USER], cas=definitions(count), **settings)

    def wait_idle(self):
        """Waits for a pass of the mail thread that has begun and found nothing to do."""
        idle = plant.holding("-->Thread mail (queue:0)")
        self.daemon.out.wait(idle, self.daemon.out.count(idle) + 1)

    def assert_all_told_once(self, count, given=None):
        """Each of the alarms has been queued once for mail and once for SMS and has made one mail."""
        given = range(FIRST, FIRST + count) if given is None else given
        self.client.wait_runs(len(given), detail=lambda: self.daemon.out.text()[-6000:])
        self.wait_idle()
        self.assertEqual(self.mails(), sorted(message(number) for number in given))
        self.assertEqual(self.daemon.out.count(QUEUED_FOR_MAIL), len(given))
        self.assertEqual(self.daemon.out.count(QUEUED_FOR_SMS), len(given))

    def start_rows(self, *rows, **settings):
        """Starts the daemon at a server whose polls go as the rows say."""
        self.server = FaultServer(self.folder, self.https_port, rows)
        self.addCleanup(self.server.end)
        self.fake_client()
        self.start_daemon_for(len(rows), **{"modemPort": "", **settings})

    def wait_poll(self, number, limit=plant.PATIENCE):
        """Waits for the begin of the poll, from 0; what the ones before have brought is then queued."""
        plant.wait_for(lambda: self.server.begun > number, "poll %d" % number, limit, self.daemon.out.text)

    def check_rows(self, limit=plant.PATIENCE):
        """Waits until the rows are through, and a good poll behind them. Each poll must have come out as its row says,
        no start point have moved but behind what was taken, and all alarms have been told once."""
        rows, server = self.server.rows, self.server
        for number in range(len(rows) + 2):
            self.wait_poll(number, limit)
        plant.wait_for(lambda: len(server.starts) > len(rows) + 1, "the last poll's answer")
        outcomes = [row.outcome for row in rows]
        failures = [line for line in self.daemon.err.texts() if FAILED_LINE(line)]
        self.assertEqual(len(failures), outcomes.count(FAILED), failures)
        self.assertEqual(self.daemon.out.count(UNREADABLE_LINE), outcomes.count(UNREADABLE))
        point = None
        moments = server.history.moments
        for number, start in enumerate(server.starts[:len(rows) + 2]):
            name = rows[number].name if number < len(rows) else "good"
            if start and point:
                self.assertEqual(start, point, "the start point at %r of %r" % (name, server.starts))
            point = point or start
            if number >= len(rows) or outcomes[number] in (TAKEN, TAKEN_LATE):
                last = number - 1 if number < len(rows) and outcomes[number] == TAKEN_LATE else number
                _, seconds, micro = moments[min(last, len(rows) - 1)]
                point = seconds, micro + 1
        self.assert_all_told_once(len(rows))
        print("%d alarms, %d mails; %d transfers failed, %d answers were unreadable, %d taken" % (
            len(rows), self.client.runs(), outcomes.count(FAILED), outcomes.count(UNREADABLE),
            outcomes.count(TAKEN) + outcomes.count(TAKEN_LATE)))
