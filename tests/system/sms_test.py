"""SMS both ways: alarms to phones, answers from phones to the server; the modem's port and what goes over its line."""

import json
import os
import threading
import time

import plant
import requests_plant
import sms_plant
from sms_plant import EVE, GRETA, JAN, STRANGER, SEND_FAIL, SEND_OK, sent_as

ACK_REQUEST = "t=11&prj=7&id=%s&userID=%d&ackText=ACK_SMS"
HEADER = "\x1b[0;0;32m-->Thread sms (%s:%d) \x1b[0;0;37m"


class Road(sms_plant.SmsTest):
    def test_an_alarm_reaches_phones_and_an_answer_acknowledges_it(self):
        self.start_smtp()
        self.start_all()
        self.sim.alarm(13)
        self.wait_sms((JAN, "(ACT) Zpráva 13 /ack:13"), (GRETA, "(ACT) Meldung 13 /ack:13"),
                      (EVE, "(ACT) Message 13 /ack:13"))
        self.phone(JAN, "ACK:13")
        self.wait_acks(ACK_REQUEST % ("13", 1))
        self.wait_sms((JAN, "(ACK) Zpráva 13"), (GRETA, "(ACK) Meldung 13"), (EVE, "(ACK) Message 13"))
        self.sim.alarm(13, "deactivated")
        self.wait_sms((JAN, "(DEA) Zpráva 13"), (GRETA, "(DEA) Meldung 13"), (EVE, "(DEA) Message 13"))
        self.assertEqual(len(self.modem.sms()), 9)
        mails = self.smtp.wait_mails(6, detail=self.daemon.out.text)
        self.assertEqual(sorted((mail["To"], mail.row()["STATUS"]) for mail in mails),
                         [(to, status) for to in ("greta@plant.example", "jan@plant.example")
                          for status in ("Acknowledge", "Activate", "Deactivate")])
        self.assertEqual({mail.row()["USER"] for mail in mails if mail.row()["STATUS"] == "Acknowledge"}, {"1"})

    def test_the_log_of_a_message_sent(self):
        self.start_all()
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.daemon.out.wait(plant.starting("Number: "))
        text = "Number: %s; Text: (ACT) Message 14 /ack:14\n" % EVE
        self.assertIn(HEADER % ("queue", 1) + "\n" + HEADER % ("queue_raw", 0) + "\n"
                      "Zpracovavam sms queue SMS\n(SMS) GROUP: 2 - FOUND alarm ID: 14\n"
                      "Sending ...." + text + SEND_OK + "\n" + text, self.sms_log())

    def test_the_bytes_of_a_message_sent(self):
        self.start_all()
        self.sim.alarm(12)
        self.sim.alarm(14, "deactivated")
        self.wait_sms((JAN, "(ACT) Zpráva 12 /ack:12"), (GRETA, "(ACT) Meldung 12 /ack:12"), (EVE, "(DEA) Message 14"))
        wanted = [sent_as(JAN, "(ACT) Zpráva 12 /ack:12"), sent_as(GRETA, "(ACT) Meldung 12 /ack:12"),
                  sent_as(EVE, "(DEA) Message 14")]
        # The reading of messages comes between.
        rest = self.modem.received().replace(sms_plant.READ, b"").replace(sms_plant.CLEAR, b"")
        self.assertEqual(rest, sms_plant.INITIALISATION + b"".join(wanted))
        # The port is read by a process of its own. One that reads the begin of a message late sees a shorter pause, so
        # the longest of the three counts.
        pauses = [self.modem.when(message) - self.modem.when(message[:message.index(b"\r") + 1]) for message in wanted]
        self.assertGreaterEqual(max(pauses), 2.01 - sms_plant.LATE)

    def test_the_log_of_a_message_read(self):
        self.start_all()
        self.phone(JAN, "ack:12")
        self.daemon.out.wait("Acknowledge alarm id: 12")
        self.assertIn(
            "\t-->Thread sms: Cteni SMS\n\tAT Command: \tAT+CMGR=0\r\n\tAT Command size : 11\n\tCtu SMS cislo: 0\n"
            "\tText: ack:12\r\n\tFrom: +420601000001\n\tClearing all SMS..... \nAUTHORIZED USER !!!\n\n"
            "Execute command: ACK:12\nAcknowledge alarm id: 12\n", self.sms_log())
        self.wait_pass()
        self.assertEqual(self.modem.command(query="store")["store"], [])

    def test_each_group_brings_its_own_message_and_groups_10_and_11_none(self):
        jan = sms_plant.USERS[0]
        nobody = {**jan, "level": 3, "tel": ""}
        self.start_all(cas=[sms_plant.definition(12, [1, 2, 3, 9, 10, 11])],
                       users=[jan, {**jan, "level": 2}, nobody, {**jan, "level": 9, "tel": EVE, "language": "xx"},
                              {**jan, "level": 10, "tel": GRETA}, {**jan, "level": 11, "tel": GRETA}])
        self.sim.alarm(12, "deactivated")
        self.wait_sms((JAN, "(DEA) Zpráva 12"), (JAN, "(DEA) Zpráva 12"), (EVE, "(DEA) Message 12"))
        self.wait_pass()
        self.assertEqual(len(self.modem.sms()), 3)

    def test_the_mail_client_inherits_neither_modem_nor_connection(self):
        client = self.fake_client('ls -l /proc/self/fd >"$0.fds"\n')
        self.start_all()
        self.phone(JAN, "ACK:99")
        self.wait_acks(ACK_REQUEST % ("99", 1))
        self.sim.alarm(13)
        self.keep_alive(client.runs)
        plant.wait_for(lambda: os.path.exists(self.path(plant.CLIENT_PATH + ".fds")), "the client's list")
        with open(self.path(plant.CLIENT_PATH + ".fds")) as file:
            inherited = file.read()
        self.assertNotIn("/dev/pts", inherited)
        self.assertNotIn("socket:", inherited)

    def test_an_acknowledgement_of_nothing_active_changes_nothing(self):
        self.start_all()
        self.phone(EVE, "Ack:77")
        self.wait_acks(ACK_REQUEST % ("77", 3))
        self.assertFalse(self.sim.events("ack request")[0]["done"])
        self.sim.wait_polls(2)
        self.assertEqual(self.modem.sms(), [])


class Senders(sms_plant.SmsTest):
    """Who may acknowledge."""

    def read(self, number, text, *wanted, shown=None):
        """A phone's message is read; its number, or what is shown of it, and the wanted lines are printed for it."""
        self.phone(number, text)
        self.wait_pass()
        self.assertIn("\tText: %s\r\n\tFrom: %s\n\tClearing all SMS..... \n%s\n\n" % (
            text, number if shown is None else shown, "\n".join(wanted)), self.sms_log())

    def test_a_stranger_is_refused(self):
        self.start_all()
        self.read(STRANGER, "ACK:12", "UNAUTHORIZED USER !!!", "")
        self.assertEqual(self.acks(), [])

    def test_a_user_without_control_is_refused(self):
        self.start_all()
        self.read(GRETA, "ACK:12", "UNAUTHORIZED USER !!!", "")
        self.assertEqual(self.acks(), [])

    def test_a_user_of_the_same_phone_with_control_is_found(self):
        self.start_all(users=sms_plant.USERS + [{**sms_plant.USERS[2], "id": 9, "tel": GRETA}])
        self.read(GRETA, "ACK:12", "AUTHORIZED USER !!!", "", "Execute command: ACK:12", "Acknowledge alarm id: 12")
        self.wait_acks(ACK_REQUEST % ("12", 9))

    def test_a_number_without_its_prefix_is_another_number(self):
        self.start_all()
        self.read(JAN[4:], "ACK:12", "UNAUTHORIZED USER !!!", "")
        self.assertEqual(self.acks(), [])

    def test_an_empty_sender_is_nobody_and_a_number_before_a_comma_is_no_sender(self):
        self.start_all(users=sms_plant.USERS + [{**sms_plant.USERS[2], "id": 9, "tel": ""}])
        self.read("", "ACK:12", "UNAUTHORIZED USER !!!", "")
        self.read(JAN + ",A", "ACK:13", "UNAUTHORIZED USER !!!", "", shown=JAN)
        self.assertEqual(self.acks(), [])
        self.read(JAN, "ACK:14", "AUTHORIZED USER !!!", "", "Execute command: ACK:14", "Acknowledge alarm id: 14")
        self.wait_acks(ACK_REQUEST % ("14", 1))

    def test_other_texts_are_ignored(self):
        self.start_all()
        self.read(JAN, "hello", "AUTHORIZED USER !!!", "", "Execute command: HELLO")
        self.read(JAN, "ACK:", "AUTHORIZED USER !!!", "", "Execute command: ACK:")
        self.read(JAN, "ACK:1:2", "AUTHORIZED USER !!!", "", "Execute command: ACK:1:2", "Aalarm ID not found")
        self.assertEqual(self.acks(), [])


class Initialisation(sms_plant.SmsTest):
    def test_its_bytes_and_pauses(self):
        self.start_modem()
        # The first look for an OK comes at once, and a modem that answered as fast would spare the pause behind it.
        self.modem.modem("slow", seconds=0.5)
        self.start_plant()
        self.modem.wait_received(b'000"\r')
        self.modem.modem("normal")
        self.modem.wait_received(sms_plant.READ, 2)
        begin = sms_plant.INITIALISATION + sms_plant.READ + sms_plant.CLEAR + sms_plant.READ
        self.assertEqual(self.modem.received()[:len(begin)], begin)
        orders = (b'""\r\r', b"AT^CURC=0\r", b"AT+CMGF=1\r", b'000"\r', sms_plant.READ)
        pin, reports, mode, centre, read = (self.modem.when(order) for order in orders)
        # All from the begin, so that an order that was seen late makes no later pause look short.
        pin = min(pin, self.daemon.out.wait(plant.starting("PIN seted"))[0])
        self.assertGreaterEqual(reports - pin, 3 - sms_plant.LATE)
        self.assertGreaterEqual(mode - pin, 3 + 1 - sms_plant.LATE)
        self.assertGreaterEqual(centre - pin, 3 + 1 + 1 - sms_plant.LATE)
        self.assertGreaterEqual(read - pin, 3 + 1 + 1 + 1 + 1 + 2 - sms_plant.LATE)
        self.assertLess(read - centre, 4 + 1 + 2)  # an OK ends the wait of up to 4 s

    def test_its_log(self):
        self.start_modem("--pin", "4711")
        self.start_plant(pin="4711")
        self.daemon.out.wait(plant.holding("(queue_raw:0)"))
        self.assertIn(
            'Openning Modem port....OK\nPIN seted => Sending: AT+CPIN="4711"\r\r\nAktivace: 3\n'
            "MODEM INITIALIZATION SUCCESSFULL\n" + HEADER % ("queue", 0) + "\n" + HEADER % ("queue_raw", 0) + "\n",
            self.sms_log())
        self.assert_in_order(self.daemon.out.texts(), ["Seriovy port otevren", "Openning Modem port....OK"])

    def test_a_pin_that_is_asked_for_is_given(self):
        self.start_modem("--pin", "4711")
        self.start_plant(pin="4711")
        self.wait_initialised()
        self.assertTrue(self.modem.command(query="state")["sim_ready"])

    def test_a_wrong_pin_leaves_two_of_three_and_no_message_goes(self):
        # The centre is kept on the SIM; the other two commands do not need it.
        self.start_modem("--pin", "4711")
        self.start_server()
        self.start_plant(pin="1234")
        self.daemon.out.wait("Aktivace: 2")
        self.wait_initialised()
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL)
        self.assertEqual(self.modem.sms(), [])
        self.assertEqual(self.modem.command(query="state")["tries_left"], 2)

    def test_without_a_sim_reading_and_sending_fail_and_go_on(self):
        self.start_modem("--no-sim")
        self.start_server()
        self.start_plant()
        self.wait_initialised()
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL)
        self.daemon.out.wait(sms_plant.READING, 2)
        self.assertNotIn("\tText: ", self.daemon.out.text())

    def test_an_empty_centre_is_sent_and_two_of_three_are_enough(self):
        self.start_modem()
        self.modem.modem("slow", seconds=0.5)
        self.start_plant(smsc=None)
        self.daemon.out.wait("Aktivace: 2")
        self.wait_initialised()
        self.assertEqual(self.modem.received(), b'AT+CPIN=""\r\rAT^CURC=0\rAT+CMGF=1\rAT+CSCA=""\r')
        self.assertGreaterEqual(self.daemon.out.wait("Aktivace: 2")[0] - self.daemon.out.wait(
            plant.starting("PIN seted"))[0], 3 + 1 + 1 + 4 - sms_plant.LATE)

    def test_a_modem_of_another_maker_is_initialised(self):
        self.start_modem("--model", "EM7565")
        self.start_plant()
        self.daemon.out.wait("Aktivace: 2")
        self.wait_initialised()

    def test_a_mute_modem_is_tried_until_it_answers(self):
        self.start_modem()
        self.modem.modem("mute")
        self.start_plant()
        self.daemon.out.wait(sms_plant.NOT_INITIALISED, 2)
        self.modem.modem("normal")
        self.wait_initialised()
        self.assertEqual(self.daemon.out.count("Seriovy port otevren"), 1)
        self.assertEqual(self.daemon.out.count("Aktivace: 0"), 2)
        self.assertTrue(self.modem.received().startswith(3 * sms_plant.INITIALISATION), self.modem.received())

    def test_a_slow_modem_is_waited_for(self):
        self.start_server()
        self.start_modem()
        self.modem.modem("slow", seconds=1.5)
        self.start_plant()
        self.wait_initialised()
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.daemon.out.wait(SEND_OK)


class Port(sms_plant.SmsTest):
    def test_an_empty_port_is_told_and_the_rest_works(self):
        self.start_server()
        client = self.fake_client()
        self.start_plant(modemPort="")
        self.daemon.out.wait("Modem port empty.")
        self.sim.alarm(13)
        client.wait_runs(1)
        self.sim.wait_polls(1)
        self.assertNotIn("Thread sms", self.daemon.out.text())
        self.assert_stops()

    def test_a_port_that_comes_late_is_found(self):
        self.start_server()
        self.start_plant()
        missing = "INFO: Can't open modem port."
        self.daemon.out.wait(missing)
        self.sim.alarm(14)
        first, second = (self.daemon.out.wait(missing, count)[0] for count in (1, 2))
        # The wait for the port to be open, and the pause.
        self.assertGreaterEqual(second - first, 5 + 2 - sms_plant.LATE)
        self.assertEqual(self.daemon.out.count("Seriovy port otevren"), 0)
        self.start_modem()
        self.wait_initialised()
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))

    def test_a_port_of_the_settings_is_used(self):
        modem = sms_plant.ModemSim("--link", self.path("modem"))
        self.addCleanup(modem.end)
        self.start_plant(modemPort=self.path("modem"))
        self.wait_initialised()

    def test_a_port_that_is_a_file_is_no_modem_and_does_no_harm(self):
        self.write("file", "some text\n")
        self.start_server()
        self.start_plant(modemPort=self.path("file"))
        self.daemon.out.wait(sms_plant.NOT_INITIALISED)
        self.sim.wait_polls(1)
        self.assert_stops(30)

    def test_a_port_that_is_a_folder_cannot_be_opened(self):
        self.start_plant(modemPort=self.folder)
        self.daemon.out.wait("INFO: Can't open modem port.")
        self.assert_stops()


class Line(sms_plant.SmsTest):
    def test_it_works_with_echo_off(self):
        self.start_server()
        self.start_modem()
        with open(sms_plant.MODEM_PORT, "wb", buffering=0) as port:
            port.write(b"ATE0\r")
            self.modem.out.wait(sms_plant.event("command", command="ATE0"))
        self.start_plant()
        self.wait_initialised()
        self.assertFalse(self.modem.command(query="state")["echo"])
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.daemon.out.wait(SEND_OK)
        self.phone(EVE, "ACK:14")
        self.wait_acks(ACK_REQUEST % ("14", 3))
        self.wait_sms((EVE, "(ACK) Message 14"))

    def test_unsolicited_lines_in_between_do_no_harm(self):
        self.start_server()
        self.start_modem()
        # This model knows no order that would end them.
        self.modem.modem("reply", to="AT^CURC=0", text="\r\nOK\r\n")
        self.modem.modem("chatter", seconds=0.03)
        self.start_plant()
        self.wait_initialised()
        self.sim.alarm(14)
        self.modem.command(phone=STRANGER, calls=True)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.phone(EVE, "ACK:14")
        self.wait_acks(ACK_REQUEST % ("14", 3))
        self.wait_sms((EVE, "(ACK) Message 14"))
        self.modem.command(phone=STRANGER, calls=True)
        self.phone(EVE, "ACK:15")
        self.wait_acks(ACK_REQUEST % ("14", 3), ACK_REQUEST % ("15", 3))

    def test_a_message_without_an_ok_fails_and_is_not_sent_again(self):
        self.start_all()
        self.modem.command(network="refuses", count=1)
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL)
        self.sim.alarm(14, "deactivated")
        self.wait_sms((EVE, "(DEA) Message 14"))
        self.daemon.out.wait(SEND_OK)
        self.assertEqual(self.modem.sms(), [(EVE, "(ACT) Message 14 /ack:14"), (EVE, "(DEA) Message 14")])

    def test_a_prompt_behind_which_an_error_came_is_ended_before_the_next_message(self):
        self.start_all()
        self.modem.modem("reply", to="at+CMGS", text="\r\n> \r\n+CMS ERROR: 500\r\n", times=1)
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_FAIL)
        self.sim.alarm(14, "deactivated")
        self.wait_sms((EVE, "(DEA) Message 14"))
        self.daemon.out.wait(SEND_OK)
        self.assertIn(b'at+CMGS="%s"\r\x1b' % EVE.encode(), self.modem.received())

    def test_a_text_behind_a_refused_number_is_no_command(self):
        self.start_all()
        requests_plant.ask(requests_plant.request(50, number="nobody", text="x\rAT+CMGF=0\rx"))
        failed = self.daemon.out.wait(SEND_FAIL)[0]
        begun = self.daemon.out.wait(plant.starting("Sending ...."))[0]
        self.assertGreaterEqual(failed - begun, 2.01 - sms_plant.LATE)
        self.assertIn(b'at+CMGS="nobody"\r', self.modem.received())
        self.assertNotIn(b"CMGF=0", self.modem.received())
        self.assertIn(b'"SMSCOUNT":"0"', requests_plant.ask(requests_plant.request(51)))
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.daemon.out.wait(SEND_OK)

    def test_the_echo_of_a_text_with_an_ok_counts_as_one(self):
        self.start_all(cas=[sms_plant.definition(14, [2], "Pump OK")])
        self.modem.command(network="refuses", count=1)
        self.sim.alarm(14)
        self.daemon.out.wait(SEND_OK)
        self.assertFalse(self.modem.events("sms")[0]["sent"])

    def test_readings_are_at_least_5_s_apart(self):
        self.start_modem()
        self.start_plant()
        self.modem.wait_received(sms_plant.READ, 4)
        times = [self.modem.when(sms_plant.READ, count) for count in range(1, 5)]
        for earlier, later in zip(times, times[1:]):
            # Whole seconds are compared, and a look comes every 2 s.
            self.assertGreater(later - earlier, 5 - sms_plant.LATE)
            self.assertLess(later - earlier, 9)

    def test_a_model_whose_messages_begin_at_1_gives_none_at_0(self):
        # The model is not asked for at the start, so the first message stays unread.
        self.start_server()
        self.start_modem("--model", "ME909s-120")
        self.start_plant()
        self.wait_initialised()
        self.modem.phone(JAN, "ACK:12")
        self.daemon.out.wait(sms_plant.READING, 2)
        self.assertEqual(self.modem.command(query="store")["store"][0]["state"], "REC UNREAD")
        self.assertNotIn(sms_plant.CLEAR, self.modem.received())


class Limit(sms_plant.SmsTest):
    def test_fifteen_at_once_go_and_the_next_drain_waits_for_its_minute(self):
        users = [{**sms_plant.USERS[2], "id": n, "tel": "+4206010001%02d" % n} for n in range(15)]
        self.start_server()
        self.start_modem()
        self.start_plant(clock=True, users=users)
        self.wait_initialised()
        self.sim.alarm(14)
        self.wait_sms(*((user["tel"], "(ACT) Message 14 /ack:14") for user in users), limit=120)
        self.assertEqual(self.daemon.out.count(sms_plant.EXCEEDED), 0)
        self.wait_pass()  # a drain under way would send the next ones as well
        self.set_clock(-60)  # however long the fifteen took, their minute is not over
        self.sim.alarm(14, "deactivated")
        self.daemon.out.wait(sms_plant.EXCEEDED, 2)
        self.assertEqual(len(self.modem.sms()), 15)
        self.set_clock(61)
        self.wait_sms((users[0]["tel"], "(DEA) Message 14"))

    def test_the_limit_of_the_settings_holds(self):
        self.start_server()
        self.start_modem()
        self.start_plant(clock=True, smspeermin=1)
        self.wait_initialised()
        self.sim.alarm(12)
        self.wait_sms((GRETA, "(ACT) Meldung 12 /ack:12"))
        self.wait_pass()
        self.sim.alarm(14)
        self.daemon.out.wait(sms_plant.EXCEEDED, 2)
        self.assertEqual(len(self.modem.sms()), 2)
        self.set_clock(61)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))


class Inflow(sms_plant.SmsTest):
    def ask_for_messages(self):
        """One message a second, without an end."""
        while not self.asked_enough.wait(1):
            requests_plant.ask(requests_plant.request(50, number=STRANGER, text="Hello"))

    def test_messages_asked_for_without_end_hold_up_no_alarm_no_reading_and_no_limit(self):
        self.start_all(smspeermin=3)
        for _ in range(6):
            requests_plant.ask(requests_plant.request(50, number=STRANGER, text="Hello"))
        self.asked_enough = threading.Event()
        asking = threading.Thread(target=self.ask_for_messages)
        asking.start()
        self.addCleanup(asking.join)
        self.addCleanup(self.asked_enough.set)
        self.wait_sms((STRANGER, "Hello"))
        readings = self.daemon.out.count(sms_plant.READING)
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.daemon.out.wait(sms_plant.READING, readings + 1)
        self.daemon.out.wait(sms_plant.EXCEEDED)


class Stale(sms_plant.SmsTest):
    def test_an_alarm_a_day_old_is_told_and_not_sent(self):
        self.start_server()
        # The history's times go by the simulated server's clock, the age by the daemon's.
        self.start_plant(clock=True)
        self.daemon.out.wait("INFO: Can't open modem port.")
        old, young = int(time.time()) + 10, int(time.time()) + 1000
        self.sim.alarm(14, time=[old, 0])
        self.sim.alarm(14, "deactivated", time=[young, 0])
        self.sim.wait_polls(1)
        self.daemon.out.wait("stat: 0")
        self.set_clock(86400 + 20)
        self.start_modem()
        self.daemon.out.wait("ALARM TIMEOUT !!! (%d %s)" % (old, time.ctime(old)))
        self.wait_sms((EVE, "(DEA) Message 14"))
        self.assertEqual(len(self.modem.sms()), 1)


    def test_without_a_port_it_leaves_the_queue(self):
        self.leaves_the_queue(modemPort="")

    def test_without_a_modem_at_the_port_it_leaves_the_queue(self):
        self.leaves_the_queue()

    def leaves_the_queue(self, **settings):
        self.start_server()
        self.start_plant(clock=True, **settings)
        old, young = int(time.time()) + 10, int(time.time()) + 1000
        self.sim.alarm(14, time=[old, 0])
        self.sim.alarm(14, "deactivated", time=[young, 0])
        self.daemon.out.wait("stat: 0")
        self.assertNotIn("ALARM TIMEOUT", self.daemon.out.text())
        self.set_clock(86400 + 20)
        self.daemon.out.wait("ALARM TIMEOUT !!! (%d %s)" % (old, time.ctime(old)))
        self.sim.wait_polls(2)
        self.assertEqual(self.daemon.out.count(plant.starting("ALARM TIMEOUT !!!")), 1)
        self.assert_stops()
        self.daemon.err.wait("alarmd: stopping with 1 SMS queue entries unsent")


class Waiting(sms_plant.SmsTest):
    """The list of alarms that wait for their acknowledge."""

    def start(self, **settings):
        self.start_server()
        self.start_modem()
        self.start_plant(clock=True, resend_enable=1, **settings)
        self.wait_initialised()
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))

    def rows(self):
        return [line for line in self.daemon.out.texts() if line.startswith("| 14\t|")]

    def wait_walks(self, count=2):
        walk = "--> Check Re-Send Queue"
        self.daemon.out.wait(walk, self.daemon.out.count(walk) + count)

    def assert_dropped(self):
        """One more walk drops the alarm, and nothing is sent again."""
        self.wait_walks()
        rows = len(self.rows())
        self.wait_walks()
        self.assertEqual(len(self.rows()), rows)
        self.assertEqual(len(self.modem.sms()), 1)

    def test_an_alarm_leaves_it_after_5_minutes(self):
        self.start()
        self.wait_walks()
        self.assertTrue(self.rows()[-1].endswith("\t|0\t|300\t\t|"), self.rows())
        self.set_clock(301)
        self.assert_dropped()

    def test_an_alarm_in_its_second_period_leaves_it_after_an_hour(self):
        self.start(resend_period1_quantity=0)
        self.set_clock(3500)
        self.wait_walks()
        rows = len(self.rows())
        self.wait_walks()
        self.assertGreater(len(self.rows()), rows)
        self.assertTrue(self.rows()[-1].endswith("\t|0\t|3600\t\t|"), self.rows())
        self.set_clock(3601)
        self.assert_dropped()

    def test_an_acknowledged_alarm_leaves_it_at_once(self):
        self.start()
        self.wait_walks()
        self.phone(EVE, "ACK:14")
        self.wait_sms((EVE, "(ACK) Message 14"))
        rows = len(self.rows())
        self.wait_walks()
        self.assertEqual(len(self.rows()), rows)


class ServerLine(sms_plant.SmsTest):
    """The connection to the server's local port."""

    def start_raw(self):
        self.port = sms_plant.RawPort()
        self.addCleanup(self.port.end)
        self.start_answers()
        self.start_modem()
        self.start_plant()
        self.wait_initialised()

    def wait_connections(self, count):
        plant.wait_for(lambda: len(self.port.connections) >= count and self.port.connections[count - 1][1] is not None,
                       "the end of connection %d" % count, detail=self.daemon.out.text)

    def test_the_request_is_these_bytes_and_nothing_behind_and_5_s_of_silence_end_it(self):
        self.start_raw()
        self.phone(JAN, "ACK:12")
        self.wait_connections(1)
        data, seconds = self.port.connections[0]
        self.assertEqual(data, b"t=11&prj=7&id=12&userID=1&ackText=ACK_SMS")
        self.assertGreater(seconds, 5 - sms_plant.LATE)
        self.assertLess(seconds, 8)
        self.phone(EVE, "ack: pump #3 ")
        self.wait_connections(2)
        self.assertEqual(self.port.connections[1][0], b"t=11&prj=7&id= PUMP #3 &userID=3&ackText=ACK_SMS")

    def test_it_is_not_connected_before_something_is_sent(self):
        self.start_raw()
        self.daemon.out.wait(sms_plant.READING, 2)
        self.assertEqual(self.port.connections, [])

    def test_a_request_while_the_port_is_away_is_lost_and_the_next_one_connects(self):
        self.start_all()
        self.sim.command(tcp="away")
        self.phone(JAN, "ACK:12")
        self.daemon.out.wait("Acknowledge alarm id: 12")
        self.wait_pass()
        self.sim.command(tcp="back")
        self.wait_pass()
        self.assertEqual(self.acks(), [])
        self.phone(JAN, "ACK:13")
        self.wait_acks(ACK_REQUEST % ("13", 1))

    def acknowledge(self, *ids):
        self.phone(JAN, "ACK:%d" % ids[-1])
        self.wait_acks(*(ACK_REQUEST % (number, 1) for number in ids))

    def test_a_connection_that_lives_serves_the_next_request(self):
        self.start_all()
        self.acknowledge(12)
        self.modem.phone(JAN, "ACK:13")
        self.keep_alive(lambda: len(self.sim.events("ack request")) == 2)
        self.assertEqual(self.sim.command(query="state")["tcp_connections"], 1)

    def test_a_request_after_the_server_closed_connects_again(self):
        self.start_all()
        self.acknowledge(12)
        self.sim.command(tcp="away")
        self.sim.command(tcp="back")
        self.acknowledge(12, 13)
        self.assertEqual(self.sim.command(query="state")["tcp_connections"], 2)

    def test_a_pushed_history_line_is_handled_like_an_answer(self):
        self.start_all()
        self.acknowledge(12)
        polls = len(self.sim.polls())
        self.keep_alive(lambda: len(self.sim.polls()) > polls)
        moment = int(time.time()) + 100
        line = json.dumps({"d": [plant.entry(14, 1, moment, 6)]})
        self.sim.command(push=line)
        self.daemon.out.wait("JSON : " + line)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.assertEqual(self.daemon.out.count("JSON : " + line), 1)
        self.assertIn("start=%d.7&" % moment, self.sim.polls()[-1]["body"])

    def test_half_a_line_holds_the_polls_until_it_is_whole(self):
        self.start_all()
        self.acknowledge(12)
        self.sim.command(push='{"d":', newline=False)
        time.sleep(0.5)
        polls = len(self.sim.polls())
        for _ in range(4):
            time.sleep(2)
            self.sim.command(push=" ", newline=False)
        self.assertLessEqual(len(self.sim.polls()), polls)
        self.sim.command(push="[]}")
        self.daemon.out.wait('JSON : {"d":    []}')
        self.sim.wait_polls(2)

    def test_half_a_line_and_silence_do_not_stop_the_polls(self):
        self.start_all()
        self.sim.command(greet='{"d":[{"id":', newline=False)
        self.acknowledge(12)
        self.sim.out.wait(sms_plant.event("tcp client", what="closed"))
        self.sim.wait_polls(2)
        self.sim.command(greet='{"d":[]}')
        self.acknowledge(12, 13)
        # What was left of the first connection is no part of the next one's line.
        self.daemon.out.wait('JSON : {"d":[]}')
        self.assertNotIn('{"id":', self.daemon.out.text())

    def hold_up(self, begin, more, told):
        """The server says begin and then, second by second, more, until the daemon hangs up and tells why. The polls and
        the next acknowledge go on."""
        self.start_all()
        self.acknowledge(12)
        self.sim.command(push=begin, newline=False)
        began = time.monotonic()
        while not self.daemon.err.count(told):
            self.assertLess(time.monotonic() - began, 60 + plant.PATIENCE)
            try:
                self.sim.command(push=more, newline=False)
            except AssertionError:
                break  # no client is connected any more
            time.sleep(1)
        self.daemon.err.wait(told)
        self.assertGreater(time.monotonic() - began, 59)
        self.sim.wait_polls(2)
        self.acknowledge(12, 13)
        self.assertEqual(self.sim.command(query="state")["tcp_connections"], 2)
        self.assertEqual(self.daemon.err.count(told), 1)

    def test_a_line_that_is_trickled_without_an_end_goes_after_a_minute_and_the_polls_go_on(self):
        self.hold_up('{"d":', " ",
                     "alarmd: a line from 127.0.0.1:11010 is unfinished after 60 s: dropped with its connection")
        self.assertNotIn('{"d": ', self.daemon.out.text())

    def test_lines_of_which_one_always_has_begun_go_after_a_minute_and_the_polls_go_on(self):
        self.hold_up("{", "}\n{", "alarmd: a line from 127.0.0.1:11010, one behind the other, holds up the polls since "
                                  "60 s: dropped with its connection")

    def test_half_a_line_and_a_close_do_not_stop_the_polls(self):
        self.start_all()
        self.acknowledge(12)
        self.sim.command(push='{"d":[{"id":', newline=False)
        self.sim.command(tcp="away")
        self.sim.wait_polls(2)
        self.assertNotIn('{"id":', self.daemon.out.text())


class Stop(sms_plant.SmsTest):
    """SIGTERM in each phase of the SMS thread's life."""

    def test_while_the_port_is_waited_for(self):
        self.start_plant()
        self.daemon.out.wait("INFO: Can't open modem port.")
        self.assert_stops()

    def test_during_the_initialisation(self):
        self.start_modem()
        self.start_plant()
        self.daemon.out.wait("Openning Modem port....OK")
        self.assert_stops(25)
        self.assertIn("Koncim Vlakno sms.........", self.daemon.out.texts())

    def test_during_the_initialisation_of_a_mute_modem(self):
        self.start_modem()
        self.modem.modem("mute")
        self.start_plant()
        self.daemon.out.wait(sms_plant.NOT_INITIALISED)
        self.assert_stops(30)

    def test_in_the_working_loop(self):
        self.start_modem()
        self.start_plant()
        self.daemon.out.wait(sms_plant.READING)
        self.assert_stops()
        self.assert_in_order(self.daemon.out.texts(),
                             ["Interrupt signal (15) received.", "Koncim Vlakno sms........."])
        self.modem.out.wait(sms_plant.event("port", what="closed"))

    def test_before_a_message_s_text(self):
        self.start_all()
        self.sim.alarm(13)
        self.modem.wait_received(b"at+CMGS=")
        self.assert_stops()
        # A stopping channel takes no more bytes, and no more messages are begun.
        self.assertEqual(self.modem.received().count(b"at+CMGS="), 1)
        self.assertEqual(self.daemon.out.count(SEND_FAIL), 1)

    def test_while_an_ok_is_waited_for(self):
        self.start_all()
        self.modem.command(network="slow", seconds=60)
        self.sim.alarm(14)
        self.modem.wait_received(b"\x1a")
        self.assert_stops()

    def test_while_the_limit_holds_messages_back(self):
        self.start_server()
        self.start_modem()
        self.start_plant(smspeermin=0)
        self.wait_initialised()
        self.sim.alarm(14)
        self.wait_sms((EVE, "(ACT) Message 14 /ack:14"))
        self.wait_pass()  # a drain under way would send the next one as well
        self.sim.alarm(14, "deactivated")
        self.daemon.out.wait(sms_plant.EXCEEDED)
        self.assert_stops()

    def test_while_a_reading_is_not_answered(self):
        self.start_all()
        self.modem.modem("mute")
        self.modem.wait_received(sms_plant.READ)
        self.assert_stops()

    def test_while_the_store_is_cleared(self):
        self.start_all()
        self.modem.modem("reply", to="AT+CMGD", text="")
        self.modem.wait_received(sms_plant.CLEAR)
        self.assert_stops()

    def test_while_connected_to_the_server(self):
        self.start_all()
        self.phone(JAN, "ACK:12")
        self.wait_acks(ACK_REQUEST % ("12", 1))
        self.assert_stops()

    def test_while_the_server_is_connected_to(self):
        # Nobody listens: the connection is tried for 2 s.
        self.start_answers()
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.phone(JAN, "ACK:12")
        self.daemon.out.wait("Acknowledge alarm id: 12")
        self.assert_stops()

    def test_by_sigusr1(self):
        self.start_modem()
        self.start_plant()
        self.daemon.out.wait(sms_plant.READING)
        self.assertEqual(self.daemon.stop(plant.signal.SIGUSR1)[0], 0)
        self.assertIn("Koncim Vlakno sms.........", self.daemon.out.text())


if __name__ == "__main__":
    plant.main()
