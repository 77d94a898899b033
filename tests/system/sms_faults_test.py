"""Bad modems, bad lines, bad servers: polls, mails and the stop go on in every case."""

import os
import termios
import time

import plant
import requests_plant
import sms_plant
from sms_plant import EVE, JAN, SEND_FAIL, SEND_OK, cmgr

HEADER = '"REC UNREAD","%s",,"26/11/21,10:00:00+04"' % JAN
ACK_12 = "t=11&prj=7&id=12&userID=1&ackText=ACK_SMS"
MAIL_ALARM = 15
MOST_LINES = 6  # a second, in the log


class FaultTest(sms_plant.SmsTest):
    def start(self, **options):
        """Everything, without waiting for the modem."""
        self.start_server()
        self.start_modem()
        self.client = self.fake_client()
        mail_alarm = sms_plant.definition(MAIL_ALARM, [1], email=True, smsAct=False, smsDeact=False, smsAck=False)
        self.start_plant(cas=sms_plant.CAS + [mail_alarm], **options)

    def start_initialised(self, **options):
        self.start(**options)
        self.wait_initialised()

    def assert_goes_on_and_stops(self, limit=30):
        """Polls go on, mails too, the log grows slowly, SIGTERM stops the daemon."""
        mails, lines, begin = self.client.runs(), len(self.daemon.out.texts()), time.monotonic()
        self.sim.wait_polls(2)
        grown = len(self.daemon.out.texts()) - lines
        self.assertLess(grown / (time.monotonic() - begin), MOST_LINES, self.daemon.out.text()[-3000:])
        self.sim.alarm(MAIL_ALARM)
        # One for each of the two users of the group.
        self.client.wait_runs(mails + 2, detail=self.daemon.out.text)
        self.assert_stops(limit)

    def assert_sms_work(self):
        """An alarm goes out, an answer comes in."""
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.phone(JAN, "ACK:12")
        self.sim.out.wait(sms_plant.event("ack request", raw=ACK_12))


class Bytes(FaultTest):
    """Bytes that nobody asked for."""

    def test_noise(self):
        self.start_initialised()
        self.modem.modem("noise", count=100000)
        self.assert_sms_work()
        self.assert_goes_on_and_stops()

    def test_noise_during_the_initialisation(self):
        self.start()
        for command in (b"AT+CPIN", b"AT^CURC", b"AT+CMGF"):
            self.modem.wait_received(command)
            self.modem.modem("noise", count=10000)
        self.wait_initialised()
        self.assert_sms_work()
        self.assert_goes_on_and_stops()

    def test_a_line_without_an_end(self):
        self.start_initialised()
        self.modem.modem("says", text="x" * 100000)
        self.assert_sms_work()
        self.assert_goes_on_and_stops()

    def test_zeros(self):
        self.start_initialised()
        self.modem.modem("says", hex="00" * 50000)
        self.assert_sms_work()
        self.assert_goes_on_and_stops()

    def test_a_flood_of_oks(self):
        self.start_initialised()
        self.modem.modem("says", text="\r\nOK\r\n" * 15000)
        self.assert_sms_work()
        self.assert_goes_on_and_stops()


class Answers(FaultTest):
    """Answers to the reading of a message that are none."""

    def read(self, *answers):
        self.start_initialised()
        for bytes_ in answers:
            self.modem.modem("reply", to="AT+CMGR", hex=bytes_.encode("latin-1").hex())
        self.modem.wait_received(sms_plant.READ, len(answers), limit=plant.PATIENCE + 8 * len(answers))
        self.assertNotIn("Acknowledge alarm id", self.daemon.out.text())
        self.assert_sms_work()
        self.assert_goes_on_and_stops()

    def test_headers(self):
        self.read(cmgr("nothing", "ACK:12"), cmgr(HEADER + 10000 * ",", "ACK:12"),
                  cmgr(HEADER.replace(JAN, "\0\x07\x1b[2J"), "x"), cmgr(HEADER.replace(JAN, "\x07\x1b[2J"), "x"),
                  "\r\n+CMGR: " + HEADER + "\r\nOK\r\n", "\r\n\r\n\r\nOK\r\n")

    def test_texts(self):
        self.read(cmgr(HEADER, "x" * 10240), cmgr(HEADER, "BOOK:12"), cmgr(HEADER, "PUMPER 12"),
                  cmgr(HEADER, "\n" * 200), cmgr(HEADER, "\0" * 300))

    def test_ends(self):
        whole = cmgr(HEADER, "ACK:12")
        self.read(whole[:1], whole[:40], whole[:whole.index("OK")], whole[:whole.index("OK") + 1], "\r\nERROR\r\n", "")


class Unplugged(FaultTest):
    """The modem goes away in the middle of a command."""

    def assert_survives(self):
        self.modem.out.wait(sms_plant.event("port", what="unplugged"))
        self.assertEqual(self.daemon.out.count("Seriovy port otevren"), 1)
        self.assert_goes_on_and_stops()

    def unplug_during_initialisation(self, after):
        self.start_modem()
        self.modem.modem("unplug", after=after)
        modem, self.start_modem = self.modem, lambda: None
        self.start()
        self.modem = modem
        self.daemon.out.wait(sms_plant.NOT_INITIALISED)
        self.assert_survives()

    def test_in_the_pin(self):
        self.unplug_during_initialisation("AT+CPIN=")

    def test_in_the_reports_order(self):
        self.unplug_during_initialisation("AT^CURC")

    def test_in_the_text_mode_order(self):
        self.unplug_during_initialisation("AT+CMGF=1\r")

    def test_in_the_centre_order(self):
        # Two of three are enough.
        self.start()
        self.modem.modem("unplug", after="AT+CSCA=")
        self.wait_initialised()
        self.assert_survives()

    def test_in_a_reading(self):
        self.start_initialised()
        self.modem.modem("unplug", after="AT+CMG")
        self.assert_survives()

    def test_in_the_clearing_of_the_store(self):
        self.start_initialised()
        self.modem.modem("unplug", after="AT+CMGD=0")
        self.assert_survives()

    def test_in_a_number(self):
        self.start_initialised()
        self.modem.modem("unplug", after="at+CMGS=")
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL)
        self.daemon.out.wait(plant.starting("ERROR: SockWriteTimeout EIO , in thread "))
        self.assert_survives()

    def test_in_a_text(self):
        self.start_initialised()
        self.modem.modem("unplug", after="(ACT) Me")
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL)
        self.assert_survives()

    def test_a_modem_plugged_in_again_is_not_noticed(self):
        self.start_initialised()
        self.modem.modem("unplug")
        self.modem.modem("plug")
        self.modem.command(clear="line")
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL)
        self.daemon.out.wait(sms_plant.READING, self.daemon.out.count(sms_plant.READING) + 1)
        self.assertEqual(self.modem.received(), b"")
        self.assert_goes_on_and_stops()


class FullBuffer(FaultTest):
    """The line takes no more bytes for longer than a send waits."""

    def test_a_line_that_is_held_and_released(self):
        self.start_initialised()
        port = os.open(sms_plant.MODEM_PORT, os.O_RDWR | os.O_NOCTTY)
        self.addCleanup(os.close, port)
        termios.tcflow(port, termios.TCOOFF)
        before = self.modem.received()
        self.sim.alarm(14)
        begin = self.daemon.out.wait(plant.starting("Sending ...."))[0]
        # 3 s for the order, 2 s for the prompt, 3 s for the text, 5 s for the answer.
        self.assertGreater(self.daemon.out.wait(SEND_FAIL)[0] - begin, 3 + 2 + 3 + 5 - sms_plant.LATE)
        self.assertEqual(self.modem.received(), before)
        termios.tcflow(port, termios.TCOON)
        self.sim.alarm(14, "deactivated")
        self.wait_sms((EVE, "(DEA) Message 14"))
        self.daemon.out.wait(SEND_OK)
        self.assert_goes_on_and_stops()

    def test_a_buffer_that_is_full(self):
        users = [{**sms_plant.USERS[2], "id": n, "tel": "9" * 9000} for n in range(3)]
        self.start_initialised(users=users + sms_plant.USERS[:2])
        self.modem.modem("deaf")
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL, 3)
        self.assert_goes_on_and_stops()

    def test_a_text_that_falls_short_does_not_swallow_the_next_message(self):
        self.start_initialised()
        requests_plant.ask(requests_plant.request(50, number=JAN, text="x" * 200000))
        self.modem.wait_received(b'at+CMGS="%s"\r' % JAN.encode())
        self.modem.modem("deaf")
        self.daemon.out.wait(SEND_FAIL)
        self.assertIn(b'"SMSCOUNT":"0"', requests_plant.ask(requests_plant.request(51)))
        self.modem.modem("normal")
        self.modem.wait_received(b"xx\x1b")
        self.assert_sms_work()
        self.assertNotIn(JAN, [number for number, _ in self.modem.sms()])
        self.assert_goes_on_and_stops()

    def test_a_stop_while_a_send_waits(self):
        self.start_initialised()
        port = os.open(sms_plant.MODEM_PORT, os.O_RDWR | os.O_NOCTTY)
        self.addCleanup(os.close, port)
        termios.tcflow(port, termios.TCOOFF)
        self.sim.alarm(14)
        self.daemon.out.wait(plant.starting("Sending ...."))
        self.assert_stops()


class ServerPort(FaultTest):
    """The server's local port behaves badly."""

    def test_it_accepts_and_never_reads(self):
        self.start_initialised()
        self.sim.command(tcp="deaf")
        for number in (12, 13):
            self.phone(JAN, "ACK:%d" % number)
            self.daemon.out.wait("Acknowledge alarm id: %d" % number)
        # Accepted or not: the requests wait in the connection.
        self.assertEqual(self.acks(), [])
        self.assert_goes_on_and_stops()

    def answer(self, **greeting):
        self.start_initialised()
        self.sim.command(**greeting)
        self.phone(JAN, "ACK:12")
        self.wait_acks(ACK_12)
        self.sim.out.wait(sms_plant.event("tcp client", what="closed"))
        self.assertLess(plant.memory(self.daemon.pid, "VmHWM"), 600000)
        self.assert_goes_on_and_stops()

    def test_it_answers_megabytes_without_a_line_end(self):
        self.answer(greet="x" * 1000, repeat=10000, newline=False)

    def test_it_answers_megabytes_of_lines(self):
        self.answer(greet='{"d":[]}\n' * 100, repeat=10000)

    def test_it_answers_zeros_and_other_bytes(self):
        self.answer(greet="\0\1\x7f%s%n" * 1000)

    def test_it_answers_no_json(self):
        self.answer(greet="<html>")
        self.assertIn("Failed to parse JSON", self.daemon.out.text())

    def test_it_resets_connections(self):
        self.start_initialised()
        self.sim.command(tcp="reset")
        self.phone(JAN, "ACK:12")
        self.daemon.out.wait("Acknowledge alarm id: 12")
        self.sim.command(tcp="normal")
        self.phone(JAN, "ACK:13")
        self.sim.out.wait(sms_plant.event("ack request", raw=ACK_12.replace("12", "13")))
        self.assert_goes_on_and_stops()


if __name__ == "__main__":
    plant.main()
