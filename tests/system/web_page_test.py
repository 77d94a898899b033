"""The console page as the web server gives it out, without a browser, and who may ask the daemon through it."""

import os
import re

import plant
import requests_plant
from requests_plant import CONSOLE_PAGE, ENABLED, request

TYPES = {".html": "text/html", ".css": "text/css", ".js": "text/javascript", ".svg": "image/svg+xml"}


class Page(requests_plant.RequestTest):
    def start_nginx(self):
        self.nginx = requests_plant.ConsoleNginx(self.folder)
        self.addCleanup(self.nginx.end)
        return self.nginx

    def test_every_file_is_served_with_its_type_and_the_rules_for_browsers(self):
        nginx = self.start_nginx()
        for name in ["", *os.listdir(CONSOLE_PAGE)]:
            status, content = nginx.ask("GET", "/console/" + name)
            with open(os.path.join(CONSOLE_PAGE, name or "index.html"), "rb") as file:
                self.assertEqual((status, content), (200, file.read()), name)
            headers = nginx.headers
            kind = TYPES[os.path.splitext(name or "index.html")[1]]
            self.assertEqual(headers["Content-Type"], kind + "; charset=utf-8")
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
            self.assertEqual((headers["X-Content-Type-Options"], headers["Cache-Control"]), ("nosniff", "no-cache"))
        self.assertEqual(nginx.ask("GET", "/console"), (301, nginx.ask("GET", "/console")[1]))
        self.assertEqual(nginx.headers["Location"], "/console/")
        self.assertEqual(nginx.ask("GET", "/console/none.js")[0], 404)
        self.assertEqual(nginx.headers["X-Content-Type-Options"], "nosniff")
        self.assertEqual(nginx.ask("POST", "/console/")[0], 403)

    def test_the_page_opens_by_the_names_by_which_it_may_ask(self):
        nginx = self.start_nginx()
        for host in ("localhost", "127.0.0.1:%d" % nginx.port, "[::1]"):
            self.assertEqual(nginx.ask("GET", "/console/", headers={"Host": host})[0], 200, host)
        for host in ("evil.example", "evil.example:%d" % nginx.port, "localhost.evil.example"):
            for path in ("/console/", "/console/console.js"):
                self.assertEqual(nginx.ask("GET", path, headers={"Host": host})[0], 403, host)

    def test_the_page_needs_nothing_from_elsewhere_and_makes_no_html_of_data(self):
        for name in os.listdir(CONSOLE_PAGE):
            with open(os.path.join(CONSOLE_PAGE, name)) as file:
                text = file.read().replace("http://www.w3.org/2000/svg", "")
            self.assertNotRegex(text, r"https?://|innerHTML|outerHTML|insertAdjacentHTML|document\.write|eval\(")
            if name == "index.html":
                self.assertNotRegex(text, r"\sstyle=|\son\w+=|<style|<script(?! type=\"module\" src=)")

    def test_all_languages_say_everything(self):
        with open(os.path.join(CONSOLE_PAGE, "texts.js")) as file:
            languages = re.findall(r"^  (\w\w): \{\n(.*?)^  \},", file.read(), re.M | re.S)
        keys = {language: re.findall(r"^    (\w+):", body, re.M) for language, body in languages}
        self.assertEqual(sorted(keys), ["cs", "de", "en"])
        self.assertEqual(keys["cs"], keys["en"])
        self.assertEqual(keys["de"], keys["en"])
        values = {language: [sorted(set(re.findall(r"\{\w+\}", line))) for line in body.splitlines()]
                  for language, body in [(language, re.sub(r'" \+\n\s+"', "", body)) for language, body in languages]}
        self.assertEqual(values["cs"], values["en"])
        self.assertEqual(values["de"], values["en"])
        with open(os.path.join(CONSOLE_PAGE, "index.html")) as file:
            self.assertLessEqual(set(re.findall(r'data-text="(\w+)"', file.read())), set(keys["en"]))

    def test_a_page_of_another_site_may_not_ask(self):
        self.start_alone()
        nginx = self.start_nginx()
        own = "http://127.0.0.1:%d" % nginx.port
        for origin in ("http://example.com", "null", own.replace("http", "https"), "http://127.0.0.1", own + "0"):
            self.assertEqual(nginx.post(request(55), Origin=origin)[0], 403, origin)
        self.assertEqual(nginx.post(request(56), Origin=own), (200, ENABLED))
        self.assertEqual(nginx.post(request(56)), (200, ENABLED))
        self.assertNotIn("protocol 55", self.daemon.out.text())


if __name__ == "__main__":
    plant.main()
