"""The demo's last part: local requests through a real web server, with a simulated GPS receiver at the daemon's port."""

import http.client
import json
import os
import socket
import time

NGINX = "/usr/sbin/nginx"
GPS_PORT = "/dev/ttyModem3"
LIMIT = 40  # seconds
SILENCED = 201  # the alarm that happens while notifications are off
STATUS, POSITION, LAST_SMS, OFF, ON = 51, 53, 54, 55, 56

# root is the only user that the private world of a plain user has.
CONFIGURATION = """user root;
daemon off;
master_process off;
pid %(folder)s/pid;
error_log stderr;
events {}
http {
  access_log off;
  client_body_temp_path %(folder)s/body;
  proxy_temp_path %(folder)s/proxy;
  fastcgi_temp_path %(folder)s/fastcgi;
  uwsgi_temp_path %(folder)s/uwsgi;
  scgi_temp_path %(folder)s/scgi;
  server {
    listen 127.0.0.1:%(port)d;
    include %(sample)s;
  }
}
"""


class Requests:
    def __init__(self, demo):
        self.demo = demo
        self.sms_handed_over = 0  # as the modem counts them
        self.last_message = None  # (number, text) of the last phone that sent one
        self.said = set()  # the receiver's GGA and RMC sentences, as the daemon tells them
        self.held_back = 0
        self.silenced = []  # changes, (alarm id, state), whose mails and SMS were held back
        self.asked = self.right = 0

    # -- start and end

    def start(self, program, port, folder, sample):
        """Starts web server and GPS receiver. program(name, arguments) starts a program."""
        os.makedirs(folder)
        self.port = port
        path = os.path.join(folder, "nginx.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.write(CONFIGURATION % {"folder": folder, "port": port, "sample": sample})
        self.programs = [program("gps", [os.path.join(self.demo.bin, "gps-sim"), "--json-events", "--link", GPS_PORT])]
        self.demo.wait_for("gps")
        self.programs.append(program("nginx", [NGINX, "-p", folder, "-c", path, "-e", "stderr"]))
        end = time.monotonic() + LIMIT
        while time.monotonic() < end and self.programs[1].running():
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        raise SystemExit("The web server does not start; see out/nginx.log.")

    def stop(self):
        for program in self.programs:
            program.stop()

    # -- what the programs tell

    def gps_line(self, event):
        if event.get("event") == "fix":
            self.said.update(sentence[7:-3] for sentence in event["sentences"])

    def modem_line(self, event):
        self.sms_handed_over += event.get("event") == "sms"
        if event.get("event") == "phone":
            self.last_message = (event["number"], event["text"])

    def daemon_line(self, line):
        if line == "Notification DISABLED !!!!":
            self.held_back += 1
            self.demo.screen.event("daemon", "holds a mail or an SMS back")

    # -- the requests

    def ask(self, protocol):
        """The answer, as JSON; None when there is none that is right."""
        self.asked += 1
        try:
            connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT)
            connection.request("POST", "/alarmd", '{"t":%d}' % protocol)
            answer = json.loads(connection.getresponse().read())
            connection.close()
            if answer["r"] == protocol and answer["s"] == 1:
                return answer
        except (OSError, ValueError, KeyError, http.client.HTTPException) as error:
            answer = error
        self.demo.failures.append("no answer to {\"t\":%d}: %r" % (protocol, answer))
        return None

    def tell(self, protocol, text, right):
        self.demo.screen.event("request", "{\"t\":%d} %s" % (protocol, text))
        self.right += right
        if not right:
            self.demo.failures.append("a wrong answer to {\"t\":%d}: %s" % (protocol, text))

    def wait_for(self, condition):
        end = time.monotonic() + LIMIT
        while not condition() and time.monotonic() < end and not self.demo.failures:
            self.demo.pump()
        return condition()

    def ask_status(self):
        answer = self.ask(STATUS)
        if answer:
            count = int(answer["d"]["SMSCOUNT"])
            self.tell(STATUS, "modem status: %d SMS handed to the modem so far" % count, count == self.sms_handed_over)

    def ask_last_sms(self):
        answer = self.ask(LAST_SMS)
        if answer:
            last = answer["d"]
            self.tell(LAST_SMS, "last SMS: \"%s\" from %s, %s" % (
                last["Text"], last["From"], time.strftime("%H:%M:%S", time.localtime(last["Timestamp"]))),
                (last["From"], last["Text"]) == self.last_message)

    def ask_position(self):
        answer = self.ask(POSITION)
        if answer:
            position = answer["d"]["RMC"].split(",")
            right = self.wait_for(lambda: {answer["d"]["RMC"], answer["d"]["GGA"]} <= self.said)
            self.tell(POSITION, "position: %s°%s' %s, %s°%s' %s at %s knots" % (
                position[2][:2], position[2][2:], position[3], position[4][:3], position[4][3:], position[5], position[6]),
                right)

    def switch_off_and_on(self):
        """An alarm while notifications are off makes neither mail nor SMS; its end, when they are on again, does."""
        demo = self.demo
        if self.ask(OFF):
            self.tell(OFF, "notifications are off", True)
        before = self.held_back
        self.silenced.append((SILENCED, 1))
        demo.server.command(alarm=SILENCED, state="activated")
        due = demo.project.recipients(SILENCED) + len(list(demo.project.expected_sms(SILENCED, 1)))
        if not self.wait_for(lambda: self.held_back - before >= due):
            demo.failures.append("%d mails and SMS were held back instead of %d" % (self.held_back - before, due))
        if self.ask(ON):
            self.tell(ON, "notifications are on again", True)
        demo.expect(SILENCED, 0)
        demo.server.command(alarm=SILENCED, state="deactivated")
        self.wait_for(lambda: not demo.missing())

    def run(self):
        for part in (self.ask_status, self.ask_last_sms, self.ask_position, self.switch_off_and_on):
            if not self.demo.failures:
                part()
