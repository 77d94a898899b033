"""A plant for one system test: the daemon, and the peers it meets, in a folder of its own.

Each test runs in a private world (scripts/world.sh): /etc/korvato is empty and the fixed ports are free. Everything a
test starts ends with it, at the latest when its Python process dies. Waits are for conditions, with a generous limit;
a wait that fails shows what the daemon has printed.

A test file ends with plant.main() and runs as "FILE TEST_METHOD" (or all its tests, without a method).
"""

import collections
import ctypes
import email
import email.policy
import glob
import html.parser
import json
import mailbox
import os
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLES = os.path.join(SOURCE, "examples")
BIN = os.environ.get("KORVATO_BIN", os.path.join(SOURCE, "build", "dev", "bin"))
ALARMD = os.path.join(BIN, "alarmd")
SERVER_SIM = os.path.join(BIN, "korvato-server-sim")
MSMTP = "/usr/bin/msmtp"
SYSTEM_SETTINGS = "/etc/korvato/settings.json"
PYTHON = "/usr/bin/python3"
SKIPPED = 125
PATIENCE = 90.0  # seconds; the limit of a wait
CLIENT_LIMIT = 60  # seconds that a stop leaves to a mail client
AHEAD = 3600  # seconds; see fast_clock
CLIENT_PATH = "ext/msmtp/msmtp"

_libc = ctypes.CDLL(None)


def die_with_parent():
    _libc.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def wait_for(condition, what, limit=PATIENCE, detail=None):
    """Waits until condition() is true and returns its value."""
    end = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            text = "waited %g s in vain for %s" % (limit, what)
            raise AssertionError(text + ("\n" + detail() if detail else ""))
        time.sleep(0.02)


def free_port():
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def sanitized():
    """Whether the daemon was built with a sanitizer."""
    linked = subprocess.run(["ldd", ALARMD], capture_output=True, text=True).stdout
    return "libasan" in linked or "libtsan" in linked


def clock_library(name="libfaketimeMT.so.1"):
    """The library that turns a program's clocks when it is preloaded, None where there is none."""
    return next(iter(glob.glob("/usr/lib/*/faketime/" + name)), None)


def memory(pid, kind="VmRSS"):
    """kB of the process, of the kind of /proc/PID/status."""
    with open("/proc/%d/status" % pid) as file:
        return next(int(line.split()[1]) for line in file if line.startswith(kind + ":"))


def processor_seconds(pid):
    with open("/proc/%d/stat" % pid) as file:
        ticks = sum(map(int, file.read().rsplit(")", 1)[1].split()[11:13]))
    return ticks / os.sysconf("SC_CLK_TCK")


def fast_clock(speed):
    """An environment in which the daemon's clocks run, and its pauses pass, so many times as fast, and that speed; (None,
    1) where the clocks cannot be turned. What happens now is soon in the past of such a daemon, and not new to it, so
    alarms are to happen AHEAD of now."""
    library = clock_library()
    if not library or sanitized():
        return None, 1
    return {**os.environ, "LD_PRELOAD": library, "FAKETIME": "+0 x%d" % speed}, speed


class Output:
    """The lines a process prints on one of its streams, with their times. read() keeps up with it in a thread."""

    def __init__(self, stream):
        self._stream = stream
        self._condition = threading.Condition()
        self.raw = bytearray()
        self.lines = []  # (monotonic time, text without newline)
        self.ended = False
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        rest = b""
        while True:
            try:
                chunk = os.read(self._stream.fileno(), 65536)
            except (OSError, ValueError):
                chunk = b""
            now = time.monotonic()
            with self._condition:
                if not chunk:
                    if rest:
                        self.lines.append((now, rest.decode("utf-8", "surrogateescape")))
                    self.ended = True
                    self._condition.notify_all()
                    return
                self.raw += chunk
                *whole, rest = (rest + chunk).split(b"\n")
                self.lines.extend((now, line.decode("utf-8", "surrogateescape")) for line in whole)
                self._condition.notify_all()

    def text(self):
        return self.raw.decode("utf-8", "surrogateescape")

    def texts(self):
        return [line for _, line in list(self.lines)]

    def count(self, wanted):
        matches = _matcher(wanted)
        return sum(1 for line in self.texts() if matches(line))

    def wait(self, wanted, count=1, limit=PATIENCE):
        """Waits until count lines match wanted (a whole line, or a predicate); returns (time, line) of the last."""
        matches = _matcher(wanted)
        end = time.monotonic() + limit
        seen, found = 0, 0
        with self._condition:
            while True:
                while seen < len(self.lines):
                    if matches(self.lines[seen][1]):
                        found += 1
                        if found == count:
                            return self.lines[seen]
                    seen += 1
                left = end - time.monotonic()
                if self.ended or left <= 0:
                    raise AssertionError(
                        "no %s line %r (%d of %d); printed were:\n%s"
                        % ("more" if self.ended else "timely", wanted, found, count, self.text()[-6000:])
                    )
                self._condition.wait(left)

    def join(self):
        self._thread.join(PATIENCE)


def _matcher(wanted):
    return wanted if callable(wanted) else lambda line: line == wanted


def starting(text):
    """Predicate: the line starts with text."""
    predicate = lambda line: line.startswith(text)
    predicate.__name__ = "starting " + repr(text)
    return predicate


def holding(*texts):
    """Predicate: the line holds every one of the texts."""
    return lambda line: all(text in line for text in texts)


class Process:
    def __init__(self, arguments, cwd=None, stdin=None, env=None):
        environment = dict(os.environ if env is None else env)
        self.process = subprocess.Popen(
            arguments,
            cwd=cwd,
            env=environment,
            stdin=stdin if stdin is not None else subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            preexec_fn=die_with_parent,
        )
        self.started = time.monotonic()
        self.out = Output(self.process.stdout)
        self.err = Output(self.process.stderr)

    @property
    def pid(self):
        return self.process.pid

    def signal(self, number):
        self.process.send_signal(number)

    def running(self):
        return self.process.poll() is None

    def wait_exit(self, limit=PATIENCE):
        """Waits for the end and returns the status (negative: the signal that ended it)."""
        try:
            status = self.process.wait(limit)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running after %g s; printed were:\n%s" % (limit, self.out.text()[-6000:]))
        self.out.join()
        self.err.join()
        return status

    def end(self):
        if self.running():
            self.process.kill()
            self.process.wait()
        self.out.join()
        self.err.join()
        self.process.stdout.close()
        self.process.stderr.close()
        if self.process.stdin:
            try:
                self.process.stdin.close()
            except OSError:
                pass


class Daemon(Process):
    """A running alarmd. Unless a test has ended it, its stop at the end of the test must be clean."""

    expected_to_run = True

    def stop(self, number=signal.SIGTERM):
        """Asks for a stop and returns (status, seconds it took)."""
        begin = time.monotonic()
        self.signal(number)
        status = self.wait_exit()
        return status, time.monotonic() - begin


class Sim(Process):
    """A program of the simulated plant (sim/README.md), driven by commands."""

    def __init__(self, program, *arguments):
        super().__init__([program, "--control", "--json-events", *arguments], stdin=subprocess.PIPE)
        self._answers = 0
        self._lock = threading.Lock()
        self.ready = json.loads(self.out.wait(lambda line: '"event":"ready"' in line)[1])

    def command(self, **command):
        """Carries out a command and returns its answer."""
        with self._lock:
            self._answers += 1
            command["ref"] = self._answers
            self.process.stdin.write(json.dumps(command).encode() + b"\n")
            self.process.stdin.flush()
            end = '"ref":%d' % self._answers
        answer = json.loads(self.out.wait(lambda line: '"ok":' in line and end in line)[1])
        if not answer["ok"]:
            raise AssertionError("%r: %r" % (command, answer))
        return answer

    def events(self, name):
        """The events of this name so far."""
        return [event for event in map(json.loads, self.out.texts()) if event.get("event") == name]


class ServerSim(Sim):
    """The simulated Korvato server."""

    def __init__(self, port=0, project="7", tcp_port=0, scenario=None):
        what = ["--scenario", scenario] if scenario else ["--project", project]
        super().__init__(SERVER_SIM, "--port", str(port), "--tcp-port", str(tcp_port), *what)
        self.port = self.ready["https"]

    def alarm(self, number, state="activated", **more):
        return self.command(alarm=number, state=state, **more)

    def coming(self, *alarms):
        """Changes of alarms, each (id, state) or (id, state, members), a little ahead of the clock: for a daemon that
        is started next they are new at its first poll."""
        moment = int(time.time()) + 3
        for micro, (number, state, *more) in enumerate(alarms):
            self.alarm(number, state, time=[moment, micro], **(more[0] if more else {}))

    def polls(self):
        return self.command(query="polls")["polls"]

    def wait_polls(self, more=1):
        """Waits until that many more polls than so far have been answered."""
        so_far = self.command(query="state")["poll_count"]
        wait_for(lambda: self.command(query="state")["poll_count"] >= so_far + more, "%d more polls" % more)


Request = collections.namedtuple("Request", "time connection head body")


class AnswerServer:
    """An HTTPS server whose every byte the test decides; for answers that no good server gives.

    answer(n, request) is called for the n-th request (from 0), in a thread of the connection. It returns the bytes to
    send, b"" meaning: close without an answer. A tuple (bytes, seconds) sends the bytes, then waits and closes.
    """

    def __init__(self, folder, answer=None, port=None):
        self.requests = []
        self.connections = 0
        self._answer = answer or (lambda n, request: json_answer({"d": []}))
        self._lock = threading.Lock()
        self._stopped = threading.Event()
        self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._context.load_cert_chain(*make_certificate(folder))
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind(("127.0.0.1", port or 0))
        self._socket.listen(16)
        self.port = self._socket.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            with self._lock:
                number = self.connections
                self.connections += 1
            threading.Thread(target=self._serve, args=(connection, number), daemon=True).start()

    def _serve(self, connection, number):
        try:
            with self._context.wrap_socket(connection, server_side=True) as tls:
                rest = b""
                while not self._stopped.is_set():
                    request, rest = self._read(tls, rest, number)
                    if request is None:
                        return
                    with self._lock:
                        index = len(self.requests)
                        self.requests.append(request)
                    answer = self._answer(index, request)
                    if isinstance(answer, tuple):
                        tls.sendall(answer[0])
                        self._stopped.wait(answer[1])
                        return
                    if not answer:
                        return
                    tls.sendall(answer)
        except OSError:
            pass

    @staticmethod
    def _read(tls, data, number):
        while b"\r\n\r\n" not in data:
            chunk = tls.recv(65536)
            if not chunk:
                return None, b""
            data += chunk
        head, data = data.split(b"\r\n\r\n", 1)
        length = 0
        for line in head.split(b"\r\n")[1:]:
            name, _, value = line.partition(b":")
            if name.lower() == b"content-length":
                length = int(value)
        while len(data) < length:
            chunk = tls.recv(65536)
            if not chunk:
                return None, b""
            data += chunk
        return Request(time.monotonic(), number, head.decode("latin-1"), data[:length].decode("latin-1")), data[length:]

    def bodies(self):
        return [request.body for request in list(self.requests)]

    def wait_requests(self, count, limit=PATIENCE):
        wait_for(lambda: len(self.requests) >= count, "%d requests" % count, limit)
        return self.requests[count - 1]

    def end(self):
        self._stopped.set()
        self._socket.close()


def make_certificate(folder):
    """Makes a self-signed certificate in folder, once; returns the paths of certificate and key."""
    certificate, key = os.path.join(folder, "server.crt"), os.path.join(folder, "server.key")
    if not os.path.exists(certificate):
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
             "-subj", "/CN=127.0.0.1", "-days", "30", "-keyout", key, "-out", certificate],
            check=True, capture_output=True, preexec_fn=die_with_parent)
    return certificate, key


def http_answer(body, status="200 OK", content_type="application/json", extra=""):
    if isinstance(body, str):
        body = body.encode()
    head = "HTTP/1.1 %s\r\nContent-Type: %s\r\nContent-Length: %d\r\n%s\r\n" % (status, content_type, len(body), extra)
    return head.encode() + body


def json_answer(value):
    return http_answer(json.dumps(value, ensure_ascii=False))


def entry(alarm_id, stat, at, micro=0, **more):
    """A history entry of alarm_id in state stat; its event time is (at, micro)."""
    times = {"atm": [0, 0], "dtm": [0, 0], "acktm": [0, 0]}
    times[{0: "dtm", 1: "atm", 2: "acktm"}.get(stat, "acktm")] = [int(at), micro]
    cell = {"av": 0, "dv": 0, "ackv": 0, "stat": stat, "user": "", **times, **more}
    return {"id": alarm_id, "cell": cell}


class Smtp:
    """A real SMTP server that keeps what it gets in a Maildir."""

    def __init__(self, folder):
        self.folder = os.path.join(folder, "mailbox")
        self.port = free_port()
        self._process = Process(
            [PYTHON, "-m", "aiosmtpd", "-n", "-c", "aiosmtpd.handlers.Mailbox", self.folder,
             "-l", "127.0.0.1:%d" % self.port], cwd=folder)
        wait_for(self._answers, "the SMTP server", detail=lambda: self._process.err.text())

    def _answers(self):
        try:
            with socket.create_connection(("127.0.0.1", self.port), 1) as connection:
                return connection.recv(3) == b"220"
        except OSError:
            return False

    def mails(self):
        """The mails so far, oldest first, as the standard parser reads them."""
        folder = os.path.join(self.folder, "new")
        found = []
        for name in os.listdir(folder) if os.path.isdir(folder) else []:
            path = os.path.join(folder, name)
            with open(path, "rb") as file:
                found.append((os.stat(path).st_mtime_ns, name, Mail(file.read())))
        return [mail for _, _, mail in sorted(found, key=lambda item: item[:2])]

    def wait_mails(self, count, limit=PATIENCE, detail=None):
        wait_for(lambda: len(self.mails()) >= count, "%d mails" % count, limit,
                 lambda: "there are %d\n%s" % (len(self.mails()), detail() if detail else ""))
        return self.mails()

    def end(self):
        self._process.end()


class _Cells(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.rows = []
        self._in_cell = False

    def handle_starttag(self, tag, attributes):
        if tag == "tr":
            self.rows.append([])
        elif tag == "td":
            self._in_cell = True
            self.rows[-1].append("")

    def handle_endtag(self, tag):
        if tag == "td":
            self._in_cell = False

    def handle_data(self, data):
        if self._in_cell:
            self.rows[-1][-1] += data


COLUMNS = ["MESSAGE", "STATUS", "SEV", "AREA", "DEVICE", "ACT TIME", "DEACT TIME", "ACK TIME", "ACT VAL", "DEACT VAL",
           "ACK VAL", "USER"]


class Mail:
    """One mail as the standard parser reads it."""

    def __init__(self, raw):
        self.raw = raw
        self.message = email.message_from_bytes(raw, policy=email.policy.default)
        self.parts = [part for part in self.message.walk() if not part.is_multipart()]

    def __getitem__(self, header):
        return self.message[header]

    @property
    def body(self):
        return self.parts[0].get_content()

    def row(self):
        """The alarm's row as a dictionary by column title."""
        cells = _Cells()
        cells.feed(self.body)
        if len(cells.rows) != 2 or cells.rows[0] != COLUMNS:
            raise AssertionError("no alarm table in the mail:\n%s" % self.body[-2000:])
        return dict(zip(COLUMNS, cells.rows[1]))


CLIENT_SCRIPT = """#!/bin/sh
n=$(cat "$0.count" 2>/dev/null || echo 0)
echo $((n + 1)) >"$0.count"
for a in "$@"; do printf '%s\\n' "$a"; done >"$0.argv.$n"
ls /proc/$PPID/task >"$0.threads.$n" 2>/dev/null
cat >"$0.stdin.$n.part"
mv "$0.stdin.$n.part" "$0.stdin.$n"
"""


class FakeClient:
    """A mail client that keeps its arguments and its input; then the lines of script run, if any."""

    def __init__(self, path, script=""):
        self._path = path
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as file:
            file.write(CLIENT_SCRIPT + script)
        os.chmod(path, 0o755)

    def runs(self):
        """The finished inputs so far: how many."""
        n = 0
        while os.path.exists("%s.stdin.%d" % (self._path, n)):
            n += 1
        return n

    def arguments(self, n=0):
        with open("%s.argv.%d" % (self._path, n)) as file:
            return file.read().split("\n")[:-1]

    def input(self, n=0):
        with open("%s.stdin.%d" % (self._path, n), "rb") as file:
            return file.read()

    def parent_threads(self, n=0):
        with open("%s.threads.%d" % (self._path, n)) as file:
            return len(file.read().split())

    def wait_runs(self, count, limit=PATIENCE, detail=None):
        wait_for(lambda: self.runs() >= count, "run %d of the mail client" % count, limit, detail)


# A project of two groups that most tests use: alarm 12 goes to group 1, alarm 13 to groups 1 and 2, alarm 14 has no
# e-mail flag.
def _definition(number, groups, email_flag=True):
    return {"id": number, "severity": 2, "area": "Area %d" % number, "message": "Message %d" % number,
            "device": "Device %d" % number, "tag": "T%d" % number, "email": email_flag,
            "areaLangs": {"cs": "Oblast %d" % number}, "deviceLangs": {"cs": "Zařízení %d" % number},
            "messageLangs": {"cs": "Zpráva %d" % number, "de": "Meldung %d" % number},
            "group": [g in groups for g in range(12)]}


SMALL_GROUPS = [{"groupNo": 1, "name": "One", "reportingMaxSeverity": 3, "reporting": True},
                {"groupNo": 2, "name": "Two", "reportingMaxSeverity": 1, "reporting": False}]
SMALL_CAS = [_definition(12, [1]), _definition(13, [1, 2]), _definition(14, [1], False)]
SMALL_USERS = [{"id": 1, "level": 1, "name": "Jan", "mail": "jan@plant.example", "tel": "", "language": "cs"}]


class PlantTest(unittest.TestCase):
    """Base of the tests: a folder with configuration and project, and the programs started so far."""

    def setUp(self):
        if os.path.isdir("/etc/korvato") and os.listdir("/etc/korvato"):
            self.fail("/etc/korvato is not empty: run this in a private world, scripts/world.sh " + sys.argv[0])
        self.folder = tempfile.mkdtemp(prefix="plant-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.addCleanup(self._forget_settings)
        self.project_folder = self.path("project")
        os.mkdir(self.project_folder)
        self.https_port = free_port()
        self.daemons = []

    @staticmethod
    def _forget_settings():
        if os.path.isdir(SYSTEM_SETTINGS):
            os.rmdir(SYSTEM_SETTINGS)
        elif os.path.lexists(SYSTEM_SETTINGS):
            os.unlink(SYSTEM_SETTINGS)

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, content):
        """Writes a file below the test's folder: a text, bytes, or a value as JSON."""
        path = self.path(name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if not isinstance(content, (str, bytes)):
            content = json.dumps(content, ensure_ascii=False)
        with open(path, "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        return path

    def write_settings(self, content):
        with open(SYSTEM_SETTINGS, "w") as file:
            file.write(content if isinstance(content, str) else json.dumps(content))

    def configure(self, **changes):
        """Writes the three configuration files; a key set to None is left out."""
        keys = {"pFolder": self.project_folder, "https_port": str(self.https_port), "binFolder": self.folder}
        keys.update(changes)
        self.write("korvato.conf", "".join("%s %s\n" % item for item in keys.items() if item[1] is not None))
        smtp_port = self.smtp.port if hasattr(self, "smtp") else 1
        self.write("msmtp.conf", "account korvato\nhost 127.0.0.1\nport %d\ntls off\nauth off\nfrom alarms@plant.example\n"
                   % smtp_port)
        self.write("sms.conf", "# nothing\n")

    def project(self, groups=None, cas=None, users=None, setting=None):
        self.write("project/groups.json", SMALL_GROUPS if groups is None else groups)
        self.write("project/cas.json", SMALL_CAS if cas is None else cas)
        self.write("project/users.json", SMALL_USERS if users is None else users)
        self.write("project/setting.json", {"projectID": "7"} if setting is None else setting)

    def start_answers(self, answer=None):
        """Starts the server of raw answers at https_port."""
        self.server = AnswerServer(self.folder, answer, self.https_port)
        self.addCleanup(self.server.end)
        return self.server

    def start_sim(self, **options):
        """Starts the simulated server at https_port."""
        self.sim = ServerSim(self.https_port, **options)
        self.addCleanup(self.sim.end)
        return self.sim

    def start_smtp(self):
        self.smtp = Smtp(self.folder)
        self.addCleanup(self.smtp.end)
        os.makedirs(os.path.dirname(self.path(CLIENT_PATH)), exist_ok=True)
        os.symlink(MSMTP, self.path(CLIENT_PATH))
        return self.smtp

    def fake_client(self, script=""):
        self.client = FakeClient(self.path(CLIENT_PATH), script)
        return self.client

    def start_daemon(self, *arguments, env=None, wrapper=()):
        """Starts the daemon in the test's folder. At the end of the test it is stopped and must end with status 0."""
        daemon = Daemon([*wrapper, ALARMD, *arguments], cwd=self.folder, env=env)
        self.daemons.append(daemon)
        self.addCleanup(self._end_daemon, daemon)
        return daemon

    def _end_daemon(self, daemon):
        try:
            if daemon.running():
                status, _ = daemon.stop()
                self.assertEqual(status, 0, "the daemon's end:\n" + daemon.err.text()[-4000:])
        finally:
            daemon.end()

    def run_daemon(self, *arguments):
        """Runs the daemon to its end; returns (status, standard output, standard error)."""
        daemon = self.start_daemon(*arguments)
        status = daemon.wait_exit()
        return status, daemon.out.text(), daemon.err.text()

    def first_poll(self, daemon):
        """The daemon's first request, when its answer is in the log: so is all that start-up has printed."""
        request = self.server.wait_requests(1)
        daemon.out.wait(starting("JSON : "))
        return request

    def assert_in_order(self, lines, wanted):
        """Every line of wanted stands in lines, in this order."""
        rest = iter(lines)
        for text in wanted:
            if not any(line == text for line in rest):
                self.fail("%r is missing, or not in its place, in:\n%s" % (text, "\n".join(lines)))


def main():
    """Runs the test method named on the command line, or all; status 0, 1, or 125 when the test was skipped."""
    module = sys.modules["__main__"]
    loader = unittest.TestLoader()
    suite = loader.loadTestsFromModule(module)
    if len(sys.argv) > 1:
        chosen = unittest.TestSuite(
            test for case in suite for test in case if test._testMethodName in sys.argv[1:])
        if chosen.countTestCases() != len(sys.argv) - 1:
            sys.exit("no such test: " + " ".join(sys.argv[1:]))
        suite = chosen
    result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite)
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(SKIPPED if result.skipped and len(result.skipped) == result.testsRun else 0)
