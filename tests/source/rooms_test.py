#!/usr/bin/python3
"""Include arrows run one way: a room includes itself and the rooms in front of it, as docs/ARCHITECTURE.md tells."""
import os
import re
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

# From the bottom to the roof. A folder that is not named here belongs to no order: that is a failure too.
ROOMS = ["knihovny", "alarmd.h", "alarmd/base", "alarmd/project", "alarmd/settings", "alarmd/notify", "alarmd/waiting",
         "alarmd/intake", "alarmd/mail", "alarmd/sms", "alarmd/sms/timed_text", "alarmd/gps",
         "alarmd/requests", "alarmd",
         "alarmctl/text", "alarmctl/daemon", "alarmctl/explain", "alarmctl/check", "alarmctl",
         "sim/support", "sim/server", "sim/modem", "sim/gps", "sim"]
# Programs of their own know nothing of the daemon.
STRANGERS = {"sim": "alarm"}
CHIEF = ("alarmd/alarmd.h", "alarmd/alarmd.cpp", "alarmd/fronta.h")  # records and state, which all rooms include


def room_of(path):
    return "alarmd.h" if path in CHIEF else os.path.dirname(path)


def wrong_arrows(root):
    """Each include of a room that stands behind, and each file outside the rooms."""
    wrong = []
    for top in ("alarmd", "alarmctl", "knihovny", "sim"):
        for folder, _, names in sorted(os.walk(os.path.join(root, top))):
            for name in sorted(names):
                if name.endswith((".h", ".cpp")):
                    wrong += arrows_of(root, os.path.relpath(os.path.join(folder, name), root))
    return wrong


def arrows_of(root, path):
    room = room_of(path)
    if room not in ROOMS:
        return ["%s: no room of this name" % path]
    with open(os.path.join(root, path)) as file:
        included = re.findall(r'^#include "([^"]+)"', file.read(), re.MULTILINE)
    wrong = []
    for target in included:
        other = room_of(target)
        stranger = STRANGERS.get(room.split("/")[0])
        if other not in ROOMS or ROOMS.index(other) > ROOMS.index(room) or stranger and other.startswith(stranger):
            wrong.append("%s includes %s" % (path, target))
    return wrong


class Rooms(unittest.TestCase):
    def test_include_arrows_run_one_way(self):
        self.assertEqual(wrong_arrows(ROOT), [])

    def test_an_arrow_the_wrong_way_is_found(self):
        files = {"alarmd/mail/a.cpp": '#include "alarmd/sms/b.h"\n#include "alarmd/alarmd.h"\n#include <string>\n',
                 "alarmd/sms/b.h": '#include "alarmd/mail/c.h"\n#include "knihovny/d.h"\n',
                 "knihovny/d.h": '#include "alarmd/alarmd.h"\n',
                 "alarmd/cellar/e.h": "",
                 "sim/modem/f.h": '#include "alarmd/base/g.h"\n#include "sim/gps/h.h"\n#include "knihovny/d.h"\n'}
        with tempfile.TemporaryDirectory() as root:
            for path, text in files.items():
                os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
                with open(os.path.join(root, path), "w") as file:
                    file.write(text)
            self.assertEqual(wrong_arrows(root), [
                "alarmd/cellar/e.h: no room of this name", "alarmd/mail/a.cpp includes alarmd/sms/b.h",
                "knihovny/d.h includes alarmd/alarmd.h", "sim/modem/f.h includes alarmd/base/g.h",
                "sim/modem/f.h includes sim/gps/h.h"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
