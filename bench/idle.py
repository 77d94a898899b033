#!/usr/bin/python3
"""What the daemon takes while nothing happens: memory, its growth, and processor time.

    scripts/world.sh bench/idle.py --bin build/bench/bin [--seconds 120] [--no-modem]

The daemon runs with the simulated server and, unless told otherwise, with an open and initialised modem. Where the
package smstools is installed, its smsd runs beside it with its own default pauses and a modem of its own. The begin is left
out: the figures count from half a minute after it. Processor time is that of all threads and children, in percent of one
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
LINE = "  %-7s %6s s   %7d kB resident   %6.3f %% of a core"
SMSD = "/usr/sbin/smsd"
SMSD_FOLDERS = ("outgoing", "checked", "incoming", "failed", "sent")


def status(pid, key):
    with open("/proc/%d/status" % pid) as file:
        return next(int(line.split()[1]) for line in file if line.startswith(key + ":"))


def with_descendants(pid):
    pids = [pid]
    for parent in pids:
        for thread in os.listdir("/proc/%d/task" % parent):
            with open("/proc/%d/task/%s/children" % (parent, thread)) as file:
                pids.extend(int(child) for child in file.read().split())
    return pids


def processor_seconds(pid):
    """Of a process, its children that run, and those that have ended."""
    ticks = 0
    for each in with_descendants(pid):
        with open("/proc/%d/stat" % each) as file:
            ticks += sum(int(field) for field in file.read().rpartition(")")[2].split()[11:15])
    return ticks / os.sysconf("SC_CLK_TCK")


def resident(pid):
    return sum(status(each, "VmRSS") for each in with_descendants(pid))


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


def start_modem(programs, folder, link):
    modem = start([os.path.join(programs, "gsm-modem-sim"), "--control", "--json-events", "--link", link], folder)
    modem.stdout.readline()
    return modem


def start_smsd(folder):
    """smsd at the modem folder/modem2, with all that it writes in the folder."""
    for name in SMSD_FOLDERS:
        os.mkdir(os.path.join(folder, name))
    lines = ["devices = GSM1", "logfile = %s/smsd.log" % folder, "infofile = %s/smsd.info" % folder,
             "pidfile = %s/smsd.pid" % folder, "loglevel = 5",
             *("%s = %s/%s" % (name, folder, name) for name in SMSD_FOLDERS),
             "[GSM1]", "device = %s/modem2" % folder, "incoming = yes", "baudrate = 115200"]
    with open(os.path.join(folder, "smsd.conf"), "w") as file:
        file.write("\n".join(lines) + "\n")
    return subprocess.Popen([SMSD, "-t", "-c", os.path.join(folder, "smsd.conf")], cwd=folder,
                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


def check_modems(folder, smsd):
    with open(os.path.join(folder, "log")) as log:
        if "MODEM INITIALIZATION SUCCESSFULL" not in log.read():
            sys.exit("the modem is not initialised")
    if smsd:
        with open(os.path.join(folder, "smsd.log")) as log:
            text = log.read()
        if "GSM1: IMSI: " not in text:
            sys.exit("smsd has no modem:\n" + text)


def measure(programs, seconds):
    """Programs: process numbers by name, measured at the same time."""
    print("  daemon, %d threads; load of the machine %.1f on %d processors"
          % (len(os.listdir("/proc/%d/task" % programs["alarmd"])), os.getloadavg()[0], os.cpu_count()))
    begin = time.monotonic()
    first = {name: processor_seconds(pid) for name, pid in programs.items()}
    memory = status(programs["alarmd"], "VmRSS")
    last_time, last = dict(first), begin
    while time.monotonic() - begin < seconds:
        time.sleep(min(60, max(0.1, begin + seconds - time.monotonic())))
        now = time.monotonic()
        for name, pid in programs.items():
            used = processor_seconds(pid)
            print(LINE % (name, "%.0f" % (now - begin), resident(pid), 100 * (used - last_time[name]) / (now - last)),
                  flush=True)
            last_time[name] = used
        last = now
    for name, pid in programs.items():
        print(LINE % (name, "all", resident(pid), 100 * (last_time[name] - first[name]) / (last - begin)))
    print("  alarmd has grown by %d kB; most %d kB; load of the machine %.1f" % (
        status(programs["alarmd"], "VmRSS") - memory, status(programs["alarmd"], "VmHWM"), os.getloadavg()[0]))


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
        smsd = None
        if not options.no_modem:
            children.append(start_modem(programs, folder, os.path.join(folder, "modem")))
            if os.path.exists(SMSD):
                children.append(start_modem(programs, folder, os.path.join(folder, "modem2")))
            else:
                print("  smstools is not installed: measured without smsd beside it")
        prepare(folder, https_port, not options.no_modem)
        with open(os.path.join(folder, "log"), "w") as log:
            daemon = subprocess.Popen([os.path.join(programs, "alarmd")], cwd=folder, stdout=log)
        # What the simulated programs tell is read, so that they do not stop for it.
        readers = [subprocess.Popen(["cat"], stdin=child.stdout, stdout=subprocess.DEVNULL) for child in children]
        if len(children) > 2:
            smsd = start_smsd(folder)
        try:
            time.sleep(SETTLE)
            if not options.no_modem:
                check_modems(folder, smsd)
            measure({"alarmd": daemon.pid, **({"smsd": smsd.pid} if smsd else {})}, options.seconds)
        finally:
            for child in [daemon] + ([smsd] if smsd else []) + children + readers:
                child.terminate()
                child.wait()


if __name__ == "__main__":
    main()
