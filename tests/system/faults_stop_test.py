"""A stop request in each phase of each thread: status 0 within the daemon's own pauses, and what was not sent is told.

A phase is (the daemon, the condition in which it is, the pauses in seconds that it may take from there to its end). All
phases of a test run side by side, each with a thread that waits for the condition and sends the signal at once.
"""

import os
import signal
import socket
import threading
import time

import fleet_plant
import plant
import requests_plant
import sms_plant
from fleet_plant import ALLOWANCE, INITIALISATION_PAUSES
from sms_plant import EXCEEDED, INITIALISED, READING

LOOP = 5  # pause of the main loop
MAIL_SAVED = "::-> Saving MAIL into fronta_mail"
SMS_SAVED = "::-> Saving SMS ACTIVATION into fronta_sms"


def printed(line, count=1):
    return lambda member: member.out.count(line) >= count


def entries(*numbers, ahead=3):
    """Activations that are new to a daemon that has just been started."""
    moment = time.time() + ahead
    return plant.json_answer({"d": [plant.entry(number, 1, moment, micro) for micro, number in enumerate(numbers)]})


class StopTest(fleet_plant.FleetTest):
    def answers(self, answer):
        """A server of its own for one daemon."""
        server = plant.AnswerServer(self.folder, answer)
        self.addCleanup(server.end)
        return server

    def mail_storm(self, count, **when):
        return self.answers(lambda n, _: entries(*([20] * count), **when) if n == 0 else entries()).port

    def start_phase(self, member, condition, pauses, *signals):
        """Starts the daemon; the signals (SIGTERM when none are given) come as soon as the condition is true."""
        self.start_member(member)
        thread = threading.Thread(target=self._signal, args=(member, condition, signals or (signal.SIGTERM,)))
        thread.start()
        self.phases.append((member, pauses, thread))

    def setUp(self):
        super().setUp()
        self.phases, self.took = [], {}

    def _signal(self, member, condition, signals):
        plant.wait_for(lambda: condition(member), "the phase of " + member.name, detail=member.out.text)
        begin = time.monotonic()
        for number in signals:
            member.daemon.signal(number)
        member.daemon.wait_exit(2 * plant.PATIENCE)
        self.took[member] = time.monotonic() - begin

    def assert_phases_end(self):
        for member, pauses, thread in self.phases:
            thread.join()
            self.assertIn(member, self.took, "no phase or no end: %s\n%s" % (member.name, member.out.text()[-4000:]))
            print("%s: %.1f s, pauses of %.0f s" % (member.name, self.took[member], pauses))
            self.assert_ended_well(member)
            self.assertLess(self.took[member], pauses + ALLOWANCE, member.name)


class MainLoop(StopTest):
    def full_port(self):
        """A port that takes no more connections and refuses none."""
        full = socket.socket()
        self.addCleanup(full.close)
        full.bind(("127.0.0.1", 0))
        full.listen(0)
        for _ in range(4):
            waiting = socket.socket()
            self.addCleanup(waiting.close)
            waiting.setblocking(False)
            waiting.connect_ex(full.getsockname())
        return full.getsockname()[1]

    def silent_port(self):
        """A port that connections stand to, and nothing more happens."""
        silent = socket.socket()
        self.addCleanup(silent.close)
        silent.bind(("127.0.0.1", 0))
        silent.listen(16)
        return silent.getsockname()[1]

    @staticmethod
    def handles_signals(member):
        with open("/proc/%d/status" % member.daemon.pid) as file:
            caught = next(int(line.split()[1], 16) for line in file if line.startswith("SigCgt:"))
        return all(caught >> (number - 1) & 1 for number in (signal.SIGTERM, signal.SIGINT, signal.SIGUSR1))

    def test_at_the_start_and_while_files_are_loaded(self):
        big = [sms_plant.definition(n, [2]) for n in range(10000)]
        for name, condition, *signals in (
                ("handlers", self.handles_signals), ("handlers-int", self.handles_signals, signal.SIGINT),
                ("handlers-usr1", self.handles_signals, signal.SIGUSR1),
                ("alarms", printed("Nacitam cas.json")), ("users", printed("Nacitam user.json")),
                ("workers", printed("Starting FCGI thread."), signal.SIGUSR1)):
            member = self.add(name, "", start=False)
            if name in ("alarms", "users"):
                self.write(name + "/project/cas.json", big)
            # The files are read to their end.
            self.start_phase(member, condition, 2 + LOOP + 10 * (name in ("alarms", "users")), *signals)
        self.assert_phases_end()

    def test_in_a_poll_in_the_pause_and_behind_a_walk(self):
        body = entries(20)
        header = self.answers(lambda n, _: (b"", 100))
        half = self.answers(lambda n, _: (body[:-10], 100))
        full, silent = self.full_port(), self.silent_port()
        many = self.answers(lambda n, _: entries(*range(100, 2100)) if n == 0 else (time.sleep(1), entries())[1])
        asking = printed("Setting CURL Options.")
        for name, port, condition in (("connecting", full, asking), ("handshake", silent, asking),
                                      ("header", header.port, lambda _: header.requests),
                                      ("body", half.port, lambda _: half.requests),
                                      ("pause", None, printed(plant.starting("JSON : ")))):
            self.start_phase(self.add(name, "", server_port=port, start=False), condition, LOOP)
        walk = self.add("walk", "", server_port=many.port, start=False, resend_enable=1)
        self.write("walk/project/cas.json", [sms_plant.definition(n, [2]) for n in range(100, 2100)])
        self.start_phase(walk, printed("| Queue WAIT_FOR_ACK size: 2000"), LOOP)
        self.assert_phases_end()
        self.assertEqual(walk.unsent("SMS"), 2000)


class MailThread(StopTest):
    def test_each_mail_is_sent_or_told_as_unsent(self):
        pass_ = printed(plant.holding("-->Thread mail (queue:0)"))
        self.start_phase(self.add("first-pause", "", start=False), printed("Setting CURL Options."), LOOP)
        self.start_phase(self.add("pause", "", start=False), pass_, LOOP)
        runs = self.add("client-runs", "", "sleep 2\n", self.mail_storm(1), start=False)
        self.start_phase(runs, lambda member: member.client.runs(), 2 + LOOP)
        storm = self.add("storm", "", "", self.mail_storm(1000), start=False)
        client = os.path.join(storm.folder, plant.CLIENT_PATH)
        os.unlink(client)
        os.symlink("/usr/bin/true", client)
        self.start_phase(storm, printed("-> Odeslan"), LOOP + 30)  # the pass is finished
        # The one that hangs is given its time, and a SIGTERM.
        hangs = self.add("client-hangs", "", "exec sleep 6000\n", self.mail_storm(1000, ahead=plant.AHEAD), start=False)
        hangs.env, speed = plant.fast_clock(10)
        self.start_phase(hangs, lambda member: member.client.runs(), (plant.CLIENT_LIMIT + 1 + LOOP) / speed)
        # They come while the mail thread pauses, or sends already.
        late = self.add("late", "", "", self.answers(
            lambda n, _: entries(20, 21, 22) if n == 1 else entries()).port, start=False)
        self.start_phase(late, printed(MAIL_SAVED, 3), LOOP)
        self.assert_phases_end()
        self.assertEqual(runs.mails().total(), 1)
        self.assertEqual((storm.out.count("-> Odeslan"), storm.daemon.err.text()),
                         (1000, "".join(line + "\n" for line in storm.daemon.err.texts() if "FastCGI" in line)))
        self.assertGreater(self.took[hangs] * speed, plant.CLIENT_LIMIT)
        self.assertIn("Stop requested, mails not sent: 999", hangs.daemon.err.texts())
        self.assertEqual(hangs.client.runs(), 1)
        self.assertEqual(late.mails().total() + late.unsent("mail"), 3)


class SmsThread(StopTest):
    def test_each_message_is_told_as_sent_failed_or_unsent(self):
        begun = {}
        lock = threading.Lock()

        def answer(_, request):
            """Alarm 30 at the first poll of a daemon, alarm 31 at the second."""
            with lock:
                begun[request.connection] = begun.get(request.connection, -1) + 1
            return entries(30 + begun[request.connection]) if begun[request.connection] < 2 else entries()

        port = self.answers(answer).port
        # Alarm 31 comes when alarm 30 is told, so that it finds the limit reached.
        limit = self.answers(lambda n, _: entries(30) if n == 0 else
                             entries(*[31][:len(modems["limit"].delivered)])).port
        saved = printed(SMS_SAVED)
        silent = (False, [], "well")
        on_line = lambda wanted: lambda member: wanted in modems[member.name].received() and saved(member)
        modems = {name: self.modem_at("modem-" + name, silent) if name == "answer" else
                  self.modem_at("modem-" + name)
                  for name in ("pin", "initialisation", "loop", "prompt", "answer", "limit")}
        for name, condition, pauses, settings in (
                ("no-port", saved, LOOP, {}), ("absent", saved, 5 + 2 + 2, {}),
                ("pin", on_line(b"AT+CPIN="), INITIALISATION_PAUSES, {}),
                ("initialisation", on_line(b"AT+CMGF=1"), INITIALISATION_PAUSES, {}),
                ("loop", printed(INITIALISED), LOOP, {}), ("prompt", on_line(b"at+CMGS="), 2 + 5 + 2, {}),
                ("answer", on_line(b"\x1a"), 5 + 2, {}), ("limit", printed(EXCEEDED), LOOP, {"smspeermin": 0})):
            if name in ("pin", "initialisation"):
                modems[name].modem("mute")
            device = "" if name == "no-port" else self.path("modem-" + name)
            member = self.add(name, device, server_port=limit if name == "limit" else port, start=False, **settings)
            self.start_phase(member, condition, pauses)
        self.assert_phases_end()
        for member, _, _ in self.phases:
            with self.subTest(member.name):
                told, unsent = member.told_sms(), member.unsent("SMS")
                self.assertEqual(len(told) + unsent, member.out.count(SMS_SAVED), told)
                sent = {(number, text): 1 for number, text, well in told if well}
                self.assertEqual(sent, dict(modems[member.name].delivered) if member.name in modems else {})
                if member.name in ("no-port", "absent", "pin", "initialisation"):
                    self.assertEqual(told, [])


class Others(StopTest):
    def test_gps_while_it_waits_for_the_modem_and_in_its_loop(self):
        waits = self.add("waits", start=False, gps_enable=True)
        self.start_phase(waits, printed(plant.starting("JSON : ")), 5 + 2 + 2)  # the SMS thread's
        self.modem_at("modem")
        loops = self.add("loops", self.path("modem"), start=False, gps_enable=True)
        os.mkfifo(os.path.join(loops.folder, "gps"))
        self.start_phase(loops, printed("----------GPS-----------"), LOOP)
        self.assert_phases_end()
        for member in (waits, loops):
            self.assertEqual(member.out.count("->Vlakno GPS: Konec"), 1)

    def test_requests_are_answered_to_the_end_or_not_at_all(self):
        status = b'\n{"r":54,"s":1,"d":{"Timestamp":0,"From":"","Text":""}}\n'
        for number in (signal.SIGTERM, signal.SIGUSR1):
            answers, member = [], self.add("asked-%d" % number, "", start=False)

            def ask():
                try:
                    while True:
                        answers.append(requests_plant.ask(requests_plant.request(54)))
                except (OSError, EOFError):
                    pass

            self.start_phase(member, lambda _: len(answers) > 100, LOOP, number)
            plant.wait_for(lambda: ("0100007F", requests_plant.FCGI_PORT) in requests_plant.listening(), "the port")
            askers = [threading.Thread(target=ask) for _ in range(4)]
            for asker in askers:
                asker.start()
            self.assert_phases_end()
            for asker in askers:
                asker.join()
            # One that is taken up behind the signal is ended without an answer.
            self.assertLessEqual(set(answers), {status, b""})
            self.assertEqual(set(answers[:100]), {status})
            self.phases.clear()

    def test_many_signals(self):
        term, interrupt, reload = signal.SIGTERM, signal.SIGINT, signal.SIGUSR1
        orders = {"twice": (term, term), "hundred": (term,) * 100, "mixed": (term, interrupt, reload) * 30,
                  "reload-then-term": (reload, term), "term-then-reload": (term, reload), "reloads": (reload,) * 100}
        for name, signals in orders.items():
            self.modem_at("modem-" + name)
            member = self.add(name, self.path("modem-" + name), start=False)
            # Of a reading that is under way, the clearing of the store is waited for.
            self.start_phase(member, printed(READING), 1 + 4 + 2, *signals)
        self.assert_phases_end()
        for member, _, _ in self.phases:
            with self.subTest(member.name):
                text = member.out.text()
                self.assertEqual("Reload" in text, reload in orders[member.name])
                # Nothing is read again.
                self.assertEqual((text.count("Nacitam cas.json"), text.count("Koncim Vlakno sms.")), (1, 1))


if __name__ == "__main__":
    plant.main()
