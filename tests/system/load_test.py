"""Much at once: thousands of alarms in one answer, answer after answer, and what becomes of memory, queues and counts.

The sizes are such as a test can have. With KORVATO_LOAD=full (./soak.sh --load) they are the real ones, and figures are
printed. An SMS takes the modem seconds, so the great numbers of them are composed while notifications are off; some
hundreds are really sent, on a clock that runs faster.
"""

import collections
import os
import time

import counting_plant
import plant
import requests_plant
import sms_plant

FULL = os.environ.get("KORVATO_LOAD") == "full"
SPEED = 1 if FULL else 10  # of the daemon's clock: its pauses are most of a small load's time
LIMIT = 7200 if FULL else 200  # seconds; of a wait, on a machine that does much else
LANGUAGES = ["cs", "de", "en"]
USERS, GROUPS = 20, 10
HELD_BACK, NEW_ALARM = b"Notification DISABLED !!!!", b"---------------NEW ALARM"
SENT = sms_plant.SEND_OK.encode()
MAIL_PASS, SMS_PASS, RAW_PASS = b"-->Thread mail (queue:", b"-->Thread sms (queue:", b"-->Thread sms (queue_raw:"

# What the C library may keep of freed memory beyond the round before: it gives only the heap's end back, and how long a
# queue becomes depends on how the threads take turns. Below a tenth of this was seen; to lose each mail's text makes
# three times as much.
SLACK = 2048  # kB


def tell(text, *values):
    if FULL:
        print("  " + text % values, flush=True)


def users(phones):
    return [{"id": number + 1, "level": number % GROUPS, "name": "User %d" % number, "smsControl": False,
             "mail": "user%d@plant.example" % number, "tel": "+4206010000%02d" % number if phones else "",
             "language": LANGUAGES[number % 3]} for number in range(USERS)]


def alarms(count, groups_of):
    """Definitions 1 to count, all told by mail and SMS in every state, in the groups that groups_of gives of a
    number."""
    return [{"id": number, "severity": 1, "area": "Area", "device": "Device", "tag": "T", "message": "%d" % number,
             "areaLangs": {}, "deviceLangs": {},
             "messageLangs": {language: "%s %d" % (language, number) for language in LANGUAGES}, "email": True,
             "smsAct": True, "smsDeact": True, "smsAck": True,
             "group": [group in groups_of(number) for group in range(GROUPS + 2)]} for number in range(1, count + 1)]


def everybody(number):
    return range(GROUPS)


def one_group(number):
    return [number % GROUPS]


class LoadTest(requests_plant.RequestTest):
    def setUp(self):
        super().setUp()
        if FULL:
            print()  # what follows are figures
        self.client = counting_plant.CountingClient(self.path(plant.CLIENT_PATH))
        self.answers = collections.deque()  # answers to give, one a poll
        self.lines = collections.Counter()
        self.passes = {}  # of each queue the size at the begin of the last pass, and how many passes there were
        self.alarm_time = 0
        self.round = 0

    # -- the plant

    def start(self, definitions, user_list, speed=1, **settings):
        self.settings(smspeermin=1000000, **settings)
        self.configure()
        self.project(groups=[], cas=definitions, users=user_list)
        self.definitions, self.users = definitions, user_list
        self.start_answers(lambda n, request: self.answers.popleft() if self.answers else plant.json_answer({"d": []}))
        self.daemon = counting_plant.Program(
            [plant.ALARMD], cwd=self.folder, env=self.fast_clock(speed), out=self.line,
            prefixes=(HELD_BACK, NEW_ALARM, SENT, b"\x1b"))
        self.addCleanup(self.end_daemon)
        # A fast clock is soon far ahead, so new is what is behind the daemon's own start point.
        first = self.server.wait_requests(2, LIMIT)
        self.alarm_time = int(first.body.split("&start=")[1].split(".")[0])

    def end_daemon(self):
        self.assertEqual(self.daemon.stop(), 0, self.daemon.err.text()[-3000:])

    def fast_clock(self, speed):
        """An environment in which the daemon's pauses are so many times shorter; the speed becomes 1 where that is not
        possible."""
        library = plant.clock_library()
        if speed == 1 or not library or plant.sanitized():
            self.speed = 1
            return None
        self.speed = speed
        return {**os.environ, "LD_PRELOAD": library, "FAKETIME": "+0 x%d" % speed,
                "FAKETIME_DONT_FAKE_MONOTONIC": "1"}

    def line(self, line):
        for number, head in enumerate((MAIL_PASS, SMS_PASS, RAW_PASS)):
            if head in line:
                size = int(line.split(head)[1].split(b")")[0])
                self.passes[number] = size, self.passes.get(number, (0, 0))[1] + 1
                return
        self.lines.update(head for head in (HELD_BACK, NEW_ALARM, SENT) if line.startswith(head))

    # -- load

    def give(self, numbers):
        """The next poll is answered with these alarms. Each answer has a second of its own, which the mails tell."""
        self.alarm_time += 1
        entries = [plant.entry(number, 1, self.alarm_time, micro, av=self.round)
                   for micro, number in enumerate(numbers)]
        self.answers.append(plant.json_answer({"d": entries}))

    def wait(self, condition, what, there=lambda: ""):
        plant.wait_for(condition, what, LIMIT, lambda: "%s %r %r\n%s" % (
            there(), self.lines, self.passes, self.daemon.out.text()[-2000:]))

    def wait_drained(self, queues=(0, 1, 2)):
        """Until each queue was empty at the begin of a pass that began after this call."""
        before = {queue: self.passes.get(queue, (0, 0))[1] for queue in queues}
        self.wait(lambda: all(self.passes.get(queue, (1, 0))[0] == 0 and self.passes[queue][1] > before[queue] + 1
                              for queue in queues), "empty queues")
        # The main thread gives back what a burst has taken, in the pass in which it sees that all is told.
        self.server.wait_requests(len(self.server.requests) + 2, LIMIT)

    def memory(self):
        return counting_plant.resources(self.daemon.pid)

    def assert_no_growth(self, memory, what):
        """Of the resident memory after each round: the first one brings it to where it then stays."""
        tell("%s: resident memory after each round: %s MB", what, ", ".join("%.1f" % (kb / 1024) for kb in memory))
        if not plant.sanitized():
            self.assertLessEqual(memory[-1], memory[1] + SLACK, "kB after each round: %r" % memory)

    def recipients(self, number):
        groups = self.definitions[number - 1]["group"]
        return [user for user in self.users if groups[user["level"]]]

    def expected_mails(self, numbers):
        """Each mail as recipient and text."""
        return collections.Counter((user["mail"], "%s %d" % (user["language"], number))
                                   for number in numbers for user in self.recipients(number))

    def wait_mails(self, numbers):
        """Until the mails of the round are there; they must be exactly these."""
        wanted, came = self.expected_mails(numbers), []

        def complete():
            came.extend(self.client.new())
            return len(came) >= sum(wanted.values())

        self.wait(complete, "%d mails" % sum(wanted.values()), lambda: "%d are there" % len(came))
        self.wait_drained((0,))
        came.extend(self.client.new())
        found = collections.Counter((mail.recipient, mail.cells[0]) for mail in came)
        self.assertEqual((found - wanted, wanted - found), (collections.Counter(), collections.Counter()))
        self.assertEqual({(mail.status, mail.cells[8]) for mail in came}, {(0, "%d.00" % self.round)})
        self.assertEqual(len({mail.boundary for mail in came}), len(came))
        return len(came)

    # -- tests

    def test_ten_thousand_alarms_in_one_answer(self):
        """10,000 alarms, all by mail and SMS: everything is composed, and held back since notifications are off."""
        count, rounds = 10000, 4 if FULL else 2
        definitions = alarms(count, everybody if FULL else one_group)
        self.start_modem()
        self.start(definitions, users(phones=True), SPEED)
        self.wait(lambda: self.passes.get(1), "the modem")
        self.assertEqual(requests_plant.ask(requests_plant.request(55)), b"\n" + requests_plant.DISABLED)
        self.wait_drained()
        memory = [self.memory().rss]
        for self.round in range(1, rounds + 1):
            begin, before = time.monotonic(), self.memory().processor
            self.give(range(1, count + 1))
            # A mail and an SMS for each of the alarm's recipients.
            messages = 2 * count * len(self.recipients(1)) * self.round
            self.wait(lambda: self.lines[HELD_BACK] >= messages, "%d messages composed" % messages)
            seconds = time.monotonic() - begin
            self.wait_drained()
            self.assertEqual((self.lines[NEW_ALARM], self.lines[HELD_BACK]), (count * self.round, messages))
            memory.append(self.memory().rss)
            tell("round %d: %d alarms, %d mails and SMS composed and held back in %.1f s, %.1f s of processor time",
                 self.round, count, 2 * count * len(self.recipients(1)), seconds, self.memory().processor - before)
        self.assert_no_growth(memory, "one answer of %d alarms" % count)
        self.assertEqual((self.client.new(), self.modem.sms()), ([], []))

    def test_mails_of_a_great_answer(self):
        """Every mail is handed to the mail client once, to each user in his language."""
        count, rounds = 10000 if FULL else 100, 2
        self.start_modem()
        self.start(alarms(count, everybody), users(phones=False), SPEED)
        self.wait(lambda: self.passes.get(1), "the modem")
        memory = [self.memory().rss]
        for self.round in range(1, rounds + 1):
            begin, before = time.monotonic(), self.memory().processor
            self.give(range(1, count + 1))
            mails = self.wait_mails(range(1, count + 1))
            self.wait_drained()
            memory.append(self.memory().rss)
            tell("round %d: %d alarms to %d users, %d mails sent in %.1f s, %.1f s of processor time", self.round,
                 count, USERS, mails, time.monotonic() - begin, self.memory().processor - before)
        self.assert_no_growth(memory, "%d mails" % mails)

    def test_answer_after_answer(self):
        """Answers of 100 alarms, one a poll, on a clock that runs faster; without one, only a few."""
        self.start_modem()
        self.start(alarms(100, one_group), users(phones=False), 50)
        self.wait(lambda: self.passes.get(1), "the modem")
        rounds, answers = (5, 200) if FULL else (2, 15) if self.speed > 1 else (2, 2)
        memory = [self.memory().rss]
        numbers = list(range(1, 101))
        for self.round in range(1, rounds + 1):
            begin, before = time.monotonic(), self.memory().processor
            for _ in range(answers):
                self.give(numbers)
            mails = self.wait_mails(numbers * answers)
            self.wait_drained()
            self.assertEqual(self.lines[NEW_ALARM], 100 * answers * self.round)
            memory.append(self.memory().rss)
            tell("round %d: %d answers of 100 alarms, %d mails sent in %.1f s, %.1f s of processor time", self.round,
                 answers, mails, time.monotonic() - begin, self.memory().processor - before)
        self.assert_no_growth(memory, "%d answers a round" % answers)

    def test_sms_of_many_alarms(self):
        """Every SMS is at its phone once, in its user's language, on a clock that runs faster."""
        count, rounds = (20, 3) if FULL else (2, 1)
        self.start_modem()
        self.start(alarms(count, everybody if FULL else one_group), users(phones=True), 20)
        self.wait(lambda: self.passes.get(1), "the modem")
        memory = [self.memory().rss]
        wanted = collections.Counter()
        for self.round in range(1, rounds + 1):
            begin = time.monotonic()
            self.give(range(1, count + 1))
            wanted.update((user["tel"], "(ACT) %s %d /ack:%d" % (user["language"], number, number))
                          for number in range(1, count + 1) for user in self.recipients(number))
            self.wait(lambda: len(self.modem.sms()) >= sum(wanted.values()), "%d SMS" % sum(wanted.values()))
            self.wait_drained((1, 2))
            self.assertEqual(collections.Counter(self.modem.sms()), wanted)
            memory.append(self.memory().rss)
            tell("round %d: %d SMS sent in %.1f s, the clock %d times as fast; %d told as sent so far", self.round,
                 sum(wanted.values()) // self.round, time.monotonic() - begin, self.speed, self.lines[SENT])
        self.wait_mails_of_sms(count, rounds)
        if rounds > 1:
            self.assert_no_growth(memory, "SMS")

    def wait_mails_of_sms(self, count, rounds):
        """The same alarms go by mail; each mail is there as often as there were rounds."""
        wanted = self.expected_mails(list(range(1, count + 1)) * rounds)
        came = []
        self.wait(lambda: came.extend(self.client.new()) or len(came) >= sum(wanted.values()), "the mails")
        self.assertEqual(collections.Counter((mail.recipient, mail.cells[0]) for mail in came), wanted)


if __name__ == "__main__":
    plant.main()
