"""Modems and GPS receivers that are mute, refuse, go away or babble, and ports that are none: all the rest goes on.

Mails are counted exactly, and so are SMS: what the log tells as sent is with the phone, once.
"""

import os
import socket
import struct
import threading
import time

import fleet_plant
import plant
import requests_plant
import sms_plant
from fleet_plant import ALLOWANCE, EVE, INITIALISATION_PAUSES, OK, sms_text
from sms_plant import INITIALISED, JAN, NOT_INITIALISED, READING


class Mute(fleet_plant.FleetTest):
    def test_what_is_no_modem_costs_no_mail_and_no_processor(self):
        self.modem_at("mute-modem").modem("mute")
        self.modem_at("refusing-modem").always(b"\r\n+CME ERROR: 100\r\n")
        self.modem_at("half-replies-modem").always(b"\r\nO")
        self.write("file-modem", "some text\n")
        os.mkfifo(self.path("fifo-modem"))
        os.mkdir(self.path("folder-modem"))
        opened = ["mute", "refusing", "half-replies", "file", "fifo"]
        for name in [*opened, "folder", "absent"]:
            self.add(name, self.path(name + "-modem"))
        opened.append("null")
        self.add("null", "/dev/null")
        for member in self.members:
            member.out.wait(NOT_INITIALISED if member.name in opened else "INFO: Can't open modem port.")
        self.sim.alarm(30)
        self.assert_rest_goes_on()
        for member in self.members:
            self.assertNotIn(INITIALISED, member.out.text())
        self.assert_all_stop(INITIALISATION_PAUSES + ALLOWANCE)
        for member in self.members:
            self.assertEqual((member.told_sms(), member.unsent("SMS")), ([], 1), member.name)


class Counted(fleet_plant.FleetTest):
    # What becomes of the first message of two: whether it gets to the phone, what the modem says, how the modem is from
    # then on; and what the daemon tells of both.
    OUTCOMES = {
        "well": (True, [(0, b"\r\n+CMGS: 1\r\n" + OK)], "well", True, True),
        "in-pieces": (True, [(0, b"\r\n+CMGS: 1\r\n\r\nO"), (1, b"K\r\n")], "well", True, True),
        "at-length": (True, [(0, b"\r\n^RSSI: 18\r\n" * 2000 + OK)], "well", True, True),
        "half": (True, [(0, b"\r\n+CMGS: 1\r\n\r\nO")], "well", False, True),
        # Too late for its message, and too early for the next one's text.
        "late": (True, [(6, b"\r\n+CMGS: 1\r\n" + OK)], "well", False, True),
        "refused": (False, [(0, b"\r\n+CMS ERROR: 500\r\n")], "well", False, True),
        "nothing": (False, [], "well", False, True),
        "mute": (False, [], "mute", False, False),
        "refuses-all": (False, [(0, b"\r\n+CMS ERROR: 500\r\n")], "error", False, False),
    }

    def test_messages_told_as_sent_have_reached_their_phone_once(self):
        modems = {}
        for name, (delivered, answer, mode, *_) in self.OUTCOMES.items():
            modems[name] = self.modem_at("modem-" + name, (delivered, answer, mode))
            self.add(name, self.path("modem-" + name))
        for member in self.members:
            member.out.wait(INITIALISED)
        self.wait_first_polls()
        self.sim.alarm(30)
        self.sim.alarm(31)
        self.assert_rest_goes_on(mails=(20,))
        for member in self.members:
            plant.wait_for(lambda: len(member.told_sms()) == 2, "two messages of " + member.name,
                           detail=member.out.text)
        self.assert_all_stop(5 + ALLOWANCE)
        first, second = (EVE, sms_text(30)), (EVE, sms_text(31))
        for member in self.members:
            with self.subTest(member.name):
                delivered, _, _, told, told_second = self.OUTCOMES[member.name]
                self.assertEqual(member.told_sms(), [(*first, told), (*second, told_second)])
                phone = modems[member.name].delivered
                self.assertEqual((phone[first], phone[second]), (int(delivered), int(told_second)))
                self.assertEqual(phone.total(), phone[first] + phone[second])
                self.assertEqual(member.unsent("SMS"), 0)


class Unplugged(fleet_plant.FleetTest):
    # What has come from the daemon when the modem goes away.
    MOMENTS = {"in-the-pin": "AT+CPIN=", "in-the-initialisation": "AT+CMGF=1", "in-a-reading": "AT+CMGR=0",
               "in-a-number": "at+CMGS=", "in-a-text": "\x1a"}

    def test_the_rest_goes_on_without_load_and_a_new_modem_stays_unused(self):
        modems = {name: self.modem_at("modem-" + name) for name in self.MOMENTS}
        for name, modem in modems.items():
            modem.modem("unplug", after=self.MOMENTS[name])
            self.add(name, self.path("modem-" + name))
        for name in ("in-the-pin", "in-the-initialisation", "in-a-reading"):
            modems[name].wait_unplugged()
        for member in self.members[2:]:
            member.out.wait(INITIALISED)
        self.wait_first_polls()
        self.sim.alarm(30)
        for modem in modems.values():
            modem.wait_unplugged()
            modem.plug_again()
        self.assert_rest_goes_on()
        self.assert_all_stop(INITIALISATION_PAUSES + ALLOWANCE)
        for member in self.members:
            with self.subTest(member.name):
                self.assertEqual(modems[member.name].received(), b"")
                self.assertEqual(member.out.count("Seriovy port otevren"), 1)
                # Told as failed, or as unsent at the end.
                self.assertEqual(len(member.told_sms()) + member.unsent("SMS"), 1)
                self.assertFalse(any(sent for *_, sent in member.told_sms()))


LEAST = 50000  # bytes of babble that a test is to consist of; a real line takes 11,520 in a second


def blocks(text):
    """A whole number of copies, about a block of the line's buffer."""
    copies = text * (4096 // len(text) + 1)
    return lambda: copies


class Babbling(fleet_plant.FleetTest):
    """Bytes without an end, as fast as the daemon takes them."""

    def babble(self, *kinds):
        line = self.babbler("modem", kinds[0])
        member = self.add("babbled-at", line.link)
        member.out.wait("Openning Modem port....OK")
        self.wait_first_polls()
        for n, kind in enumerate(kinds):
            line.babble, before = kind, line.said
            self.sim.alarm(30 + n)
            self.assert_rest_goes_on(mails=(20 + n,), burning=self.members)
            print("%d bytes" % (line.said - before))
            self.assertGreater(line.said - before, LEAST)
        self.assert_all_stop(INITIALISATION_PAUSES + ALLOWANCE)

    def test_noise_and_zeros(self):
        self.babble(lambda: os.urandom(4096), blocks(b"\0"))

    def test_words(self):
        self.babble(blocks(OK), blocks(b"\r\n^RSSI: 18\r\n"), blocks(b"\r\nRING\r\n\r\n+CMTI: \"SM\",1\r\n"))

    def test_a_device_of_endless_zeros(self):
        full = self.add("full", "/dev/full")
        full.out.wait(NOT_INITIALISED)
        self.sim.alarm(30)
        self.assert_rest_goes_on(burning=self.members)
        self.assert_all_stop(INITIALISATION_PAUSES + ALLOWANCE)
        self.assertEqual(full.unsent("SMS"), 1)

    def test_replies_of_a_megabyte(self):
        long = [b"\r\n+CMGR: " + b"x" * 1000000 + OK, b"\r\nER" * 250000]
        modem = self.modem_at("modem")
        for reply in reversed(long):
            modem.modem("reply", to="AT+CMGR", hex=reply.hex())
        member = self.add("told-at-length", modem.link)
        member.out.wait(READING, 3)
        self.wait_first_polls()
        self.assertEqual(modem.commands().count(("AT+CMGR=0", "as told")), 2)
        self.sim.alarm(30)
        member.out.wait(sms_plant.SEND_OK)
        self.assert_rest_goes_on(burning=self.members)
        self.assert_all_stop(5 + ALLOWANCE)


class Gps(fleet_plant.FleetTest):
    """What is no receiver, and one that says too much."""

    def add_with_gps(self, name):
        self.modem_at(name + "-modem")
        return self.add(name, self.path(name + "-modem"), start=False, gps_enable=True)

    def test_ports_that_are_none(self):
        opened = {"null": lambda path: os.symlink("/dev/null", path), "fifo": os.mkfifo,
                  "file": lambda path: self.write(path, "$GPGGA,1*00\r\n")}
        for name, make in [*opened.items(), ("folder", os.mkdir), ("absent", lambda path: None)]:
            member = self.add_with_gps(name)
            make(os.path.join(member.folder, "gps"))
            self.start_member(member)
        for member in self.members:
            member.out.wait("Openning GPS port....OK" if member.name in opened else "INFO: Can't open GPS port.")
        self.assert_rest_goes_on()
        self.assert_all_stop(5 + ALLOWANCE)

    def test_babble(self):
        member = self.add_with_gps("babbled-at")
        line = self.babbler("babbled-at/gps", lambda: os.urandom(4096))
        self.start_member(member)
        member.out.wait("Openning GPS port....OK")
        self.wait_first_polls()
        kinds = [line.babble, blocks(b"\0"), blocks(b"$GPGGA,,,,,,0,,,,M,,M,,*66\r\n")]
        for n, kind in enumerate(kinds):
            line.babble, before = kind, line.said
            self.assert_rest_goes_on(mails=(20 + n,), burning=self.members)
            print("%d bytes" % (line.said - before))
            self.assertGreater(line.said - before, LEAST)
        plant.wait_for(lambda: b'"GGA":"$GPGGA,,,,,,0' in requests_plant.ask(requests_plant.request(52)), "a sentence")
        self.assert_all_stop(5 + ALLOWANCE)


class LocalPort:
    """The server's local port, that treats each connection by its mode: reads it, closes it at once or resets it; or it
    takes no more connections, without refusing them."""

    def __init__(self):
        self.mode, self.requests = "reads", []
        self._waiting = []
        self._listen(16)
        threading.Thread(target=self._serve, daemon=True).start()

    def _listen(self, room):
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind(("127.0.0.1", sms_plant.SERVER_PORT))
        self._socket.listen(room)
        self._socket.settimeout(0.1)

    def _serve(self):
        while self.mode != "ended":
            if self.mode == "full":
                time.sleep(0.02)
                continue
            try:
                connection, _ = self._socket.accept()
            except OSError:
                continue
            self._treat(connection)

    def _treat(self, connection):
        with connection:
            if self.mode == "resets":
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            elif self.mode == "reads":
                connection.settimeout(plant.PATIENCE)
                self.requests.append(connection.recv(4096).decode())

    def fill(self):
        """No more connections are taken, those that come get no answer at all."""
        self.mode = "full"
        self._socket.listen(0)
        for _ in range(4):
            waiting = socket.socket()
            waiting.setblocking(False)
            waiting.connect_ex(("127.0.0.1", sms_plant.SERVER_PORT))
            self._waiting.append(waiting)

    def empty(self):
        for waiting in self._waiting:
            waiting.close()
        self._socket.listen(16)

    def end(self):
        self.mode = "ended"
        self._socket.close()
        for waiting in self._waiting:
            waiting.close()


class ServerPort(sms_plant.SmsTest):
    def acknowledge(self, number):
        self.phone(JAN, "ACK:%d" % number)
        self.daemon.out.wait("Acknowledge alarm id: %d" % number)

    def test_after_each_bad_connection_the_next_acknowledge_arrives(self):
        port = LocalPort()
        self.addCleanup(port.end)
        self.start_answers()
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        port.mode = "closes"
        self.acknowledge(1)
        port.mode = "reads"
        self.acknowledge(2)
        port.fill()
        self.acknowledge(3)
        self.wait_pass()
        port.empty()
        port.mode = "reads"
        self.acknowledge(4)
        wanted = ["t=11&prj=7&id=%d&userID=1&ackText=ACK_SMS" % n for n in (2, 4)]
        plant.wait_for(lambda: [r for r in port.requests if r] == wanted, "the acknowledges",
                       detail=lambda: repr(port.requests))
        self.server.wait_requests(len(self.server.requests) + 1)
        self.assert_stops()


if __name__ == "__main__":
    plant.main()
