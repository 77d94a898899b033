"""What the tests of the local requests share: a real web server, FastCGI by the FastCGI tools and record by record, the
simulated GPS receiver, TCP clients."""

import http.client
import json
import os
import select
import socket
import struct
import subprocess
import time

import plant
import sms_plant

GPS_SIM = os.path.join(plant.BIN, "gps-sim")
GPS_PORT = "/dev/ttyModem3"
FCGI_PORT = 11032
CGI_FCGI = "/usr/bin/cgi-fcgi"
NGINX = "/usr/sbin/nginx"
NGINX_SAMPLE = os.path.join(plant.SOURCE, "packaging", "nginx", "alarmd.conf")
CONSOLE_SAMPLE = os.path.join(plant.SOURCE, "packaging", "nginx", "console.conf")
CONSOLE_PAGE = os.path.join(plant.SOURCE, "packaging", "web")

PARSE_FAILURE = b'{"s":0, "err":"Failed to parse JSON"}'
SMS_TAKEN = b'{"s":1,"r":50}\n'
GPS_OFF = b'{"r":52,"s":0,"err":"GPS disabled"}\n'
NO_GPS = b'{"r":53,"s":0,"err":"GPS disabled or CRC error."}\n'
SMS_QUEUE_FULL = b'{"r":50,"s":0,"err":"SMS queue is full"}\n'
NOT_READY = b'{"r":50,"s":0,"err":"Modem activation failed"}\n'
DISABLED, ENABLED = b'{"r":55,"s":1}\n', b'{"r":56,"s":1}\n'
STATUS = ('{"r":51,"s":1,"d":{"TYPE":"%d","IMEI":"","CSQ":"","SYSCFG":"","SYSCFGEX":"","COPS":"","CREG":"","CARDLOCK":"",'
          '"SYSINFO":"","SYSINFOEX":"","CGPADDR":"","CGEQNEG":"","SMSCOUNT":"%d","UPDATED":"0"}}')


def last_sms(timestamp, number, text):
    return ('{"r":54,"s":1,"d":{"Timestamp":%d,"From":"%s","Text":"%s"}}\n' % (timestamp, number, text)).encode()


def request(protocol, **members):
    return json.dumps({"t": protocol, **members}).encode()


def listening():
    """The TCP ports that are listened on, as (address, port)."""
    found = set()
    for name in ("tcp", "tcp6"):
        with open("/proc/net/" + name) as file:
            for line in file.readlines()[1:]:
                local, _, state = line.split()[1:4]
                if state == "0A":
                    address, port = local.split(":")
                    found.add((address, int(port, 16)))
    return found


# ---- FastCGI -------------------------------------------------------------------------------------------------------

def cgi_fcgi(body, query="", uri="/alarmd", length=None):
    """What the responder writes for a request by the tool of the FastCGI package."""
    environment = {"REQUEST_METHOD": "POST", "QUERY_STRING": query, "REQUEST_URI": uri}
    if length != "":
        environment["CONTENT_LENGTH"] = str(len(body)) if length is None else length
    done = subprocess.run([CGI_FCGI, "-bind", "-connect", "127.0.0.1:%d" % FCGI_PORT], input=body, env=environment,
                          capture_output=True, timeout=plant.PATIENCE)
    if done.returncode != 0:
        raise AssertionError("cgi-fcgi: status %d, %r" % (done.returncode, done.stderr))
    return done.stdout


def record(kind, content=b"", request_id=1):
    return struct.pack("!BBHHBB", 1, kind, request_id, len(content), 0, 0) + content


def records(body, keep=False, length=None):
    """The records of a request."""
    pairs = b""
    for name, value in ((b"REQUEST_METHOD", b"POST"), (b"REQUEST_URI", b"/alarmd"), (b"QUERY_STRING", b""),
                        (b"CONTENT_LENGTH", b"%d" % (len(body) if length is None else length))):
        pairs += struct.pack("!BB", len(name), len(value)) + name + value
    pieces = b"".join(record(5, body[at:at + 65535]) for at in range(0, len(body), 65535))
    return record(1, struct.pack("!HB5x", 1, keep)) + record(4, pairs) + record(4) + pieces + record(5)


class FcgiClient:
    """A connection to the responder."""

    def __init__(self):
        self.socket = socket.create_connection(("127.0.0.1", FCGI_PORT), plant.PATIENCE)
        self.socket.settimeout(plant.PATIENCE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def _exactly(self, count):
        data = b""
        while len(data) < count:
            chunk = self.socket.recv(count - len(data))
            if not chunk:
                raise EOFError("closed after %d of %d bytes" % (len(data), count))
            data += chunk
        return data

    def answer(self):
        """What the responder writes, up to the end of the request."""
        out = b""
        while True:
            _, kind, _, length, padding, _ = struct.unpack("!BBHHBB", self._exactly(8))
            content = self._exactly(length)
            self._exactly(padding)
            if kind == 6:
                out += content
            elif kind == 3:
                return out

    def ask(self, body, keep=False):
        self.send(records(body, keep))
        return self.answer()


def ask(body):
    with FcgiClient() as client:
        return client.ask(body)


# ---- the web server ------------------------------------------------------------------------------------------------

class Nginx(plant.Process):
    """nginx with the sample configuration, in a folder of its own; more stands in the server block besides."""

    def __init__(self, folder, more=""):
        self.folder = os.path.join(folder, "nginx")
        os.makedirs(self.folder)
        self.port = plant.free_port()
        temporary = "".join("  %s_temp_path %s/%s;\n" % (name, self.folder, name)
                            for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(os.path.join(self.folder, "nginx.conf"), "w") as file:
            file.write("user root;\ndaemon off;\nmaster_process off;\npid %s/pid;\nerror_log stderr;\n"
                       "events {}\nhttp {\n%s  access_log off;\n  server {\n    listen 127.0.0.1:%d;\n"
                       "    include %s;\n%s  }\n}\n" % (self.folder, temporary, self.port, NGINX_SAMPLE, more))
        super().__init__([NGINX, "-p", self.folder, "-c", os.path.join(self.folder, "nginx.conf"), "-e", "stderr"])
        plant.wait_for(self._answers, "the web server", detail=self.err.text)

    def _answers(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def post(self, body, path="/alarmd", **headers):
        return self.ask("POST", path, body, headers)

    def ask(self, method, path, body=None, headers=None):
        """The status and the body of the answer."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=plant.PATIENCE)
        try:
            connection.request(method, path, body, headers or {})
            answer = connection.getresponse()
            self.headers = answer.headers
            return answer.status, answer.read()
        finally:
            connection.close()


class ConsoleNginx(Nginx):
    """The same, with the console page from where it is in the sources."""

    def __init__(self, folder):
        with open(CONSOLE_SAMPLE) as file:
            sample = file.read()
        if "alias /usr/share/korvato/web/;" not in sample:
            raise AssertionError("the sample serves the page from elsewhere")
        super().__init__(folder, sample.replace("/usr/share/korvato/web/", CONSOLE_PAGE + "/"))
        self.page = "http://127.0.0.1:%d/console/" % self.port


# ---- GPS -----------------------------------------------------------------------------------------------------------

class GpsSim(plant.Sim):
    """The simulated GPS receiver at the daemon's port."""

    def __init__(self, *arguments):
        super().__init__(GPS_SIM, "--link", GPS_PORT, *arguments)

    def gps(self, word, **more):
        self.command(gps=word, **more)

    def said(self):
        """Of each second so far: the sentences by kind, GSV as a list."""
        seconds = []
        for event in self.events("fix"):
            kinds = {"GSV": []}
            for sentence in event["sentences"]:
                if sentence[3:6] == "GSV":
                    kinds["GSV"].append(sentence)
                else:
                    kinds[sentence[3:6]] = sentence
            seconds.append(kinds)
        return seconds


# ---- TCP -----------------------------------------------------------------------------------------------------------

class TcpClient:
    """A client of the TCP request server."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), plant.PATIENCE)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket.settimeout(plant.PATIENCE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    @property
    def own_port(self):
        return self.socket.getsockname()[1]

    def send(self, data):
        self.socket.sendall(data)

    def receive(self, count):
        """So many bytes, fewer when the server closes before."""
        data = b""
        while len(data) < count:
            chunk = self.socket.recv(count - len(data))
            if not chunk:
                break
            data += chunk
        return data

    def ask(self, data, wanted):
        """Sends a packet and returns what comes, as long as it begins like wanted."""
        self.send(data)
        return self.receive(len(wanted))

    def closed_within(self, seconds):
        """The seconds until the server closed the connection, None when it did not."""
        begin = time.monotonic()
        end = begin + seconds
        while select.select([self.socket], [], [], max(0, end - time.monotonic()))[0]:
            try:
                if not self.socket.recv(65536):
                    return time.monotonic() - begin
            except ConnectionError:
                return time.monotonic() - begin
        return None


class RequestTest(sms_plant.SmsTest):
    """Base of the tests."""

    def start_nginx(self):
        self.nginx = Nginx(self.folder)
        self.addCleanup(self.nginx.end)
        return self.nginx

    def start_gps(self, *arguments):
        self.gps = GpsSim(*arguments)
        self.addCleanup(self.gps.end)
        return self.gps

    def start_alone(self, **settings):
        """The daemon without modem and server."""
        self.start_plant(modemPort="", **settings)
        self.wait_responder()

    def wait_responder(self):
        plant.wait_for(lambda: ("0100007F", FCGI_PORT) in listening(), "the responder", detail=self.daemon.out.text)

    def wait_listening(self, port):
        plant.wait_for(lambda: ("0100007F", port) in listening(), "port %d" % port, detail=self.daemon.out.text)

    def assert_logged(self, *pieces):
        """Each of the pieces, whole lines, stands in the log, in this order; other threads may print in between."""
        def missing():
            text, at = self.daemon.out.text(), 0
            for piece in pieces:
                found = ("\n" + text).find("\n" + piece, at)
                if found == -1:
                    return piece
                at = found + len(piece)
            return None

        try:
            plant.wait_for(lambda: missing() is None, "the log lines")
        except AssertionError:
            self.fail("%r is missing, or not in its place, in:\n%s" % (missing(), self.daemon.out.text()[-6000:]))

    def assert_lives(self):
        """The daemon answers, polls on when there is a server, and stops with status 0."""
        self.assertEqual(cgi_fcgi(request(55)), b"\n" + DISABLED)
        if hasattr(self, "sim"):
            self.sim.wait_polls(2)
        self.assert_stops()
