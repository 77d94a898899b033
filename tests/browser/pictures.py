"""Makes the pictures of docs/pictures: an alarm mail of the example project as it arrives, and the console page.

  scripts/world.sh /usr/bin/python3 -B tests/browser/pictures.py [FOLDER]
"""

import json
import os
import shutil
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import browser
import console_test
import plant

ALARM, RECIPIENT = 101, "alice.carter@lipova.example"
PROJECT_FILES = ["cas.json", "groups.json", "setting.json", "users.json"]


class Mail(plant.PlantTest):
    def test_mail(self):
        self.start_smtp()
        for name in PROJECT_FILES:
            shutil.copy(os.path.join(plant.EXAMPLES, name), self.project_folder)
        with open(os.path.join(plant.EXAMPLES, "setting.json"), encoding="utf-8") as file:
            self.start_sim(project=str(json.load(file)["projectID"]))
        self.configure()
        self.write_settings({"network": {"modem": {"modemPort": ""}}})
        self.daemon = self.start_daemon()
        self.sim.wait_polls()
        self.sim.alarm(ALARM, value=1)
        self.mail("Activate")
        self.sim.alarm(ALARM, "acknowledged", value=1, user="novakova")
        mail = self.mail("Acknowledge")
        page = self.write("mail.html", mail.body)
        driver = browser.start(self.folder)
        self.addCleanup(driver.quit)
        # Page and table take their height of the window: one that fits them is found by the table's own.
        browser.set_view(driver, 1200, 100)
        driver.get("file://" + page)
        bottom = driver.execute_script("return document.querySelector('table').getBoundingClientRect().bottom")
        browser.set_view(driver, 1200, int(bottom) + 20)
        browser.take_picture(driver, os.path.join(os.environ["KORVATO_PICTURES"], "mail.png"))


    def mail(self, status):
        """The recipient's mail of this status."""
        def arrived():
            own = [mail for mail in self.smtp.mails() if mail["To"] == RECIPIENT]
            return next((mail for mail in own if mail.row()["STATUS"] == status), None)
        return plant.wait_for(arrived, "the mail", detail=self.daemon.out.text)


def main():
    if not browser.available():
        sys.exit("chromium, chromium-driver or python3-selenium is missing")
    folder = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(plant.SOURCE, "docs", "pictures"))
    os.makedirs(folder, exist_ok=True)
    os.environ["KORVATO_PICTURES"] = folder
    suite = unittest.TestSuite([Mail("test_mail"), console_test.Console("test_the_position_and_the_pictures")])
    sys.exit(not unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite).wasSuccessful())


if __name__ == "__main__":
    main()
