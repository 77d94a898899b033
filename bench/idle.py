#!/usr/bin/python3
"""What the daemon takes while nothing happens: memory, its growth, and processor time.

    scripts/world.sh bench/idle.py --bin build/bench/bin [--seconds 120] [--no-modem]

The daemon runs with the simulated server and, unless told otherwise, with an open and initialised modem. Its begin is
left out: the figures count from half a minute after it. Processor time is that of all its threads, in percent of one
core.
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SETTLE = 30  # seconds
LINE = "  %6s s   %7d kB resident   %5.2f %% of a core"


def status(pid, key):
    with open("/proc/%d/status" % pid) as file:
        return next(int(line.split()[1]) for line in file if line.startswith(key + ":"))


def processor_seconds(pid):
    with open("/proc/%d/stat" % pid) as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def start(arguments, folder, **options):
    return subprocess.Popen(arguments, cwd=folder, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, **options)


def prepare(folder, https_port, modem):
    with open(os.path.join(folder, "korvato.conf"), "w") as file:
        file.write("pFolder %s/examples\nhttps_port %d\nbinFolder %s\n" % (ROOT, https_port, folder))
    for name in ("msmtp.conf", "sms.conf"):
        open(os.path.join(folder, name), "w").close()
    port = os.path.join(folder, "modem") if modem else ""
    with open("/etc/korvato/settings.json", "w") as file:
        json.dump({"network": {"modem": {"modemPort": port, "smsc": "+420603052000"}}}, file)


def measure(pid, seconds):
    print("  daemon, %d threads" % len(os.listdir("/proc/%d/task" % pid)))
    first_memory, first_time, begin = status(pid, "VmRSS"), processor_seconds(pid), time.monotonic()
    last_time, last = first_time, begin
    while time.monotonic() - begin < seconds:
        time.sleep(min(60, max(0.1, begin + seconds - time.monotonic())))
        now, used = time.monotonic(), processor_seconds(pid)
        print(LINE % ("%.0f" % (now - begin), status(pid, "VmRSS"), 100 * (used - last_time) / (now - last)), flush=True)
        last_time, last = used, now
    print(LINE % ("all", status(pid, "VmRSS"), 100 * (last_time - first_time) / (last - begin)))
    print("  grown by %d kB; most %d kB" % (status(pid, "VmRSS") - first_memory, status(pid, "VmHWM")))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", required=True)
    parser.add_argument("--seconds", type=int, default=120)
    parser.add_argument("--no-modem", action="store_true")
    options = parser.parse_args()
    programs = os.path.abspath(options.bin)
    if os.listdir("/etc/korvato"):
        sys.exit("/etc/korvato is not empty: run this by scripts/world.sh")
    with tempfile.TemporaryDirectory(prefix="idle-") as folder:
        server = start([os.path.join(programs, "korvato-server-sim"), "--control", "--json-events"], folder)
        https_port = json.loads(server.stdout.readline())["https"]
        children = [server]
        if not options.no_modem:
            children.append(start([os.path.join(programs, "gsm-modem-sim"), "--control", "--json-events", "--link",
                                   os.path.join(folder, "modem")], folder))
            children[-1].stdout.readline()
        prepare(folder, https_port, not options.no_modem)
        with open(os.path.join(folder, "log"), "w") as log:
            daemon = subprocess.Popen([os.path.join(programs, "alarmd")], cwd=folder, stdout=log)
        # What the simulated programs tell is read, so that they do not stop for it.
        readers = [subprocess.Popen(["cat"], stdin=child.stdout, stdout=subprocess.DEVNULL) for child in children]
        try:
            time.sleep(SETTLE)
            with open(os.path.join(folder, "log")) as log:
                if not options.no_modem and "MODEM INITIALIZATION SUCCESSFULL" not in log.read():
                    sys.exit("the modem is not initialised")
            measure(daemon.pid, options.seconds)
        finally:
            daemon.terminate()
            daemon.wait()
            for child in children + readers:
                child.terminate()
                child.wait()


if __name__ == "__main__":
    main()
