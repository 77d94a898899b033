"""From an alarm at the server to a mail in a mailbox: real mail client, real mail server."""

import os
import re
import signal
import time
import unittest

import plant

KNOWN_HEADERS = ["From", "To", "User-Agent", "MIME-Version", "Subject", "Content-Type"]


def readable(seconds):
    return time.strftime("%a %b %e %H:%M:%S %Y", time.localtime(seconds))


class IntoTheMailbox(plant.PlantTest):
    def start(self, *alarms, **project):
        """Starts the plant; the alarms are new at the daemon's first poll."""
        self.start_smtp()
        self.start_sim()
        self.configure()
        self.project(**project)
        self.sim.coming(*alarms)
        self.daemon = self.start_daemon()

    def mails(self, count):
        return self.smtp.wait_mails(count, detail=self.daemon.out.text)

    def test_an_activation_reaches_the_mailbox_in_the_users_language(self):
        self.start()
        self.sim.wait_polls(1)
        self.sim.alarm(12, value=1.5)
        (mail,) = self.mails(1)
        self.assertEqual(mail["From"], "alarms@plant.example")
        self.assertEqual(mail["To"], "jan@plant.example")
        self.assertEqual(mail["Subject"], "Online Alarming")
        self.assertEqual(mail["User-Agent"], "Korvato mailer")
        row = mail.row()
        moment = self.sim_entry_time(12)
        self.assertEqual(row, {
            "MESSAGE": "Zpráva 12", "STATUS": "Activate", "SEV": "2", "AREA": "Oblast 12", "DEVICE": "Zařízení 12",
            "ACT TIME": readable(moment), "DEACT TIME": "-", "ACK TIME": "-", "ACT VAL": "1.50", "DEACT VAL": "0.00",
            "ACK VAL": "0.00", "USER": "-"})
        self.assertEqual(self.daemon.err.text(), "")

    def sim_entry_time(self, number):
        line = self.sim.out.wait(lambda text: '"event":"alarm"' in text and '"alarm":%d' % number in text)[1]
        return plant.json.loads(line)["moment"][0]

    def test_the_mail_is_one_html_part_for_the_standard_parser(self):
        self.start((12, "activated"))
        (mail,) = self.mails(1)
        self.assertEqual(mail.message.get_content_type(), "multipart/mixed")
        (part,) = mail.parts
        self.assertEqual(part.get_content_type(), "text/html")
        self.assertEqual(part.get_content_charset(), "utf-8")
        self.assertEqual(part.get_content_disposition(), "inline")
        self.assertTrue(mail.body.startswith('<html><style type="text/css">body, html  { height: 100%; }'))
        self.assertTrue(mail.body.endswith("</TR>\n</table>\n</body>\n</html>\n"), mail.body[-100:])

    def test_each_state_makes_a_mail_with_its_word_times_and_values(self):
        self.start((12, "activated", {"value": 1.25}), (12, "acknowledged", {"value": 2.5, "user": "novak"}),
                   (12, "deactivated", {"value": 3.75}), (12, 8, {"user": "novak"}))
        rows = [mail.row() for mail in self.mails(4)]
        self.assertEqual([row["STATUS"] for row in rows], ["Activate", "Acknowledge", "Deactivate", ""])
        self.assertEqual([row["MESSAGE"] for row in rows], ["Zpráva 12"] * 4)
        self.assertEqual([row["ACT VAL"] for row in rows][:3], ["1.25"] * 3)
        self.assertEqual(rows[1]["ACK VAL"], "2.50")
        self.assertEqual(rows[2]["DEACT VAL"], "3.75")
        self.assertEqual((rows[1]["USER"], rows[3]["USER"]), ("novak", "novak"))
        given = [[row[name] != "-" for name in ("ACT TIME", "DEACT TIME", "ACK TIME")] for row in rows[:3]]
        self.assertEqual(given, [[True, False, False], [True, False, True], [True, True, True]])

    def test_each_user_is_served_in_his_language_or_with_the_default_texts(self):
        languages = {"cs": "Zpráva 12", "de": "Meldung 12", "": "Message 12", "fr": "Message 12", "CS": "Message 12"}
        self.start((12, "activated"), users=[
            {"id": n, "level": 1, "name": "U%d" % n, "mail": "u%d@plant.example" % n, "language": language}
            for n, language in enumerate(languages)])
        mails = self.mails(len(languages))
        self.assertEqual([mail["To"] for mail in mails], ["u%d@plant.example" % n for n in range(len(languages))])
        self.assertEqual([mail.row()["MESSAGE"] for mail in mails], list(languages.values()))
        # Areas and devices have a Czech translation only.
        self.assertEqual([mail.row()["DEVICE"] for mail in mails], ["Zařízení 12"] + ["Device 12"] * 4)
        self.assertEqual(self.daemon.out.count("-> Language: default"), 1)

    def test_a_user_in_two_groups_of_the_alarm_gets_two_mails(self):
        user = plant.SMALL_USERS[0]
        self.start((12, "activated"), (13, "activated"), users=[user, dict(user, level=2)])
        mails = self.mails(3)
        self.assertEqual([mail.row()["MESSAGE"] for mail in mails], ["Zpráva 12", "Zpráva 13", "Zpráva 13"])
        self.assertEqual({mail["To"] for mail in mails}, {"jan@plant.example"})
        lines = [line for line in self.daemon.out.texts() if line.startswith("(MAIL FOR USER)")]
        self.assertEqual(lines, ["(MAIL FOR USER) GROUP: 1 - FOUND alarm ID: 12",
                                 "(MAIL FOR USER) GROUP: 1 - FOUND alarm ID: 13",
                                 "(MAIL FOR USER) GROUP: 2 - FOUND alarm ID: 13"])

    def test_groups_10_and_11_get_no_mail(self):
        definition = dict(plant.SMALL_CAS[0], group=[True] * 12)
        users = [{"id": g, "level": g, "name": "G%d" % g, "mail": "g%d@plant.example" % g} for g in range(12)]
        self.start((12, "activated"), (12, "deactivated"), cas=[definition], users=users)
        self.assertEqual([mail["To"] for mail in self.mails(20)], ["g%d@plant.example" % g for g in range(10)] * 2)

    def test_alarms_without_the_mail_flag_or_a_definition_make_no_mail(self):
        self.start((14, "activated"), (99, "activated"), (12, "activated"))
        (mail,) = self.mails(1)
        self.assertEqual(mail.row()["MESSAGE"], "Zpráva 12")
        self.assertEqual(self.daemon.out.count("::-> Saving MAIL into fronta_mail"), 1)
        self.assertEqual(self.daemon.out.count("---------------NEW ALARM-----------------------"), 3)

    def test_texts_that_mean_something_to_a_shell_arrive_as_they_are(self):
        evil = "$(touch %s) `id` \"quoted\" 'single' \\back %%s ; | > x" % self.path("touched")
        self.start((12, "activated"), cas=[dict(plant.SMALL_CAS[0], message=evil, messageLangs={})])
        (mail,) = self.mails(1)
        self.assertEqual(mail.row()["MESSAGE"], evil)
        self.assertFalse(os.path.exists(self.path("touched")))

    def test_a_user_without_an_address_does_not_keep_the_others_from_their_mail(self):
        phone = {"id": 1, "level": 1, "name": "Phone", "tel": "+420601000001"}
        self.start((12, "activated"), users=[phone, *plant.SMALL_USERS])
        (mail,) = self.mails(1)
        self.assertEqual(mail["To"], "jan@plant.example")
        self.daemon.err.wait(plant.holding(plant.CLIENT_PATH, "status"))

    def test_alarms_during_an_outage_of_the_server_are_mailed_when_it_is_back(self):
        self.start()
        self.sim.wait_polls(1)
        self.sim.command(server="away")
        self.sim.alarm(12)
        self.daemon.err.wait(plant.starting("curl_easy_perform() failed: "))
        self.assertEqual(self.smtp.mails(), [])
        self.sim.command(server="back")
        self.assertEqual(self.mails(1)[0].row()["MESSAGE"], "Zpráva 12")

    def test_alarms_from_before_the_start_are_not_mailed(self):
        self.start_smtp()
        self.start_sim()
        self.sim.alarm(12, ago=60)
        self.sim.coming((13, "activated"))
        self.configure()
        self.project()
        self.daemon = self.start_daemon()
        self.assertEqual(self.mails(1)[0].row()["MESSAGE"], "Zpráva 13")
        self.assertEqual(self.daemon.out.count("id: 12"), 0)

    def test_the_example_plant_mails_in_three_languages(self):
        self.start_smtp()
        self.start_sim(project="1")
        self.configure(pFolder=plant.EXAMPLES)
        self.sim.coming((501, "activated"))
        self.daemon = self.start_daemon()
        mails = self.mails(5)
        self.assertEqual([(mail["To"].split("@")[0], mail.row()["MESSAGE"]) for mail in mails],
                         [("jana.novakova", "Únik plynu, 2. stupeň"), ("peter.hoffmann", "Gasaustritt, Stufe 2"),
                          ("alice.carter", "Gas leak, stage 2"), ("martin.weber", "Gasaustritt, Stufe 2"),
                          ("night.desk", "Gas leak, stage 2")])

    def test_the_csv_form_of_the_example_plant_queues_but_mails_nobody(self):
        self.start_smtp()
        self.start_sim(project="1")
        self.configure(pFolder=os.path.join(plant.EXAMPLES, "csv"))
        self.sim.coming((101, "activated"))
        self.daemon = self.start_daemon()
        self.daemon.out.wait("::-> Saving MAIL into fronta_mail")
        self.daemon.out.wait(plant.holding("-->Thread mail (queue:1)"))
        self.daemon.out.wait(plant.holding("-->Thread mail (queue:0)"),
                             count=self.daemon.out.count(plant.holding("-->Thread mail (queue:0)")) + 1)
        self.assertEqual(self.daemon.out.count(plant.starting("(MAIL FOR USER)")), 0)
        self.assertEqual(self.smtp.mails(), [])


class TheClient(plant.PlantTest):
    """The mail client as the daemon runs it: its arguments, its input, and what becomes of one that fails."""

    def start(self, *alarms, script="", client=True, env=None, **project):
        """Starts the plant; the alarms are new at the daemon's first poll."""
        if client:
            self.fake_client(script)
        self.start_sim()
        self.configure()
        self.project(**project)
        self.sim.coming(*alarms)
        self.daemon = self.start_daemon(env=env)

    def test_arguments_and_input_are_exact(self):
        self.start((12, "activated"))
        self.client.wait_runs(1)
        self.assertEqual(self.client.arguments(), ["-C", "msmtp.conf", "-a", "korvato", "-t"])
        message = self.client.input().decode()
        head = re.match(
            r'From: alarms@plant\.example\nTo: jan@plant\.example\nUser-Agent: Korvato mailer\nMIME-Version: 1\.0\n'
            r'Subject: Online Alarming\nContent-Type: multipart/mixed; boundary="_([0-9A-Za-z]{50})"\n--_\1\n'
            r'Content-Type: text/html; charset=UTF-8\nContent-Transfer-Encoding: quoted-printable\n'
            r'Content-Disposition: inline\n\n<html>', message)
        self.assertIsNotNone(head, message[:800])
        self.assertTrue(message.endswith("</html>\n\n--_%s--\n\n" % head.group(1)), message[-200:])
        # The same stands in the log, as the command line it once was.
        self.assertIn('echo "' + message[:-1] + '"|%s/ext/msmtp/msmtp -C msmtp.conf -a korvato -t\n' % self.folder,
                      self.daemon.out.text())

    def test_the_boundaries_of_two_mails_differ_and_those_of_two_starts_are_the_same(self):
        def boundaries(first):
            self.client.wait_runs(first + 2)
            return [re.search(rb'boundary="(.*)"', self.client.input(first + n)).group(1) for n in range(2)]

        two_changes = (12, "activated"), (12, "deactivated")
        self.start(*two_changes)
        one, two = boundaries(0)
        self.assertNotEqual(one, two)
        self.assertEqual(self.daemon.stop()[0], 0)
        self.sim.command(clear="history")
        self.sim.coming(*two_changes)
        self.daemon = self.start_daemon()
        self.assertEqual(boundaries(2), [one, two])

    def test_an_address_with_line_breaks_adds_no_header_line(self):
        address = "jan@plant.example\r\nBcc: evil@plant.example\nX-Evil: 1"
        self.start((12, "activated"), users=[dict(plant.SMALL_USERS[0], mail=address)])
        self.client.wait_runs(1)
        head = self.client.input().decode().partition("\n--_")[0]
        self.assertEqual([line.partition(":")[0] for line in re.split("[\r\n]+", head)], KNOWN_HEADERS)

    def test_a_missing_client_is_told_in_one_line_and_the_daemon_goes_on(self):
        self.start((12, "activated"), client=False)
        self.daemon.err.wait(plant.holding(self.path(plant.CLIENT_PATH)))
        self.daemon.out.wait("-> Odeslan")
        self.sim.wait_polls(1)
        self.assertEqual(len(self.daemon.err.texts()), 1, self.daemon.err.text())

    def test_a_client_that_is_no_program_is_told_in_one_line(self):
        self.write(plant.CLIENT_PATH, "no program\n")
        self.start((12, "activated"), client=False)
        self.daemon.err.wait(plant.holding(self.path(plant.CLIENT_PATH)))
        self.sim.wait_polls(1)
        self.assertEqual(len(self.daemon.err.texts()), 1, self.daemon.err.text())

    def test_a_failing_client_is_told_with_its_status_and_the_next_mail_goes_out(self):
        self.start((12, "activated"), (12, "deactivated"), script="exit 75\n")
        self.client.wait_runs(2)
        self.daemon.err.wait(plant.holding(self.path(plant.CLIENT_PATH), "75"), count=2)
        self.assertEqual(len(self.daemon.err.texts()), 2, self.daemon.err.text())

    def test_a_client_that_does_not_read_its_input_harms_nothing(self):
        os.chmod(self.write(plant.CLIENT_PATH, "#!/bin/sh\necho ran >>%s\nexit 1\n" % self.path("ran")), 0o755)
        self.start((12, "activated"), (12, "deactivated"), client=False)
        self.daemon.out.wait("-> Odeslan", count=2)
        with open(self.path("ran")) as file:
            self.assertEqual(file.read(), "ran\nran\n")

    def test_a_hanging_client_does_not_hold_up_the_polls(self):
        self.start((12, "activated"), script="while [ ! -e %s ]; do sleep 0.2; done\n" % self.path("gate"))
        self.addCleanup(self.write, "gate", "")  # a stop waits for the client
        self.client.wait_runs(1)
        self.sim.wait_polls(2)
        self.assertEqual(self.daemon.out.count("-> Odeslan"), 0)

    def test_a_hanging_client_is_ended_with_the_daemon(self):
        env, speed = plant.fast_clock(10)
        self.start(script="echo $$ >%s\nexec sleep 10000\n" % self.path("client.pid"), env=env)
        self.sim.wait_polls(1)
        self.sim.alarm(12, time=[int(time.time()) + plant.AHEAD, 0])
        plant.wait_for(lambda: os.path.exists(self.path("client.pid")), "the client")
        self.daemon.signal(signal.SIGTERM)
        self.assertEqual(self.daemon.wait_exit(plant.CLIENT_LIMIT / speed + plant.PATIENCE), 0)
        with open(self.path("client.pid")) as file:
            pid = int(file.read())
        self.assertFalse(os.path.exists("/proc/%d" % pid) and "sleep" in open("/proc/%d/comm" % pid).read())

    def test_an_unreachable_mail_server_is_told_and_the_daemon_goes_on(self):
        os.makedirs(os.path.dirname(self.path(plant.CLIENT_PATH)))
        os.symlink(plant.MSMTP, self.path(plant.CLIENT_PATH))
        self.start((12, "activated"), client=False)  # msmtp.conf names a port where nobody listens
        self.daemon.err.wait(plant.holding(self.path(plant.CLIENT_PATH), "status"))
        self.sim.wait_polls(1)

    def test_a_row_is_cut_at_998_bytes(self):
        self.start((12, "activated"), cas=[dict(plant.SMALL_CAS[0], message="x" * 3000, messageLangs={})])
        self.client.wait_runs(1)
        message = self.client.input().decode()
        row = message[message.index("<TR><TD>xxx"):]
        self.assertEqual(row.partition("</table>")[0], "<TR><TD>" + "x" * 990)

    @unittest.skipUnless(os.path.exists("/proc/self/fd"), "there is no /proc")
    def test_the_client_inherits_no_descriptors(self):
        fds = self.path("fds")
        self.start((12, "activated"), script="ls -l /proc/self/fd >%s.new && mv %s.new %s\n" % (fds, fds, fds))
        plant.wait_for(lambda: os.path.exists(self.path("fds")), "the client")
        with open(fds) as file:
            self.assertNotIn("socket:", file.read())


class Staleness(plant.PlantTest):
    def test_an_alarm_older_than_a_day_is_told_and_not_mailed(self):
        now = int(time.time())
        stale, fresh = now - 86400 - 60, now - 86400 + 600
        # An old last entry takes the start point back, so that what comes then is new and yet old.
        answers = [[plant.entry(14, 1, now - 200000)], [plant.entry(12, 1, stale), plant.entry(12, 1, fresh)]]
        self.start_answers(lambda n, request: plant.json_answer({"d": answers[n] if n < len(answers) else []}))
        self.fake_client()
        self.configure()
        self.project()
        daemon = self.start_daemon()
        daemon.out.wait("ALARM TIMEOUT !!! (%d %s)" % (stale, time.ctime(stale)))
        self.client.wait_runs(1)
        self.assertIn(readable(fresh), self.client.input().decode())
        daemon.out.wait("-> Odeslan")
        self.assertEqual(self.client.runs(), 1)


if __name__ == "__main__":
    plant.main()
