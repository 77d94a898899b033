"""Local requests at the process's edge: FastCGI by tools that were written elsewhere, TCP, GPS, and clients that mean no
good or know no better."""

import contextlib
import json
import os
import signal
import socket
import threading
import time

import plant
import requests_plant
import sms_plant
from requests_plant import (
    DISABLED, ENABLED, FCGI_PORT, FcgiClient, GPS_OFF, NO_GPS, NOT_READY, PARSE_FAILURE, SMS_QUEUE_FULL, SMS_TAKEN, STATUS, TcpClient, ask,
    cgi_fcgi, last_sms, listening, record, records, request)
from sms_plant import EVE, JAN, STRANGER

NASTY = "%n%s%x"
UNFINISHED = records(request(55))[:-10]  # the end of its body is missing
HEAD = "FCGI: QUERY_STRING:  , URI: /alarmd\nFCGI: QUERY_STRING after decode:  \n"


class Protocols(requests_plant.RequestTest):
    """Exact answers and log lines, by the FastCGI tools and by a web server."""

    def check(self, body, answer, log):
        self.assertEqual(cgi_fcgi(body), b"\n" + answer if answer else b"")
        self.assert_logged(HEAD, "POST DATA: %s\n" % body.decode(), *([log] if log else []))

    def test_answers_and_log_of_a_daemon_that_has_seen_nothing_yet(self):
        self.start_alone()
        self.check(request(50, number="1", text="a"), SMS_TAKEN, "FCGI Request protocol 50 (Send SMS)\n")
        status = STATUS % (0, 0)
        self.check(request(51), status.encode(),
                   "FCGI Request protocol 51 (Read modem status)\nResponse: %s\n" % status)
        self.check(request(52), GPS_OFF, "FCGI Request protocol 52 (Read GPS raw data)\n"
                   'Response: {"r":52,"s":0,"err":"DPS disabled"}\n')
        self.check(request(53), NO_GPS, "Request protocol 53 (Read GPS parse data)\n"
                   'Response: {"r":53,"s":0,"err":"GPS disabled or CRC error."}\n')
        empty = last_sms(0, "", "")
        self.check(request(54), empty,
                   "Request protocol 54 (Read last receive SMS)\nResponse: %s\n" % empty.decode())
        self.check(request(55), DISABLED,
                   "Request protocol 55 (Disable notification)\nResponse: %s\n" % DISABLED.decode())
        self.check(request(56), ENABLED,
                   "Request protocol 56 (Enable notification)\nResponse: %s\n" % ENABLED.decode())

    def test_other_numbers_get_no_content_and_print_no_request_line(self):
        self.start_alone()
        for body in (b'{"t":49}', b'{"t":57}', b'{"t":0}', b'{"t":-50}', b"{}", b'{"t":null}', b"null"):
            self.check(body, b"", None)
        self.assertNotIn("equest protocol", self.daemon.out.text())
        self.assertNotIn("Response:", self.daemon.out.text())

    def test_a_request_without_a_body_gets_no_content(self):
        self.start_alone()
        self.assertEqual(cgi_fcgi(b""), b"")
        self.assertEqual(cgi_fcgi(b"", length=""), b"")
        self.assertEqual(cgi_fcgi(b'{"t":55}', length="0"), b"")
        self.assertEqual(cgi_fcgi(b'{"t":55}', length="-8"), b"")
        self.assertEqual(cgi_fcgi(b'{"t":55}', length=""), b"")
        self.assertNotIn("POST DATA", self.daemon.out.text())

    def test_a_body_that_is_no_json_gets_the_failure_without_a_line_feed(self):
        self.start_alone()
        self.check(b"not json", PARSE_FAILURE,
                   "Failed to parse JSON\n* Line 1, Column 1\n  Syntax error: value, object or array expected.\n\n")

    def test_members_of_a_wrong_type_get_the_failure(self):
        self.start_alone()
        for body in (b'{"t":"50"}', b'{"t":[]}', b'{"t":5e99}', b'{"t":50,"number":5,"text":"a"}',
                     b'{"t":50,"number":"5","text":{}}', b"[]", b'[{"t":55}]', b"5", b'"t"', b"true"):
            self.check(body, PARSE_FAILURE, "Failed to parse JSON\n* ")
        self.assertNotIn("equest protocol", self.daemon.out.text())

    def test_the_query_string_is_decoded_for_the_log_only(self):
        self.start_alone()
        self.assertEqual(cgi_fcgi(request(55), query="t=56&x=%41%20b", uri="/alarmd?t=56&x=%41%20b"), b"\n" + DISABLED)
        self.assert_logged("FCGI: QUERY_STRING: t=56&x=%41%20b , URI: /alarmd?t=56&x=%41%20b\n"
                           "FCGI: QUERY_STRING after decode: t=56&x=A b \n")

    def test_all_of_them_through_a_web_server(self):
        self.start_alone()
        nginx = self.start_nginx()
        wanted = [(request(50, number="1", text="a"), SMS_TAKEN), (request(51), (STATUS % (0, 0)).encode()),
                  (request(52), GPS_OFF), (request(53), NO_GPS), (request(54), last_sms(0, "", "")),
                  (request(55), DISABLED), (request(56), ENABLED), (b"not json", PARSE_FAILURE)]
        for body, answer in wanted:
            self.assertEqual(nginx.post(body), (200, answer))
        self.assertEqual(nginx.post(request(56), "/alarmd?a=b"), (200, ENABLED))
        self.assert_logged("FCGI: QUERY_STRING: a=b , URI: /alarmd?a=b\n")
        self.assertEqual(nginx.headers.get_all("Content-Type"), ["application/json"])
        # No content at all, not even the end of a header, is no answer to a web server.
        self.assertEqual(nginx.post(b'{"t":57}')[0], 502)
        self.assertEqual(nginx.post(b"")[0], 502)
        self.assertEqual(nginx.post(request(55)), (200, DISABLED))

    def start_named_nginx(self):
        nginx = requests_plant.Nginx(self.path("named"), "    server_name alarms.plant.example second.plant.example;\n")
        self.addCleanup(nginx.end)
        return nginx

    def test_through_a_web_server_its_own_names_are_answered(self):
        self.start_alone()
        nginx = self.start_named_nginx()
        for name in ("localhost", "127.0.0.1", "[::1]", "alarms.plant.example", "LOCALHOST", "Alarms.Plant.Example"):
            for host in (name, "%s:%d" % (name, nginx.port), name + ":80"):
                self.assertEqual(nginx.post(request(56), Host=host), (200, ENABLED), host)
                self.assertEqual(nginx.post(request(56), Host=host, Origin="http://" + host), (200, ENABLED), host)
                self.assertEqual(nginx.post(request(55), Host=host, Origin="http://evil.example")[0], 403, host)
        self.assertNotIn("protocol 55", self.daemon.out.text())

    def test_through_a_web_server_a_request_by_a_foreign_name_is_refused(self):
        self.start_alone()
        nginx = self.start_named_nginx()
        for host in ("evil.example", "evil.example:%d" % nginx.port, "127.0.0.1.evil.example", "localhost.evil.example",
                     "evil.example:127.0.0.1", "evil.localhost", "xalarms.plant.example", "alarms.plant.example.evil.example",
                     "second.plant.example", "0", "0.0.0.0", "[::]", "_", "-"):
            self.assertEqual(nginx.post(request(55), Host=host)[0], 403, host)
            # A page that has been led here by this name is, for the browser, a page of this server.
            self.assertEqual(nginx.post(request(55), Host=host, Origin="http://" + host)[0], 403, host)
        self.assertEqual(nginx.post(request(56)), (200, ENABLED))
        self.assertNotIn("protocol 55", self.daemon.out.text())

    def test_through_a_web_server_a_request_without_a_name_is_answered(self):
        self.start_alone()
        body = request(56)
        for start in (self.start_named_nginx, self.start_nginx):
            nginx = start()
            with socket.create_connection(("127.0.0.1", nginx.port), plant.PATIENCE) as client:
                client.sendall(b"POST /alarmd HTTP/1.0\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body))
                with client.makefile("rb") as answer:
                    self.assertRegex(answer.read(), rb"^HTTP/1.1 200 (.|\r\n)*\r\n\r\n" + ENABLED + b"$")
            nginx.end()


class Sms(requests_plant.RequestTest):
    def test_a_message_reaches_the_modem_through_the_web_server(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        nginx = self.start_nginx()
        self.assertEqual(nginx.post(request(50, number=EVE, text="Hello")), (200, SMS_TAKEN))
        self.wait_sms((EVE, "Hello"))
        self.daemon.out.wait(sms_plant.SEND_OK)
        self.assert_logged("Zpracovavam sms queue SMS RAW 1\n", "Sending ....Number: %s; Text: Hello\n" % EVE)
        self.assertIn(sms_plant.sent_as(EVE, "Hello"), self.modem.received())
        self.assertEqual(nginx.post(request(51)), (200, (STATUS % (0, 1)).encode()))

    def test_a_message_asked_for_before_the_modem_is_there_is_sent_later(self):
        self.start_plant()
        self.wait_responder()
        self.assertEqual(cgi_fcgi(request(50, number=EVE, text="Early")), b"\n" + SMS_TAKEN)
        self.start_modem()
        self.wait_sms((EVE, "Early"))

    def test_missing_members_are_empty_texts(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.assertEqual(cgi_fcgi(request(50)), b"\n" + SMS_TAKEN)
        self.daemon.out.wait("Sending ....Number: ; Text: ")

    def test_the_last_message_of_a_phone_is_told(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        before = int(time.time())
        self.phone(STRANGER, "Good morning")
        answer = cgi_fcgi(request(54))
        timestamp = json.loads(answer)["d"]["Timestamp"]
        self.assertEqual(answer, b"\n" + last_sms(timestamp, STRANGER, "Good morning"))
        self.assertTrue(before <= timestamp <= int(time.time()), answer)

    def test_nothing_is_escaped_in_what_a_phone_sent(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.phone(JAN, 'say "hi" \\')
        self.assertIn(b'"Text":"say "hi" \\"}}\n', cgi_fcgi(request(54)))

    def test_what_a_phone_sends_is_no_format(self):
        # "%%" gives "%" and the first "%s" the whole text; all else stays.
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.phone(JAN, "100%% %n%x%5$n %d")
        self.assertIn(b'"Text":"100% %n%x%5$n %d"}}\n', cgi_fcgi(request(54)))
        self.phone(JAN, NASTY)
        answer = cgi_fcgi(request(54))[1:]
        timestamp = int(answer.split(b'"Timestamp":')[1].split(b",")[0])
        whole = last_sms(timestamp, JAN, NASTY)
        self.assertEqual(answer, whole.replace(b"%s", whole, 1))
        self.assert_lives()

    def test_what_a_request_says_is_no_format(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        nasty = NASTY * 20
        self.assertEqual(cgi_fcgi(request(50, number=NASTY, text=nasty), query=nasty, uri=nasty), b"\n" + SMS_TAKEN)
        self.assertEqual(cgi_fcgi(nasty.encode(), query=nasty, uri=nasty), b"\n" + PARSE_FAILURE)
        self.assert_logged("FCGI: QUERY_STRING: %s , URI: %s\n" % (nasty, nasty), "Sending ....Number: %s; Text: %s\n" % (
            NASTY, nasty))
        self.assertEqual(cgi_fcgi(request(50, number=EVE, text=nasty)), b"\n" + SMS_TAKEN)
        self.wait_sms((EVE, nasty))
        self.assert_lives()


class FullQueue(requests_plant.RequestTest):
    """While the modem is away, messages wait: so many and no more."""

    def fill(self):
        with FcgiClient() as client:
            for number in range(1000):
                self.assertEqual(client.ask(request(50, number=EVE, text="No. %d" % number), keep=True), b"\n" + SMS_TAKEN)

    def test_beyond_a_thousand_messages_are_refused_and_what_waits_is_sent_when_the_modem_comes(self):
        self.start_plant()
        self.wait_responder()
        self.fill()
        nginx = self.start_nginx()
        self.assertEqual(nginx.post(request(50, number=EVE, text="No. 1000")), (200, SMS_QUEUE_FULL))
        self.assertEqual(cgi_fcgi(request(50)), b"\n" + SMS_QUEUE_FULL)
        self.assert_logged("POST DATA: %s\nFCGI Request protocol 50 (Send SMS)\n" % request(
            50, number=EVE, text="No. 1000").decode())
        self.start_modem()
        self.daemon.out.wait("Zpracovavam sms queue SMS RAW 1000")
        self.wait_sms((EVE, "No. 0"))
        self.wait_sms((EVE, "No. 1"))
        # Each that is sent makes room.
        plant.wait_for(lambda: nginx.post(request(50, number=EVE, text="x")) == (200, SMS_TAKEN), "room")

    def test_beyond_four_mebibytes_messages_are_refused(self):
        self.start_alone()
        for _ in range(4):
            self.assertEqual(ask(request(50, number=EVE, text="a" * 1000000)), b"\n" + SMS_TAKEN)
        self.assertEqual(ask(request(50, number=EVE, text="a" * 1000000)), b"\n" + SMS_QUEUE_FULL)
        self.assertEqual(ask(request(50, number=EVE, text="a")), b"\n" + SMS_TAKEN)
        self.assert_stops()
        self.daemon.err.wait("alarmd: stopping with 5 SMS queue entries unsent")

    def test_the_tcp_server_refuses_too_once_the_modem_is_ready(self):
        port = plant.free_port()
        self.start_plant(tcp_port=port)
        self.wait_responder()
        self.fill()
        self.wait_listening(port)
        self.start_modem()
        with TcpClient(port) as client:
            # Until the modem is ready it says so; then a message or two are on their way, and as many find room.
            def answer():
                client.send(request(50, number=EVE, text="by TCP"))
                line = b""
                while not line.endswith(b"\n"):
                    byte = client.receive(1)
                    self.assertTrue(byte, line)
                    line += byte
                self.assertIn(line, (NOT_READY, SMS_TAKEN, SMS_QUEUE_FULL))
                return line

            plant.wait_for(lambda: answer() == SMS_QUEUE_FULL, "the refusal", detail=self.daemon.out.text)


class Notifications(requests_plant.RequestTest):
    def test_switched_off_mails_and_sms_are_held_back_and_on_they_go(self):
        self.start_smtp()
        self.start_all()
        nginx = self.start_nginx()
        self.assertEqual(nginx.post(request(55)), (200, DISABLED))
        self.sim.alarm(13)
        # A mail to each of two, an SMS to each of three.
        self.daemon.out.wait("Notification DISABLED !!!!", 5)
        self.assertEqual(nginx.post(request(56)), (200, ENABLED))
        self.sim.alarm(13, "deactivated")
        self.smtp.wait_mails(2, detail=self.daemon.out.text)
        self.wait_sms((EVE, "(DEA) Message 13"))
        self.assertEqual({mail.row()["STATUS"] for mail in self.smtp.mails()}, {"Deactivate"})
        self.assertEqual([text for _, text in self.modem.sms() if "ACT" in text], [])

    def test_a_message_asked_for_goes_while_they_are_off(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.assertEqual(cgi_fcgi(request(55)), b"\n" + DISABLED)
        self.assertEqual(cgi_fcgi(request(50, number=EVE, text="Asked for")), b"\n" + SMS_TAKEN)
        self.wait_sms((EVE, "Asked for"))


def with_checksum(sentence):
    checksum = 0
    for byte in sentence.encode():
        checksum ^= byte
    return "$%s*%02X" % (sentence, checksum)


class Gps(requests_plant.RequestTest):
    def start_with_gps(self, *arguments):
        self.start_modem()
        self.start_gps(*arguments)
        self.start_plant(gps_enable=True)
        self.daemon.out.wait("Openning GPS port....OK")

    def ask_now(self, protocol):
        """An answer with data, and the seconds whose GGA sentence it holds."""
        data = lambda answer: json.loads(answer).get("d", {})
        answer = plant.wait_for(lambda: self.with_data(cgi_fcgi(request(protocol))), "data",
                                detail=lambda: self.daemon.out.text()[-4000:])
        return answer, [said for said in self.gps.said() if data(answer)["GGA"] in said["GGA"]]

    @staticmethod
    def with_data(answer):
        data = json.loads(answer).get("d", {})
        return answer if data.get("GGA") and data.get("VTG") else None

    def check(self, protocol, make):
        """An answer is made of the sentences of one second. One that came while they were coming in is asked for anew."""
        for _ in range(10):
            answer, seconds = self.ask_now(protocol)
            if seconds and answer == b"\n" + make(seconds[0]):
                return answer
            time.sleep(0.4)
        self.fail("%r is not made of %r" % (answer, seconds))

    @staticmethod
    def raw(said):
        return ('{"r":52,"s":1,"d":{"GGA":"%s","GSA":"%s","RMC":"%s","VTG":"%s","GSV":[%s]}}\n' % (
            said["GGA"], said["GSA"], said["RMC"], said["VTG"],
            ",".join('"%s"' % sentence for sentence in said["GSV"]))).encode()

    @staticmethod
    def parsed(said):
        return ('{"r":53,"s":1,"d":{"GGA":"%s","GSA":"%s","RMC":"%s","VTG":"%s","GSV":"%s"}}\n' % (
            *(said[kind][7:-3] for kind in ("GGA", "GSA", "RMC", "VTG")),
            "".join(sentence[11:-3] for sentence in said["GSV"]))).encode()

    def test_switched_on_the_sentences_are_told_raw_and_parsed(self):
        self.start_with_gps()
        raw = self.check(52, self.raw)
        self.assert_logged("FCGI Request protocol 52 (Read GPS raw data)\nResponse: %s\n" % raw[1:].decode())
        parsed = self.check(53, self.parsed)
        self.assert_logged("Request protocol 53 (Read GPS parse data)\nResponse: %s\n" % parsed[1:].decode())
        nginx = self.start_nginx()
        self.assertEqual(json.loads(nginx.post(request(53))[1])["s"], 1)

    def test_the_modem_is_told_to_position_behind_its_initialisation(self):
        self.start_with_gps()
        orders = b"AT^WPDOM=0\r\0AT^WPDGP\r\0"
        self.modem.wait_received(sms_plant.READ)
        self.assertTrue(self.modem.received().startswith(sms_plant.INITIALISATION + orders + sms_plant.READ),
                        self.modem.received())
        self.assert_logged("GPS is switched on\n", "MODEM INITIALIZATION SUCCESSFULL\n", "Setting GPS... \n")

    def test_the_thread_begins_when_the_modem_is_initialised_and_prints_the_store(self):
        self.start_with_gps()
        self.daemon.out.wait(plant.starting("GPRMC: $GPRMC,"))
        self.assert_in_order(self.daemon.out.texts(), [
            "MODEM INITIALIZATION SUCCESSFULL", "Starting thread GPS .....", "Openning GPS port....OK",
            "----------GPS-----------"])
        self.daemon.out.wait(plant.starting("GPGSV[2]: "))
        said = self.gps.said()
        blocks = self.daemon.out.text().split("----------GPS-----------\n")
        told = next(block for block in blocks if "GPRMC: $" in block).split("------------------------\n")[0]
        self.assertIn(told, ["GPGGA: %s\nGPRMC: %s\nGPGSA: %s\nGPVTG: %s\n%s" % (
            one["GGA"], one["RMC"], one["GSA"], one["VTG"],
            "".join("GPGSV[%d]: %s\n" % (n, text) for n, text in enumerate(one["GSV"], 1))) for one in said])
        self.assert_stops()
        self.assert_logged("->Vlakno GPS: Ukoncovani\n", "->Vlakno GPS: Konec\n")

    def test_of_other_talkers_all_kinds_are_taken(self):
        self.start_with_gps("--glonass")
        answer, _ = self.ask_now(52)
        data = json.loads(answer)["d"]
        self.assertEqual([data[kind][:6] for kind in ("GGA", "GSA", "RMC", "VTG")],
                         ["$GNGGA", "$GNGSA", "$GNRMC", "$GNVTG"])

    def test_a_wrong_checksum_is_told_and_gives_no_data(self):
        self.start_with_gps()
        self.ask_now(53)
        self.gps.gps("corrupt")
        plant.wait_for(lambda: cgi_fcgi(request(53)) == b"\n" + NO_GPS, "the refusal")
        self.assert_logged("Request protocol 53 (Read GPS parse data)\n" + 4 * "CRC FAIL\n" + "Response: ")
        self.assertEqual(json.loads(cgi_fcgi(request(52)))["s"], 1)
        self.gps.gps("normal")
        self.ask_now(53)

    def test_lines_that_end_in_other_ways_and_empty_ones_between_them_are_taken(self):
        self.start_with_gps()
        self.ask_now(53)
        self.gps.gps("silent")
        told = {kind: with_checksum(sentence) for kind, sentence in (
            ("GGA", "GNGGA,101112.00,5004.5000,N,01426.5000,E,1,05,1.1,230.0,M,44.7,M,,"),
            ("GSA", "GNGSA,A,3,02,05,12,15,20,,,,,,,,1.6,1.1,1.3"), ("VTG", "GNVTG,17.0,T,,M,12.0,N,22.2,K,A"))}
        told["GSV"] = [with_checksum("GPGSV,1,1,01,02,74,042,45")]
        for end in ("\n", "\r\r\n", "\r\n\r\n", "\n\n"):
            told["RMC"] = with_checksum("GNRMC,101112.00,A,5004.5000,N,01426.5000,E,%d.0,17.0,211126,,,A" % len(end))
            self.gps.gps("says", text="\r\n\n" + end.join([told["GGA"], told["RMC"], told["GSA"], *told["GSV"],
                                                                      told["VTG"], ""]))
            plant.wait_for(lambda: cgi_fcgi(request(52)) == b"\n" + self.raw(told), "the sentences")
            plant.wait_for(lambda: cgi_fcgi(request(53)) == b"\n" + self.parsed(told), "right checksums")

    def test_without_satellites_the_empty_fields_are_told(self):
        self.start_with_gps()
        self.gps.gps("no fix")
        plant.wait_for(lambda: b',,,,,0,00,,,M,,M,,",' in cgi_fcgi(request(53)), "the empty fields")

    def test_without_a_modem_the_port_is_read_after_30_s(self):
        self.start_gps()
        self.start_plant(gps_enable=True, modemPort="")
        self.daemon.out.wait("Openning GPS port....OK", limit=60)
        self.ask_now(53)

    def test_without_a_receiver_the_store_stays_empty(self):
        self.start_modem()
        self.start_plant(gps_enable=True)
        self.daemon.out.wait("INFO: Can't open GPS port.")
        self.daemon.out.wait("GPRMC: ")
        self.assertEqual(cgi_fcgi(request(52)),
                         b'\n{"r":52,"s":1,"d":{"GGA":"","GSA":"","RMC":"","VTG":"","GSV":[]}}\n')
        self.assertEqual(cgi_fcgi(request(53)), b"\n" + NO_GPS)
        self.assert_stops()

    def test_a_receiver_that_says_nonsense_does_no_harm(self):
        self.start_server()
        self.start_with_gps()
        self.ask_now(53)
        self.gps.gps("silent")
        self.gps.gps("noise", count=3000)
        for index in ("0", "1", "31", "32", "-1", "99999999999", "x", ""):
            self.gps.gps("line", text="$GPGSV,%s,%s,08,%s*00" % (index or "9", index, NASTY))
        self.gps.gps("line", text="$GPGGA," + NASTY)
        self.gps.gps("says", text="$GPRMC," + "9" * 3000)
        for line in ("", "$", "$GP", "$GPGGA", "$GPGSV", "$GPGSV,", "*", "$GPVTG*"):
            self.gps.gps("line", text=line)
        plant.wait_for(lambda: b"GGA" in cgi_fcgi(request(52)), "an answer")
        cgi_fcgi(request(53))
        self.gps.gps("normal")
        self.ask_now(53)
        self.gps.gps("unplug")
        self.assertEqual(json.loads(cgi_fcgi(request(53)))["s"], 1)
        self.assert_lives()


class Tcp(requests_plant.RequestTest):
    def start_tcp(self, **settings):
        """The daemon with the TCP server on, and a modem that is initialised."""
        self.port = plant.free_port()
        self.start_modem()
        self.start_plant(tcp_port=self.port, **settings)
        self.wait_initialised()
        self.wait_listening(self.port)

    def test_before_the_modem_is_initialised_every_request_is_refused(self):
        self.port = plant.free_port()
        self.start_plant(tcp_port=self.port)
        self.wait_listening(self.port)
        with TcpClient(self.port) as client:
            for body in (request(50, number=EVE, text="no"), request(54), request(99), b'{"t":"x"}'):
                self.assertEqual(client.ask(body, NOT_READY), NOT_READY)
            self.assertEqual(client.ask(b"not json", PARSE_FAILURE), PARSE_FAILURE)
        self.start_modem()
        self.wait_initialised()
        self.modem.wait_received(sms_plant.READ, 2)
        self.assertEqual(self.modem.sms(), [])

    def test_a_message_is_taken_and_sent_and_all_is_logged(self):
        self.start_tcp()
        with TcpClient(self.port) as client:
            self.assertEqual(client.ask(request(50, number=EVE, text="By TCP"), SMS_TAKEN), SMS_TAKEN)
            self.assert_logged("TCP requests are switched on: 127.0.0.1:%d, timeout 15 s\n" % self.port,
                               "pripojen klient:127.0.0.1:%d\n" % client.own_port,
                               "Request protocol 50 (Send SMS)\n")
            self.wait_sms((EVE, "By TCP"))

    def test_the_last_message_is_told(self):
        self.start_tcp()
        with TcpClient(self.port) as client:
            empty = last_sms(0, "", "")
            self.assertEqual(client.ask(request(54), empty), empty)
            self.assert_logged("Request protocol 54 (Read last receive SMS)\nResponse: %s\n" % empty.decode())
            self.phone(STRANGER, "100%% " + NASTY)
            client.send(request(54))
            client.socket.shutdown(socket.SHUT_WR)
            # Unlike the responder's, this answer is no format.
            answer = client.receive(1000).decode()
            self.assertRegex(answer, r'^\{"r":54,"s":1,"d":\{"Timestamp":\d+,"From":"\+420777777777","Text":"')
            self.assertEqual(answer.split('"Text":')[1], '"100%%%% %s"}}\n' % NASTY)

    def test_other_numbers_get_no_answer_and_a_wrong_type_the_failure(self):
        self.start_tcp()
        for body, answer in ((b'{"t":51}', b""), (b'{"t":0}', b""), (b"{}", b""), (b'{"t":[1]}', PARSE_FAILURE),
                             (b'{"t":50,"number":1}', PARSE_FAILURE), (b"[]", PARSE_FAILURE)):
            with TcpClient(self.port) as client:
                client.send(body)
                client.socket.shutdown(socket.SHUT_WR)
                self.assertEqual(client.receive(1000), answer)
        self.assertNotIn("equest protocol", self.daemon.out.text())

    def test_a_silent_client_is_dropped_after_the_timeout_and_a_talking_one_is_not(self):
        self.start_tcp(tcp_timeout=5)
        over = threading.Event()
        with TcpClient(self.port) as silent, TcpClient(self.port) as talking:
            threading.Thread(target=self.talk, args=(talking, over), daemon=True).start()
            took = silent.closed_within(plant.PATIENCE)
            self.assertIsNotNone(took)
            self.assertGreater(took, 5 - sms_plant.LATE)
            self.assertIsNone(talking.closed_within(1))
            over.set()

    @staticmethod
    def talk(client, over):
        while not over.wait(0.3):
            try:
                client.send(b"{}")
            except OSError:
                return

    def test_a_stop_with_clients_connected_ends_with_status_0(self):
        self.start_tcp()
        clients = [TcpClient(self.port) for _ in range(20)]
        self.daemon.out.wait(plant.starting("pripojen klient:127.0.0.1:"), 20)
        self.assert_stops(25)
        for client in clients:
            self.assertIsNotNone(client.closed_within(5))

    def test_answers_go_to_who_asked_200_clients_at_once(self):
        self.start_tcp()
        empty = last_sms(0, "", "")
        # The queue of those that wait to be accepted is short, so they come one after the other, and stay.
        clients = []
        for _ in range(200):
            clients.append(TcpClient(self.port))
            self.addCleanup(clients[-1].socket.close)
            self.assertEqual(clients[-1].ask(request(54), empty), empty)
        results = []

        def work(client):
            results.append([client.ask(request(54), empty) for _ in range(5)])

        workers = [threading.Thread(target=work, args=(client,)) for client in clients]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join(120)
        self.assertEqual(results, [[empty] * 5] * 200)
        self.assert_lives()

    def test_packets_of_one_byte_and_of_a_megabyte_do_no_harm(self):
        self.start_server()
        self.start_tcp()
        with TcpClient(self.port) as client:
            for _ in range(20):
                self.assertEqual(client.ask(b"x", PARSE_FAILURE), PARSE_FAILURE)
        with TcpClient(self.port) as client:
            received = threading.Event()
            # What it sends is read while the server answers each piece of it.
            threading.Thread(target=lambda: (client.closed_within(60), received.set()), daemon=True).start()
            client.send(b'{"t":54,"x":"' + b"a" * 1000000 + b'"}')
            client.socket.shutdown(socket.SHUT_WR)
            self.assertTrue(received.wait(60))
        with TcpClient(self.port) as client:
            empty = last_sms(0, "", "")
            self.assertEqual(client.ask(request(54), empty), empty)
        self.assert_lives()

    def test_a_client_that_never_reads_keeps_nobody_waiting(self):
        self.start_server()
        self.start_tcp()
        lazy = [TcpClient(self.port) for _ in range(5)]
        for client in lazy:
            client.socket.setblocking(False)
            try:
                for _ in range(5000):
                    client.socket.send(b"x" * 2048)
            except BlockingIOError:
                pass
        with TcpClient(self.port) as client:
            empty = last_sms(0, "", "")
            begin = time.monotonic()
            self.assertEqual(client.ask(request(54), empty), empty)
            self.assertLess(time.monotonic() - begin, 10)
        self.sim.wait_polls(2)
        self.assert_stops(40)
        for client in lazy:
            client.socket.close()

    def test_a_port_that_is_taken_is_told_and_the_rest_works(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            self.start_server()
            self.start_alone(tcp_port=taken.getsockname()[1])
            self.daemon.out.wait(plant.holding("Problem s pojmenovanim soketu."))
            self.assert_lives()


class Defaults(requests_plant.RequestTest):
    def test_gps_and_tcp_are_off_and_nothing_else_listens(self):
        self.start_modem()
        self.start_gps()
        self.start_plant()
        before = {port for port in listening() if port[1] != FCGI_PORT}
        self.wait_initialised()
        self.wait_responder()
        self.modem.wait_received(sms_plant.READ)
        self.assertEqual(listening() - before, {("0100007F", FCGI_PORT)})
        self.assertEqual(before, set())
        self.assertNotIn("GPS", self.daemon.out.text())
        self.assertNotIn("TCP", self.daemon.out.text())
        self.assertTrue(self.modem.received().startswith(sms_plant.INITIALISATION + sms_plant.READ))
        self.assertEqual(self.gps.events("fix"), [])

    def test_settings_of_a_wrong_kind_switch_nothing_on(self):
        for settings in ({"gps_enable": "yes", "tcp_port": "2000"}, {"gps_enable": [], "tcp_port": 70000},
                         {"tcp_port": -1}):
            self.start_alone(**settings)
            self.assertEqual(listening(), {("0100007F", FCGI_PORT)})
            self.assertNotIn("switched on", self.daemon.out.text())
            self.assertEqual(self.daemon.stop()[0], 0)


class BadClients(requests_plant.RequestTest):
    """The responder's port, by clients that do not speak as they should."""

    def start_served(self):
        self.start_server()
        self.start_alone()

    def test_garbage_and_half_records(self):
        self.start_served()
        whole = records(request(55))
        pieces = [b"x", b"GET / HTTP/1.1\r\n\r\n", b"\0" * 1000, b"\xff" * 100000, bytes(range(256)) * 100, b"{}",
                  record(9, b"\x0fFCGI_MPXS_CONNS"), record(2), record(99, b"abc"), record(1, b"\0\1"), record(1, b"\xff" * 8),
                  record(4, b"\xff\xff\xff\xff\xff\xff\xff\xff"), record(4, b"\x7f\xff\xff\xff\x01a"), record(5, b"abc")]
        pieces += [whole[:length] for length in range(0, len(whole), 3)]
        begin = record(1, b"\0\1\0\0\0\0\0\0")
        pieces += [begin + record(4, b"\x84\0\0\0\x01") + record(4), begin + record(4, b"\xff" * 60000) * 20,
                   begin + begin, begin + record(4, b"", 2), records(b"{}", length=10 ** 30)]
        for piece in pieces:
            with FcgiClient() as client:
                try:
                    client.send(piece)
                    client.socket.shutdown(socket.SHUT_WR)
                    client.socket.recv(65536)
                except OSError:
                    pass
        self.assert_lives()

    def test_bodies_of_a_megabyte(self):
        self.start_served()
        text = "a" * 1000000
        self.assertEqual(ask(request(50, number="1", text=text)), b"\n" + SMS_TAKEN)
        self.assertEqual(ask(b"[" * 1000000), b"\n" + PARSE_FAILURE)
        self.assertEqual(ask(text.encode()), b"\n" + PARSE_FAILURE)
        exact = b'{"t":55,"x":"' + b"a" * (1024 * 1024 - 15) + b'"}'
        self.assertEqual(len(exact), 1024 * 1024)
        self.assertEqual(ask(exact), b"\n" + DISABLED)
        self.assertEqual(ask(exact + b" "), b"\n" + PARSE_FAILURE)
        self.assertEqual(ask(b" " * 5000000), b"\n" + PARSE_FAILURE)
        self.daemon.out.wait("* the request is longer than 1 MiB", 2)
        self.assert_lives()

    def test_a_length_that_is_longer_than_what_comes_or_shorter(self):
        self.start_served()
        for length in (1, 7, 100, 2000000, 10 ** 30):
            with FcgiClient() as client:
                client.send(records(request(55), length=length))
                self.assertEqual(client.answer(), b"\n" + DISABLED)
        with FcgiClient() as client:
            client.send(records(request(55) + b"x" * 100, length=len(request(55))))
            client.answer()
        self.assert_logged("POST DATA: %s\n" % (request(55) + b"x" * 100).decode())
        self.assert_lives()

    def test_too_long_a_body_is_answered_whether_its_rest_comes_or_not(self):
        self.start_served()
        for length in (1, 3000000):
            whole = records(b" " * 3000000, length=length, keep=True)
            for sent in (1300000, len(whole)):
                with FcgiClient() as client:
                    client.send(whole[:sent])
                    self.assertEqual(client.answer(), b"\n" + PARSE_FAILURE)
        self.daemon.out.wait("* the request is longer than 1 MiB", 4)
        self.assert_lives()

    def test_ten_thousand_requests_in_a_row(self):
        self.start_served()
        descriptors = lambda: len(os.listdir("/proc/%d/fd" % self.daemon.pid))
        ask(request(56))
        before = descriptors()
        with FcgiClient() as client:
            for _ in range(9000):
                self.assertEqual(client.ask(request(56), keep=True), b"\n" + ENABLED)
        for _ in range(1000):
            self.assertEqual(ask(request(56)), b"\n" + ENABLED)
        # The last connections may be on their way out, and a poll on its own.
        plant.wait_for(lambda: descriptors() <= before + 3, "the end of the connections")
        self.daemon.out.wait("Request protocol 56 (Enable notification)", 10001)
        self.assert_lives()

    def test_fifty_clients_at_once(self):
        self.start_served()
        results = []

        def work():
            results.append([ask(request(54)) for _ in range(10)])

        workers = [threading.Thread(target=work) for _ in range(50)]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join(120)
        self.assertEqual(results, [[b"\n" + last_sms(0, "", "")] * 10] * 50)
        self.assert_lives()

    def assert_served(self, within=10):
        begin = time.monotonic()
        self.assertEqual(ask(request(56)), b"\n" + ENABLED)
        self.assertLess(time.monotonic() - begin, within)

    def test_silent_clients_are_not_waited_for_be_they_more_than_there_is_room_for(self):
        self.start_served()
        for count in (100, 200):
            clients = [FcgiClient() for _ in range(count)]
            for client, piece in zip(clients, (b"", b"\1", UNFINISHED, UNFINISHED[:20])):
                client.send(piece)
            self.assert_served()
            for client in clients:
                client.socket.close()
        self.assert_lives()

    def test_half_requests_in_all_places_keep_others_out_for_10_s_at_most(self):
        self.start_served()
        clients = [FcgiClient() for _ in range(200)]
        for client in clients:
            client.send(UNFINISHED)
        self.assert_served(25)  # the first 128, and then the others
        for client in clients:
            client.socket.close()
        self.assert_lives()

    def test_aborts_in_all_places_keep_nobody_out(self):
        self.start_served()
        clients = [FcgiClient() for _ in range(128)]
        over = threading.Event()
        self.addCleanup(over.set)
        threading.Thread(target=self.abort, args=(clients, over), daemon=True).start()
        for _ in range(3):
            self.assert_served()
            time.sleep(1)
        plant.wait_for(lambda: self.connected() == 0, "the end of their connections")
        over.set()
        for client in clients:
            client.socket.close()
        self.assert_lives()

    @staticmethod
    def abort(clients, over):
        while not over.wait(2):
            for client in clients:
                with contextlib.suppress(OSError):
                    client.send(record(2))

    def connected(self):
        """The connections of the responder."""
        with open("/proc/net/tcp") as file:
            return sum(line.split()[1].endswith(":%04X" % FCGI_PORT) and line.split()[3] == "01" for line in file)

    def test_a_client_that_is_silent_in_the_middle_is_dropped(self):
        self.start_served()
        with FcgiClient() as client:
            client.send(UNFINISHED)
            self.assertEqual(client.socket.recv(100), b"")
        self.assertNotIn("Disable notification", self.daemon.out.text())

    def test_clients_that_leave_in_the_middle(self):
        self.start_served()
        whole = records(request(56))
        for length in range(1, len(whole), 7):
            with FcgiClient() as client:
                client.send(whole[:length])
                if length % 2:
                    # Closed with a reset.
                    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        for _ in range(100):
            with FcgiClient() as client:
                client.send(whole)  # the answer is not waited for
        self.assert_served()
        self.assert_lives()

    def test_clients_that_never_read(self):
        self.start_served()
        clients = [FcgiClient() for _ in range(20)]
        many = records(request(51), keep=True) * 500
        for client in clients:
            client.socket.setblocking(False)
            try:
                client.socket.send(many)
            except BlockingIOError:
                pass
        self.assert_served()
        for client in clients:
            client.socket.close()
        self.assert_lives()

    def test_a_stop_while_clients_are_connected_and_silent(self):
        self.start_served()
        clients = [FcgiClient() for _ in range(20)]
        clients[0].send(UNFINISHED)
        self.assert_stops()
        for client in clients:
            client.socket.close()

    def test_a_port_that_is_taken_is_tried_until_it_is_free(self):
        self.start_server()
        taken = socket.socket()
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind(("127.0.0.1", FCGI_PORT))
        taken.listen()
        self.start_plant(modemPort="")
        self.daemon.err.wait(plant.holding("127.0.0.1:11032", "trying again every second"))
        self.sim.wait_polls(2)
        taken.close()
        self.daemon.err.wait("alarmd: FastCGI requests are answered on 127.0.0.1:11032")
        self.assert_lives()

    def test_a_stop_while_the_port_is_taken(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", FCGI_PORT))
            taken.listen()
            self.start_plant(modemPort="")
            self.daemon.err.wait(plant.holding("127.0.0.1:11032"))
            self.assert_stops()


class Stop(requests_plant.RequestTest):
    def test_the_responder_does_not_hold_the_stop_up(self):
        self.start_alone()
        self.assertEqual(cgi_fcgi(request(55)), b"\n" + DISABLED)
        status, seconds = self.daemon.stop(signal.SIGINT)
        self.assertEqual(status, 0)
        self.assertLess(seconds, 12)
        self.assertNotIn(("0100007F", FCGI_PORT), listening())


if __name__ == "__main__":
    plant.main()
