"""What soak and load share: programs whose output is read line by line and not kept, the counting mail client, and what
a process takes of the machine."""

import collections
import fcntl
import json
import os
import queue
import shutil
import subprocess
import threading

import plant

COUNTING_CLIENT = os.path.join(plant.BIN, "counting-mail-client")
PIPE_SIZE = 1 << 20
TAIL = 2 << 20  # bytes of a stream's end that are kept for the reader of a failure


class Lines:
    """Hands the lines of a stream that begin with one of the prefixes (b"" for all) to a function, in a thread."""

    def __init__(self, stream, prefixes, handle):
        self.bytes = 0
        self.tail = collections.deque()
        self._tail_bytes = 0
        self._stream, self._prefixes, self._handle = stream, tuple(prefixes), handle
        try:
            fcntl.fcntl(stream.fileno(), fcntl.F_SETPIPE_SZ, PIPE_SIZE)
        except OSError:
            pass  # beyond what this user may have in pipes: slower, that is all
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        rest = b""
        while True:
            chunk = os.read(self._stream.fileno(), PIPE_SIZE)
            if not chunk:
                return
            self._keep(chunk)
            *lines, rest = (rest + chunk).split(b"\n")
            for line in lines:
                if line.startswith(self._prefixes):
                    self._handle(line)

    def _keep(self, chunk):
        self.bytes += len(chunk)
        self.tail.append(chunk)
        self._tail_bytes += len(chunk)
        while self._tail_bytes - len(self.tail[0]) > TAIL:
            self._tail_bytes -= len(self.tail.popleft())

    def text(self):
        return b"".join(list(self.tail)).decode("utf-8", "replace")

    def join(self):
        self._thread.join(plant.PATIENCE)


class Program:
    """A child process; nothing of it outlives the Python process."""

    def __init__(self, arguments, cwd=None, env=None, stdin=subprocess.DEVNULL, out=None, err=None, prefixes=(b"",)):
        # A session of its own: Ctrl-C on the terminal reaches the driver alone, which then ends the others in turn.
        self.process = subprocess.Popen(
            arguments, cwd=cwd, env=env, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            start_new_session=True, preexec_fn=plant.die_with_parent)
        self.out = Lines(self.process.stdout, prefixes, out or (lambda line: None))
        self.err = Lines(self.process.stderr, (b"",), err or (lambda line: None))

    @property
    def pid(self):
        return self.process.pid

    def running(self):
        return self.process.poll() is None

    def stop(self, limit=plant.PATIENCE):
        """Asks for a stop and returns the exit status, None when it had to be killed."""
        if self.running():
            self.process.terminate()
        try:
            status = self.process.wait(limit)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            status = None
        self.out.join()
        self.err.join()
        return status


class Sim(Program):
    """A program of the simulated plant; its events go to a function."""

    def __init__(self, program, *arguments, on_event=lambda event: None):
        self._on_event = on_event
        self._answers = queue.Queue()
        self._lock = threading.Lock()
        super().__init__([os.path.join(plant.BIN, program), "--control", "--json-events", *arguments],
                         stdin=subprocess.PIPE, out=self._line)
        self.ready = self._answers.get(timeout=plant.PATIENCE)

    def _line(self, line):
        event = json.loads(line)
        if "ok" in event or event.get("event") == "ready":
            self._answers.put(event)
        else:
            self._on_event(event)

    def command(self, may_fail=False, **command):
        """Carries out a command and returns its answer."""
        with self._lock:
            self.process.stdin.write(json.dumps(command).encode() + b"\n")
            self.process.stdin.flush()
            answer = self._answers.get(timeout=plant.PATIENCE)
        if not answer["ok"] and not may_fail:
            raise AssertionError("%r: %r" % (command, answer))
        return answer


Mail = collections.namedtuple("Mail", "status recipient boundary size cells")


class CountingClient:
    """The counting mail client in the place of the daemon's mail client, and the mails that it has counted."""

    def __init__(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        shutil.copy(COUNTING_CLIENT, path)
        self._path = path
        self._rest = b""
        self._at = 0

    def behave(self, mode=None, value=0):
        """mode: slow, fail or refuse with their value (sim/support/counting_mail_client_main.cpp), None for normal."""
        if mode:
            with open(self._path + ".mode.new", "w") as file:
                file.write("%s %d" % (mode, value))
            os.rename(self._path + ".mode.new", self._path + ".mode")
        elif os.path.exists(self._path + ".mode"):
            os.unlink(self._path + ".mode")

    def new(self):
        """The mails since the last call; of one that was refused the status alone."""
        if not os.path.exists(self._path + ".counts"):
            return []
        with open(self._path + ".counts", "rb") as file:
            file.seek(self._at)
            data = file.read()
        self._at += len(data)
        *lines, self._rest = (self._rest + data).split(b"\n")
        return [self._mail(line.decode("utf-8", "surrogateescape").split("\t")) for line in lines]

    @staticmethod
    def _mail(fields):
        if len(fields) == 1:
            return Mail(int(fields[0]), None, None, 0, ())
        return Mail(int(fields[0]), fields[1], fields[2], int(fields[3]), tuple(fields[4:]))


Resources = collections.namedtuple("Resources", "rss processor descriptors threads")  # kB, seconds, numbers


def resources(pid):
    """What the process takes now."""
    return Resources(plant.memory(pid), plant.processor_seconds(pid), len(os.listdir("/proc/%d/fd" % pid)),
                     len(os.listdir("/proc/%d/task" % pid)))
