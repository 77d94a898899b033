"""The soak (soak.py, ./soak.sh) in short, and whether it would notice."""

import json
import os
import unittest

import counting_plant
import plant
import soak_model
from counting_plant import Mail

SOAK = os.path.join(plant.SOURCE, "tests", "system", "soak.py")
MINUTES = "0.3"
LIMIT = 230  # seconds, with a start and an end that wait for what is slow


class SoakTest(plant.PlantTest):
    def test_a_short_soak(self):
        """Everything that can happen, for a third of a minute; another mixture each time that the test is run."""
        seed = str(int.from_bytes(os.urandom(2), "big"))
        soak = counting_plant.Program([plant.PYTHON, "-B", SOAK, MINUTES, "--seed", seed], cwd=self.folder)
        self.addCleanup(soak.stop)
        plant.wait_for(lambda: not soak.running(), "the soak's end, seed " + seed, LIMIT, soak.out.text)
        soak.stop()
        self.assertEqual((soak.process.returncode, soak.out.text().splitlines()[-1:]), (0, ["All counts are right."]),
                         "seed %s\n%s\n%s" % (seed, soak.out.text(), soak.err.text()))


class ModelTest(unittest.TestCase):
    """What the model says to one mail, SMS or acknowledge too few or too many."""

    def setUp(self):
        self.project = soak_model.Project()
        self.model = soak_model.Model(self.project)
        self.model.starts.append((1700000000, 0))

    def answer(self):
        """An activation that goes by mail and SMS; returns the mails and SMS that it makes."""
        entry = plant.entry(201, 1, 1700000001)
        self.model.server_has(201, 1, [1700000001, 0])
        self.model.answer(json.dumps({"d": [entry]}))
        return list(self.project.mails(entry)), list(self.project.sms(entry))

    def deliver(self, mails, messages):
        for number, (recipient, cells) in enumerate(mails):
            self.model.mail(Mail(0, recipient, "_%050d" % number, 5000, cells))
        for number, text in messages:
            self.model.sms_told(number, text, True)
            self.model.sms_arrived(number, text, True)

    def test_the_model_notices(self):
        """All is settled with exactly what should come, and with nothing else."""
        mails, messages = self.answer()
        self.assertTrue(mails and messages)
        self.assertFalse(self.model.settled())
        self.deliver(mails, messages)
        self.assertTrue(self.model.settled(), self.model.differences())

        self.answer()  # not newer than the start point any more
        self.assertTrue(self.model.settled(), self.model.differences())
        self.model.mail(Mail(0, mails[0][0], "_%050d" % 99, 5000, mails[0][1]))
        self.assertEqual(len(self.model.differences()), 1)
        self.model.owe(("mail", 0, mails[0][0], mails[0][1]))
        self.model.sms_told(*messages[0], False)
        self.assertIn("too many 1: ('told', ", self.model.differences()[0])
        self.model.owe(("told", *messages[0], False))

        self.model.phone_sends(*(phone := (messages[0][0], "ACK:201")))
        self.model.read(*phone)
        self.assertEqual(self.model.settled(), self.project.controls(phone[0]) is None)
        self.assertEqual(self.model.wrong, [])
        self.model.polls_began_at([(1700000000, 0), (1700000001, 1), (1700000000, 0)])
        self.assertEqual(len(self.model.wrong), 1)


if __name__ == "__main__":
    plant.main()
