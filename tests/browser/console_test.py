"""The console page in a real browser, against the daemon, a web server and a simulated modem.

With KORVATO_PICTURES=DIR in the environment test_pictures also leaves its pictures of the page there."""

import os
import re
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import browser
import plant
import requests_plant
from sms_plant import EVE, JAN, STRANGER

MARKUP = '<img src=x onerror="document.title=1"><b>tank</b> "} %s'


def printed(answer):
    """What the daemon's print makes of an answer, which is its own format: all of it for the first "%s"."""
    once = iter([answer])
    return re.sub("%[%s]", lambda found: "%" if found.group() == "%%" else next(once, "%s"), answer)


class ConsoleTest(requests_plant.RequestTest):
    def setUp(self):
        if not browser.available():
            self.skipTest("chromium, chromium-driver or python3-selenium is missing")
        super().setUp()

    def open(self, language="en", **options):
        """Starts web server and browser and opens the page."""
        self.nginx = requests_plant.ConsoleNginx(self.folder)
        self.addCleanup(self.nginx.end)
        self.driver = browser.start(self.folder, language, **options)
        self.addCleanup(self.driver.quit)
        self.driver.get(self.nginx.page)

    def element(self, name):
        return self.driver.find_element("id", name)

    def text(self, name):
        return self.element(name).text

    def wait_text(self, name, wanted):
        """Waits until the shown text of an element holds wanted. The page asks anew by itself, every 10 s."""
        plant.wait_for(lambda: wanted in self.text(name), "%r in %s" % (wanted, name),
                       detail=lambda: self.driver.find_element("tag name", "body").text)

    def type_into(self, name, text):
        self.element(name).clear()
        self.element(name).send_keys(text)

    def run_module(self, module, code):
        """The value of the JavaScript code with the page's module as m."""
        return self.driver.execute_async_script(
            "const done = arguments[0]; import('./%s').then((m) => { %s }).then(done, (e) => done(String(e)));"
            % (module, code))

    def complaints(self):
        """What the browser complains of: of the page, not of the web server's status."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] == "SEVERE" and "the server responded with a status of 502" not in entry["message"]]


class Console(ConsoleTest):
    def test_values_appear_and_messages_go_both_ways(self):
        self.start_modem()
        self.start_plant()
        self.wait_initialised()
        self.open()
        self.wait_text("state-text", "The service answers")
        self.assertEqual(self.text("sms-count"), "0")
        self.assertIn("No SMS has come in", self.text("last-nothing"))
        self.assertFalse(self.element("position").is_displayed())

        self.element("send").click()
        self.assertIn("Enter a phone number", self.text("number-error"))
        self.assertIn("Enter a message", self.text("text-error"))
        self.type_into("number", "+420 601-000 003")
        text = 'Say "hi" \\ <b>%s</b> ěščř'
        self.type_into("text", text)
        self.assertEqual(self.text("counter-used"), "Characters: %d/70 · SMS: 1" % len(text))
        self.assertIn("“ě”", self.text("counter-hint"))
        self.element("send").click()
        self.wait_sms((EVE, text))
        self.wait_text("send-outcome", "the message to %s is queued" % EVE)
        self.assertEqual(self.element("text").get_attribute("value"), "")

        self.phone(STRANGER, MARKUP)
        self.wait_text("last-text", MARKUP)
        self.assertIn(STRANGER, self.text("last-values"))
        self.wait_text("sms-count", "1")
        self.assertNotEqual(self.driver.title, "1")
        self.assertEqual(self.driver.find_elements("css selector", "main img, main b"), [])
        self.assertEqual(self.complaints(), [])

    def test_notifications_are_switched_when_that_is_confirmed(self):
        self.start_alone()
        self.open("de")
        self.wait_text("state-text", "Der Dienst antwortet")
        self.assertIn("bisher nicht umgeschaltet", self.text("asked"))

        self.element("switch-off").click()
        self.assertEqual(self.text("ask-title"), "Benachrichtigungen ausschalten?")
        self.assertEqual(self.driver.switch_to.active_element.text, "Abbrechen")
        self.driver.switch_to.active_element.click()
        plant.wait_for(lambda: not self.element("ask").is_displayed(), "the dialog's end")
        self.assertFalse(self.element("off-notice").is_displayed())

        self.element("switch-off").click()
        self.element("ask-yes").click()
        self.wait_text("off-notice", "wurden von hier aus ausgeschaltet")
        self.assert_logged("Request protocol 55 (Disable notification)\n")
        self.assertEqual(self.daemon.out.count("Request protocol 55 (Disable notification)"), 1)
        self.driver.refresh()
        self.wait_text("off-notice", "wurden von hier aus ausgeschaltet")

        self.element("switch-on").click()
        self.element("ask-yes").click()
        self.wait_text("asked", "Von hier aus eingeschaltet")
        self.assertFalse(self.element("off-notice").is_displayed())
        self.assert_logged("Request protocol 55 (Disable notification)\n",
                           "Request protocol 56 (Enable notification)\n")
        self.assertEqual(self.complaints(), [])

    def test_the_language_is_the_browsers_until_another_is_chosen(self):
        self.start_alone()
        self.open("cs")
        self.wait_text("state-text", "Služba odpovídá")
        self.assertEqual(self.driver.execute_script("return document.documentElement.lang"), "cs")
        self.driver.find_element("css selector", "#language option[value=de]").click()
        self.assertEqual(self.text("send-title"), "SMS senden")
        self.driver.refresh()
        self.wait_text("state-text", "Der Dienst antwortet")
        self.assertEqual(self.run_module("texts.js", "return m.chooseLanguage(['fr-FR', 'de-AT', 'cs'])"), "de")
        self.assertEqual(self.run_module("texts.js", "return m.chooseLanguage(['fr'])"), "en")
        self.assertEqual(self.complaints(), [])

    def test_a_daemon_that_is_away_is_told_of(self):
        self.start_alone()
        self.open()
        self.wait_text("state-text", "The service answers")
        self.assert_stops()
        self.element("refresh").click()
        self.wait_text("state-text", "No answer since")
        self.assertTrue(self.element("state-detail").is_displayed())
        self.type_into("number", EVE)
        self.type_into("text", "Hello")
        self.element("send").click()
        self.wait_text("send-outcome", "No answer")
        self.assertEqual(self.element("text").get_attribute("value"), "Hello")
        self.element("switch-off").click()
        self.element("ask-yes").click()
        self.wait_text("switch-error", "No answer")
        self.daemon = self.start_daemon()
        self.wait_responder()
        self.wait_text("state-text", "The service answers")
        self.assertEqual(self.complaints(), [])

    def test_a_message_that_is_refused_is_told_as_refused_with_the_reason(self):
        self.start_alone()
        with requests_plant.FcgiClient() as client:
            for _ in range(1000):
                client.ask(requests_plant.request(50, number=EVE, text="x"), keep=True)
        self.open()
        self.wait_text("state-text", "The service answers")
        self.type_into("number", EVE)
        self.type_into("text", "Hello")
        self.element("send").click()
        self.wait_text("send-outcome", "The service has refused the message: SMS queue is full")
        self.assertIn("error", self.element("send-outcome").get_attribute("class"))
        self.assertEqual(self.element("text").get_attribute("value"), "Hello")
        self.wait_text("state-text", "The service answers")
        self.assertEqual(self.complaints(), [])

    def test_a_page_that_is_not_seen_does_not_ask(self):
        self.start_alone()
        self.open()
        self.wait_text("state-text", "The service answers")
        asked = lambda: self.daemon.out.count("FCGI Request protocol 51 (Read modem status)")
        # As the browser does it when another tab comes to the front.
        hide = ("Object.defineProperty(document, 'hidden', {value: %s, configurable: true});"
                "document.dispatchEvent(new Event('visibilitychange'))")
        self.driver.execute_script(hide % "true")
        time.sleep(1)
        before = asked()
        time.sleep(12)
        self.assertEqual(asked(), before)
        self.driver.execute_script(hide % "false")
        plant.wait_for(lambda: asked() > before, "the next question")

    def test_the_length_of_texts(self):
        self.start_alone()
        self.open()
        for text, wanted in (("", [0, 160, 1]), ("a" * 160, [160, 160, 1]), ("a" * 161, [161, 306, 2]),
                             ("a" * 306, [306, 306, 2]), ("a" * 307, [307, 459, 3]), ("€" * 80, [160, 160, 1]),
                             ("€" * 81, [162, 306, 2]), ("€" * 153, [306, 459, 3]), ("ř" * 70, [70, 70, 1]),
                             ("ř" * 71, [71, 134, 2]), ("😀" * 35, [70, 70, 1]), ("😀" * 67, [134, 201, 3]),
                             ("Äöü{}[]~\\|^\n@£Δ_", [24, 160, 1])):
            self.assertEqual(self.driver.execute_async_script(
                "const [text, done] = arguments; import('./sms_length.js').then((m) => m.smsLength(text))"
                ".then((l) => done([l.used, l.room, l.count]))", text), wanted, text)

    def test_answers_are_taken_apart_by_their_frame(self):
        self.start_alone()
        self.open()
        for text, read in (("ACK:101", None), ('"', None), ('say "hi" \\', None), ('x","From":"%s' % JAN, None),
                           ('"}}', None), ("a %s b", None), ('100%% "%s" %s', None), ("100%%", "100%"), ("", None)):
            plain = '{"r":54,"s":1,"d":{"Timestamp":5,"From":"%s","Text":"%s"}}\n' % (STRANGER, text)
            answer = printed(plain)
            self.assertEqual(self.driver.execute_async_script(
                "const [answer, done] = arguments; import('./answers.js').then((m) => m.readAnswer(54, answer))"
                ".then((a) => done(a.data), (e) => done(String(e)))", answer),
                {"Timestamp": 5, "From": STRANGER, "Text": text if read is None else read}, answer)
        for protocol, answer in ((54, ""), (54, "<html>"), (54, "null"), (54, '{"r":54,"s":1}'), (51, '{"r":54,"s":0}'),
                                 (55, '{"r":55,"s":2}')):
            self.assertIn("Error", self.driver.execute_async_script(
                "const [protocol, answer, done] = arguments; import('./answers.js')"
                ".then((m) => m.readAnswer(protocol, answer)).then(() => done('none'), (e) => done(String(e)))",
                protocol, answer))

    def test_the_position_and_the_pictures(self):
        self.start_modem()
        self.start_gps()
        self.start_plant(gps_enable=True)
        self.wait_initialised()
        self.phone(JAN, "ACK:101")
        for number in (EVE, JAN):
            self.assertIn(requests_plant.SMS_TAKEN, requests_plant.cgi_fcgi(
                requests_plant.request(50, number=number, text="Pump 3 is off")))
        self.wait_sms((EVE, "Pump 3 is off"), (JAN, "Pump 3 is off"))
        plant.wait_for(lambda: b'"s":1' in requests_plant.cgi_fcgi(requests_plant.request(53)), "a position")
        self.open()
        plant.wait_for(lambda: self.element("position").is_displayed(), "the position")
        self.wait_text("coordinates", "50° 0")
        self.assertRegex(self.element("map").get_attribute("href"), r"^geo:50\.\d{6},14\.\d{6}$")
        self.assertIn("22.2 km/h (12.0 kn)", self.text("position-values"))
        self.wait_text("sms-count", "2")
        self.type_into("number", "+420 601 000 002")
        self.type_into("text", "Pump 3 is off. Please look at the cooling water before you switch it on again.")
        self.driver.execute_script("document.activeElement.blur(); scrollTo(0, 0)")
        self.check_sizes(1200)
        self.picture("console.png")
        browser.set_dark(self.driver, True)
        self.picture("console-dark.png")
        browser.set_dark(self.driver, False)
        self.check_sizes(320)
        self.check_sizes(390)
        self.picture("console-phone.png")
        for language in ("cs", "de"):
            self.driver.find_element("css selector", "#language option[value=%s]" % language).click()
            self.check_sizes(320)
        self.assertEqual(self.complaints(), [])

    def check_sizes(self, width):
        """At this width nothing has to be scrolled sideways, and what can be touched is large enough."""
        browser.set_view(self.driver, width, phone=width < 600)
        self.assertEqual(self.driver.execute_script("return innerWidth"), width)
        self.assertLessEqual(self.driver.execute_script("return document.documentElement.scrollWidth"), width)
        small = self.driver.execute_script(
            "return [...document.querySelectorAll('button, input, select, textarea, a')].filter((e) => e.offsetParent)"
            ".filter((e) => e.getBoundingClientRect().height < 44).map((e) => e.id)")
        self.assertEqual(small, [])

    def picture(self, name):
        folder = os.environ.get("KORVATO_PICTURES")
        if folder:
            browser.take_picture(self.driver, os.path.join(folder, name))


if __name__ == "__main__":
    plant.main()
