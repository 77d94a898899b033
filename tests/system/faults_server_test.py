"""A server that fails: whatever it does, every alarm of its history is told once, and the rest of the daemon goes on.

Tables: one row a poll, and before each poll another alarm happens. faults_plant.FaultServer plays them,
faults_plant.FaultTest.check_rows looks at what the daemon has made of them.
"""

import gzip
import signal
import socket
import threading
import time

import faults_plant
import plant
import requests_plant
import sms_plant
from faults_plant import FAILED, FIRST, NOTHING, TAKEN, TAKEN_LATE, UNREADABLE, Row, whole

STOP_LIMIT = 15


# ---- faults --------------------------------------------------------------------------------------------------------

def reset_at_once(connection):
    connection.reset()


def reset_in_the_handshake(connection):
    connection.raw.recv(65536)
    connection.send(b"\x16\x03\x03")  # the begin of a handshake record
    connection.reset()


def silent_handshake(connection):
    connection.wait_closed(20)


def reset_without_an_answer(connection):
    connection.talk()
    connection.reset()


def cut_at(share, end):
    """The right answer up to this share of its bytes; the connection then ends as end(connection) does."""
    def act(connection):
        connection.talk()
        bytes_ = plant.http_answer(connection.good())
        connection.send(bytes_[:int(len(bytes_) * share)])
        time.sleep(0.5)
        end(connection)
    return act


def close(connection):
    connection.stream.close()


def reset(connection):
    connection.reset()


def longer_than_told(connection):
    """The whole answer, but its length promises more."""
    connection.talk()
    connection.send(plant.http_answer(connection.good() + 100 * " ")[:-100])
    time.sleep(0.5)


def without_a_length(connection):
    """Half of the answer, properly closed: nobody can tell that it is not whole."""
    connection.talk()
    body = connection.good().encode()
    connection.send(b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + body[:len(body) // 2])
    connection.stream.unwrap()


def drip(connection):
    connection.talk()
    bytes_ = plant.http_answer(connection.good(), extra="Connection: close\r\n")
    connection.send(*(bytes_[n:n + 1] for n in range(len(bytes_))), pause=0.008)


def late(seconds):
    def act(connection):
        connection.talk()
        time.sleep(seconds)
        connection.answer(connection.good())
    return act


def says(body, status="200 OK", content_type="application/json", extra=""):
    """An answer without any alarm; body may be a function of the right answer."""
    def act(connection):
        connection.talk()
        connection.answer(body(connection.good()) if callable(body) else body, status, content_type, extra)
    return act


def chunks(end=b"0\r\n\r\n"):
    """The answer in chunks of 7 bytes."""
    def act(connection):
        connection.talk()
        body = connection.good().encode()
        pieces = (body[n:n + 7] for n in range(0, len(body), 7))
        connection.send(b"HTTP/1.1 200 OK\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n\r\n")
        connection.send(*(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces), end)
    return act


def redirect_once(status):
    """To another path, where the answer is."""
    def act(connection):
        connection.talk()
        connection.send(plant.http_answer("", status, extra="Location: /elsewhere\r\n"))
        connection.take()
        if " /elsewhere HTTP" not in connection.head:
            raise AssertionError(connection.head)
        connection.answer(connection.good())
    return act


def redirect_in_a_circle(connection):
    """20 are followed. Behind the last the connection is closed: it would serve the next poll too."""
    connection.talk()
    for n in range(21):
        close_ = "Connection: close\r\n" if n == 20 else ""
        connection.send(plant.http_answer("", "307 Temporary Redirect", extra="Location: /r.fcgi\r\n" + close_))
        if not close_:
            connection.take()
    connection.wait_closed()


def with_certificate(paths):
    def act(connection):
        connection.talk(paths)
        connection.answer(connection.good())
    return act


PAGE = "<html><body><h1>%s</h1></body></html>"


# ---- tables --------------------------------------------------------------------------------------------------------

class Tables(faults_plant.FaultTest):
    def check(self, *rows, limit=plant.PATIENCE):
        self.start_rows(*rows)
        self.check_rows(limit)

    def test_connections_that_break_before_an_answer(self):
        self.check(Row("reset at once", FAILED, reset_at_once),
                   Row("reset in the handshake", FAILED, reset_in_the_handshake),
                   Row("reset without an answer", FAILED, reset_without_an_answer),
                   Row("reset within the headers", FAILED, cut_at(0.05, reset)))

    def test_answers_that_break_off_stay_in_front_of_the_next(self):
        self.check(Row("closed in the body", FAILED, cut_at(0.6, close)),
                   Row("reset in the body, behind one that was closed", FAILED, cut_at(0.7, reset)),
                   Row("whole, behind both", UNREADABLE, whole),
                   Row("whole, the length promises more", FAILED, longer_than_told),
                   Row("whole, behind a whole one", TAKEN_LATE, whole))

    def test_answers_in_chunks_or_without_a_length(self):
        self.check(Row("chunks", TAKEN, chunks()),
                   Row("chunks that break off", FAILED, chunks(b"40\r\n")),
                   Row("whole, behind these chunks", TAKEN_LATE, whole),
                   Row("half without a length", UNREADABLE, without_a_length))

    def test_a_handshake_that_hangs(self):
        self.check(Row("a silent handshake", FAILED, silent_handshake),
                   Row("good", TAKEN, whole),
                   Row("a silent handshake again", FAILED, silent_handshake))

    def test_answers_of_another_status(self):
        self.check(Row("500", UNREADABLE, says(PAGE % "Error", "500 Internal Server Error", "text/html")),
                   Row("404", UNREADABLE, says(PAGE % "Not Found", "404 Not Found", "text/html")),
                   Row("503 with the right answer", TAKEN, says(lambda good: good, "503 Service Unavailable")),
                   Row("empty", UNREADABLE, says("")))

    def test_answers_that_are_no_history(self):
        self.check(Row("nested too deep", UNREADABLE, says('{"d":' + 100000 * "[")),
                   Row("gzip that was not asked for", UNREADABLE,
                       says(lambda good: gzip.compress(good.encode()), extra="Content-Encoding: gzip\r\n")),
                   Row("no alarms", NOTHING, says('{"d":[],"x":' + 900 * "[" + 900 * "]" + "}")),
                   Row("half, with its right length", UNREADABLE, says(lambda good: good[:len(good) // 2])))

    def test_15_megabytes_of_junk(self):
        self.check(Row("junk", UNREADABLE, says((b"junk {[\"\\x\xff " * 1000 + b"\n") * 1080)),
                   Row("good", TAKEN, whole), limit=90)

    def test_redirections(self):
        self.check(Row("in a circle", FAILED, redirect_in_a_circle),
                   Row("once, the request goes along", TAKEN, redirect_once("307 Temporary Redirect")),
                   Row("in a circle again", FAILED, redirect_in_a_circle),
                   Row("once, asked without the request", TAKEN, redirect_once("302 Found")))

    def test_redirections_to_plain_http_are_not_followed(self):
        with socket.create_server(("127.0.0.1", 0)) as plain:
            location = "Location: http://127.0.0.1:%d/r.fcgi\r\n" % plain.getsockname()[1]
            self.check(Row("with the request", FAILED, says("", "307 Temporary Redirect", extra=location)),
                       Row("good", TAKEN, whole),
                       Row("without the request", FAILED, says("", "302 Found", extra=location)))
            plain.setblocking(False)
            self.assertRaises(BlockingIOError, plain.accept)

    def test_slow_answers(self):
        self.check(Row("byte by byte", TAKEN, drip), Row("after 20 s", TAKEN, late(20)))

    def test_certificates_are_not_looked_at(self):
        expired = faults_plant.make_certificate(self.folder, "expired", "127.0.0.1", "2020-01-01")
        if not expired:
            self.skipTest("libfaketime is not installed")
        elsewhere = faults_plant.make_certificate(self.folder, "elsewhere", "elsewhere.example")
        self.check(Row("self-signed", TAKEN, whole),
                   Row("expired", TAKEN, with_certificate(expired)),
                   Row("of another host", TAKEN, with_certificate(elsewhere)))


# ---- the server's process ------------------------------------------------------------------------------------------

class Killed(faults_plant.FaultTest):
    def restart_server(self):
        """Starts the server's process anew, with all alarms that have happened."""
        self.start_server()
        for number, *at in self.history.moments:
            self.sim.alarm(number, time=at)

    def test_a_server_that_comes_late_is_killed_and_comes_again(self):
        self.history = faults_plant.History()
        self.fake_client()
        self.start_daemon_for(5, modemPort="")
        # What happens from now on is behind the daemon's start.
        self.daemon.out.wait("Setting CURL Options.")
        failed = 0
        for number in range(FIRST, FIRST + 4, 2):
            # Away: at the start, and killed in a poll.
            self.history.happen(number)
            failed += 1
            self.daemon.err.wait(faults_plant.FAILED_LINE, failed)
            self.restart_server()
            self.daemon.out.wait("id: %d" % number)
            # The next poll is under way when the server is killed.
            self.history.happen(number + 1)
            self.sim.command(server="slow", seconds=100)
            requests = self.sim.command(query="state")["poll_count"]
            plant.wait_for(lambda: self.sim.command(query="state")["poll_count"] > requests, "the next poll")
            self.sim.signal(signal.SIGKILL)
            self.sim.wait_exit()
            failed += 1
            self.daemon.err.wait(faults_plant.FAILED_LINE, failed)
        self.history.happen(FIRST + 4)
        self.restart_server()
        self.sim.wait_polls(2)
        self.assert_all_told_once(5)


# ---- the rest of the daemon ----------------------------------------------------------------------------------------

class Meanwhile(faults_plant.FaultTest):
    def test_mails_sms_and_requests_go_on_while_the_server_hangs(self):
        released = threading.Event()
        self.addCleanup(released.set)

        def hang(connection):
            connection.talk()
            released.wait(50)
            connection.answer(connection.good())

        self.start_modem()
        self.start_rows(*3 * [Row("good", TAKEN, whole)], Row("late", TAKEN, hang), modemPort=sms_plant.MODEM_PORT)
        # Mails wait when the hanging poll begins.
        self.client = self.fake_client("while [ ! -e %s ]; do sleep 0.2; done\n" % self.path("gate"))
        self.wait_initialised()
        self.wait_poll(3)
        self.write("gate", "")
        self.daemon.out.wait("-> Odeslan", 3)
        self.wait_sms(*self.alarm_sms(3))
        self.assertEqual(requests_plant.ask(requests_plant.request(
            50, number=sms_plant.STRANGER, text="meanwhile")), b"\n" + requests_plant.SMS_TAKEN)
        self.wait_sms((sms_plant.STRANGER, "meanwhile"))
        self.assertEqual(len(self.server.starts), 3, "polls that have ended")
        released.set()
        self.check_rows()
        self.wait_sms(*self.alarm_sms(4))
        self.assertEqual(sorted(self.modem.sms()), sorted(self.alarm_sms(4) + [(sms_plant.STRANGER, "meanwhile")]))

    @staticmethod
    def alarm_sms(count):
        return [(sms_plant.EVE, "(ACT) %s /ack:%d" % (faults_plant.message(number), number))
                for number in range(FIRST, FIRST + count)]

    def test_a_stop_while_the_server_hangs(self):
        def hang(connection):
            connection.talk()
            connection.wait_closed()

        def hang_within_headers(connection):
            connection.talk()
            connection.send(b"HTTP/1.1 200 OK\r\nContent-Ty")
            connection.wait_closed()

        def drip_for_ever(connection):
            connection.talk()
            connection.send(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")
            connection.send(*100000 * [b" "], pause=0.01)

        for act in (silent_handshake, hang, hang_within_headers, drip_for_ever):
            with self.subTest(act.__name__):
                self.https_port = plant.free_port()
                self.start_rows(Row(act.__name__, FAILED, act), modemPort="")
                self.wait_poll(0)
                time.sleep(0.3)
                self.assert_stops(STOP_LIMIT)


if __name__ == "__main__":
    plant.main()
