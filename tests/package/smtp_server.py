"""A mail server on 127.0.0.1 that takes mail only from who signs in: its mails become files in a mailbox folder. It prints
"ready" when it can be reached.

    smtp_server.py FOLDER PORT USER PASSWORD
"""

import signal
import sys

from aiosmtpd.controller import Controller
from aiosmtpd.handlers import Mailbox
from aiosmtpd.smtp import AuthResult


def main():
    folder, port, user, password = sys.argv[1:]

    def authenticate(_server, _session, _envelope, _mechanism, data):
        return AuthResult(success=(data.login, data.password) == (user.encode(), password.encode()), handled=False)

    server = Controller(Mailbox(folder), hostname="127.0.0.1", port=int(port), authenticator=authenticate,
                        auth_required=True, auth_require_tls=False)
    server.start()
    print("ready", flush=True)
    signal.pause()


main()
