#!/usr/bin/python3
# A mail relay for tests, on 127.0.0.1: saves each message it accepts as
# N.eml, its decoded body as N.body, and N.txt with what the standard
# e-mail parser makes of it, one "key=value" a line. It can refuse
# recipients (550), answer the first messages with a temporary failure
# (451), require a login, and it ends by itself after --lifetime seconds.
import argparse
import asyncio
import email
import email.policy
import os
import warnings

from aiosmtpd.smtp import SMTP, AuthResult

# A login without TLS is what the tests ask for on loopback.
warnings.filterwarnings("ignore", "Requiring AUTH while not requiring TLS")

parser = argparse.ArgumentParser()
parser.add_argument("--dir", required=True)
parser.add_argument("--port", type=int, default=0)
parser.add_argument("--port-file", required=True)
parser.add_argument("--lifetime", type=float, default=60)
parser.add_argument("--reject", default="", help="refuse recipients with this")
parser.add_argument("--tempfail", type=int, default=0,
                    help="answer 451 to this many messages first")
parser.add_argument("--auth", default="", help="USER:PASSWORD to require")
args = parser.parse_args()


def describe(raw, envelope):
    msg = email.message_from_bytes(raw, policy=email.policy.default)
    return {
        "rcpt_tos": ",".join(envelope.rcpt_tos),
        "from": str(msg["From"]),
        "to": str(msg["To"]),
        "subject": str(msg["Subject"]),
        "date": str(msg["Date"]),
        "message_id": str(msg["Message-ID"]),
        "mime_version": str(msg["MIME-Version"]),
        "content_type": msg.get_content_type(),
        "charset": msg.get_content_charset(),
        "defects": ",".join(type(d).__name__ for d in msg.defects),
        "longest_line": max(len(line) for line in raw.split(b"\r\n")),
    }


class Handler:
    def __init__(self):
        self.saved = 0
        self.tempfail = args.tempfail

    async def handle_RCPT(self, server, session, envelope, address, options):
        if args.reject and args.reject in address:
            return "550 5.1.1 <%s>: no such mailbox here" % address
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        if self.tempfail > 0:
            self.tempfail -= 1
            return "451 4.3.0 busy, try again later"
        self.saved += 1
        base = os.path.join(args.dir, "%03d" % self.saved)
        raw = envelope.original_content
        with open(base + ".eml", "wb") as f:
            f.write(raw)
        # The decoded body, with the line ends mail carries made "\n" again.
        msg = email.message_from_bytes(raw, policy=email.policy.default)
        with open(base + ".body", "wb") as f:
            body = msg.get_payload(decode=True) or b""
            f.write(body.replace(b"\r\n", b"\n"))
        with open(base + ".txt.part", "w") as f:
            for key, value in describe(raw, envelope).items():
                f.write("%s=%s\n" % (key, str(value).replace("\n", " ")))
        os.rename(base + ".txt.part", base + ".txt")
        return "250 2.0.0 queued"


def authenticate(server, session, envelope, mechanism, auth_data):
    user, _, password = args.auth.partition(":")
    ok = (auth_data.login == user.encode() and
          auth_data.password == password.encode())
    return AuthResult(success=ok, handled=False)


def main():
    os.makedirs(args.dir, exist_ok=True)
    loop = asyncio.new_event_loop()
    handler = Handler()
    options = {"hostname": "relay.test"}
    if args.auth:
        options.update(authenticator=authenticate, auth_required=True,
                       auth_require_tls=False)
    server = loop.run_until_complete(loop.create_server(
        lambda: SMTP(handler, **options), "127.0.0.1", args.port))
    port = server.sockets[0].getsockname()[1]
    with open(args.port_file + ".part", "w") as f:
        f.write("%d\n" % port)
    os.rename(args.port_file + ".part", args.port_file)
    loop.call_later(args.lifetime, loop.stop)
    loop.run_forever()


main()
