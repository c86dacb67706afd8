"""The end-to-end suite's harness: a fresh sandbox with its running mail
stack, a stand-in for the outside world, and the client side of SMTP and
IMAP.

Every check goes through what the real servers answer (SMTP replies, IMAP
logins and fetches, the queue listing) or what Dovecot wrote (a mailbox's
Maildir); nothing reads the panel's own files.

Everything a test class starts is stopped when the class ends, also when it
fails: the stack by "zelpnl stack stop", the stand-in by its thread. The
class's last step asserts that no process of the stack survives and that
sendmail's queue is empty.

CTest passes ZELPNL (the zelpnl program) and ZEL_TEST_SCRATCH (a folder under
the build tree: sendmail refuses folders anyone may write to, such as /tmp).
"""

import imaplib
import itertools
import json
import os
import shutil
import smtplib
import socket
import socketserver
import subprocess
import tempfile
import threading
import time
import unittest
import uuid

ZELPNL = os.environ.get("ZELPNL", "")
SCRATCH = os.environ.get("ZEL_TEST_SCRATCH", "")
SENDMAIL = "/usr/sbin/sendmail"

# Every wait of the suite is bounded by one of these.
COMMAND_TIMEOUT = 60
DELIVERY_TIMEOUT = 20
NETWORK_TIMEOUT = 20


def has_ipv6_loopback():
    try:
        with socket.socket(socket.AF_INET6) as s:
            s.bind(("::1", 0))
        return True
    except OSError:
        return False


# --------------------------------------------------------------------------
# The outside world: a small SMTP server that records what it is given.


class Received:
    """One message the stand-in took: envelope and text."""

    def __init__(self, sender, recipients, data):
        self.sender = sender
        self.recipients = recipients
        self.data = data

    def __repr__(self):
        return "Received(%r, %r, %d bytes)" % (self.sender, self.recipients, len(self.data))


class _StandInHandler(socketserver.StreamRequestHandler):
    # A session ends after this many commands or this long without one.
    max_commands = 500
    timeout = NETWORK_TIMEOUT

    def reply(self, line):
        self.wfile.write(line.encode() + b"\r\n")
        self.wfile.flush()

    def handle(self):
        standin = self.server.standin
        self.reply("220 standin.example ESMTP stand-in")
        sender, recipients = None, []
        for _ in range(self.max_commands):
            line = self.rfile.readline(4096)
            if not line:
                return
            command = line.decode("utf-8", "replace").rstrip("\r\n")
            verb = command[:4].upper()
            if verb in ("EHLO", "HELO"):
                self.reply("250 standin.example")
            elif command.upper().startswith("MAIL FROM:"):
                sender, recipients = _angle(command[10:]), []
                self.reply("250 2.1.0 sender ok")
            elif command.upper().startswith("RCPT TO:"):
                rcpt = _angle(command[8:])
                if rcpt.lower() in standin.refused:
                    self.reply("550 5.1.1 <%s>... no such user at the stand-in" % rcpt)
                else:
                    recipients.append(rcpt)
                    self.reply("250 2.1.5 recipient ok")
            elif verb == "DATA":
                if sender is None or not recipients:
                    self.reply("503 5.5.1 need MAIL and RCPT first")
                    continue
                self.reply("354 go ahead")
                data = self.read_data()
                if data is None:
                    return
                standin.record(Received(sender, recipients, data))
                sender, recipients = None, []
                self.reply("250 2.0.0 taken")
            elif verb == "RSET":
                sender, recipients = None, []
                self.reply("250 2.0.0 reset")
            elif verb == "NOOP":
                self.reply("250 2.0.0 ok")
            elif verb == "QUIT":
                self.reply("221 2.0.0 bye")
                return
            else:
                self.reply("502 5.5.2 not here")

    def read_data(self):
        lines = []
        size = 0
        while True:
            line = self.rfile.readline(1 << 20)
            if not line:
                return None
            if line in (b".\r\n", b".\n"):
                return b"".join(lines)
            if line.startswith(b"."):
                line = line[1:]  # the sender doubled a leading dot
            size += len(line)
            if size > 10 << 20:
                return None
            lines.append(line)


def _angle(text):
    text = text.strip()
    if text.startswith("<"):
        text = text[1 : text.find(">")] if ">" in text else text[1:]
    return text.split()[0] if text.split() else text


class _Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True


class StandIn:
    """The outside world: listens on 127.0.0.1 at a free port while the test
    class runs; answers 550 at RCPT for the addresses in `refused`."""

    def __init__(self):
        self.refused = set()
        self._messages = []
        self._lock = threading.Condition()
        self._server = _Server(("127.0.0.1", 0), _StandInHandler)
        self._server.standin = self
        self.port = self._server.server_address[1]
        self._thread = threading.Thread(
            target=self._server.serve_forever, kwargs={"poll_interval": 0.1}, daemon=True
        )
        self._thread.start()

    def refuse(self, address):
        self.refused.add(address.lower())

    def record(self, message):
        with self._lock:
            self._messages.append(message)
            self._lock.notify_all()

    def messages(self):
        with self._lock:
            return list(self._messages)

    def received(self, count, timeout=DELIVERY_TIMEOUT):
        """Waits until the stand-in holds at least `count` messages and
        returns them all; fewer after `timeout` seconds fail the test."""
        deadline = time.monotonic() + timeout
        with self._lock:
            while len(self._messages) < count:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError(
                        "the outside world got %d of %d messages within %ds: %r"
                        % (len(self._messages), count, timeout, self._messages)
                    )
                self._lock.wait(left)
            return list(self._messages)

    def stop(self):
        self._server.shutdown()
        self._server.server_close()
        self._thread.join(NETWORK_TIMEOUT)


# --------------------------------------------------------------------------
# SMTP and IMAP clients.


class SendResult:
    """What our daemon answered: the greeting or MAIL's refusal (`refused`,
    a (code, text) or None), each recipient's RCPT reply and DATA's reply
    (None when no recipient was taken)."""

    def __init__(self):
        self.refused = None
        self.rcpt = {}
        self.data = None

    def code(self, rcpt):
        return self.rcpt[rcpt][0]

    def text(self, rcpt):
        return self.rcpt[rcpt][1]

    def __repr__(self):
        return "SendResult(refused=%r, rcpt=%r, data=%r)" % (self.refused, self.rcpt, self.data)


def make_message(sender, rcpts, body, subject=None):
    marker = uuid.uuid4().hex
    return (
        "From: <%s>\r\nTo: %s\r\nSubject: %s\r\nMessage-ID: <%s@e2e.example>\r\n\r\n%s\r\n"
        % (sender, ", ".join("<%s>" % r for r in rcpts), subject or "e2e " + marker, marker, body)
    )


def _decode(text):
    return text.decode("utf-8", "replace") if isinstance(text, bytes) else str(text)


class Imap(imaplib.IMAP4):
    """IMAP from a chosen source address (Dovecot delays refused logins per
    client address, so each refused login comes from an address of its own)."""

    def __init__(self, host, port, source):
        self._source = source
        super().__init__(host, port, timeout=NETWORK_TIMEOUT)

    def _create_socket(self, timeout):
        return socket.create_connection(
            (self.host, self.port), timeout, source_address=(self._source, 0)
        )


# --------------------------------------------------------------------------
# The sandbox and its stack.


class Sandbox:
    def __init__(self, name, smart_host_port):
        if not ZELPNL or not SCRATCH:
            raise RuntimeError("ZELPNL and ZEL_TEST_SCRATCH must be set (CTest sets them)")
        parent = tempfile.mkdtemp(prefix="e2e-%s-" % name, dir=SCRATCH)
        # The mail user's servers walk through this folder to the Maildirs.
        os.chmod(parent, 0o755)
        self.dir = os.path.join(parent, "sb")
        self.parent = parent
        self.conf = os.path.join(self.dir, "zelpnl.conf")
        self.cf = os.path.join(self.dir, "sendmail.cf")
        self.mail_root = os.path.join(self.dir, "mail")
        self.run("init", "--sandbox", self.dir, "--smart-host", "127.0.0.1:%d" % smart_host_port,
                 config=False)
        params = self._read_conf()
        self.smtp_port = _port_of(params["stack_sendmail_listen"])
        self.imap_port = _port_of(params["stack_dovecot_listen"])
        self.ipv6 = "[::1]" in params["stack_sendmail_listen"]
        self._next_source = itertools.count(10)
        self._seen_pids = set()

    def _read_conf(self):
        params = {}
        with open(self.conf) as f:
            for line in f:
                if "=" in line and not line.lstrip().startswith("#"):
                    key, value = line.split("=", 1)
                    params[key.strip()] = value.strip()
        return params

    # The panel's command line --------------------------------------------

    def run(self, *args, stdin=None, check=True, config=True):
        argv = [ZELPNL] + (["--config", self.conf] if config else []) + list(args)
        done = subprocess.run(argv, input=stdin, capture_output=True, text=True,
                              timeout=COMMAND_TIMEOUT)
        if check and done.returncode != 0:
            raise AssertionError("%s exited %d:\n%s%s" % (" ".join(argv), done.returncode,
                                                            done.stdout, done.stderr))
        return done

    def add_domain(self, domain, *options):
        self.run("webdomain", "add", domain, "--owner", "admin")
        self.run("mail", "domain", "add", domain, *options)

    def add_box(self, address, *options, password=None):
        if password is not None:
            options = options + ("--password-stdin",)
        self.run("mail", "box", "add", address, *options,
                 stdin=None if password is None else password + "\n")

    def status(self):
        return json.loads(self.run("--json", "stack", "status").stdout)["stack"]

    def queued(self):
        return self.status().get("queued", -1)

    def wait_queue(self, predicate, timeout=DELIVERY_TIMEOUT):
        """Polls the queue count until predicate(count) holds; returns it."""
        deadline = time.monotonic() + timeout
        while True:
            count = self.queued()
            if predicate(count):
                return count
            if time.monotonic() >= deadline:
                raise AssertionError("queue count %d after %ds:\n%s" % (
                    count, timeout, self.queue_listing()))
            time.sleep(0.2)

    def queue_listing(self):
        return subprocess.run([SENDMAIL, "-C", self.cf, "-bp"], capture_output=True, text=True,
                              timeout=COMMAND_TIMEOUT).stdout

    def wait_listing(self, predicate, timeout=DELIVERY_TIMEOUT):
        """Polls sendmail's queue listing until predicate(text) holds."""
        deadline = time.monotonic() + timeout
        while True:
            text = self.queue_listing()
            if predicate(text):
                return text
            if time.monotonic() >= deadline:
                raise AssertionError("queue listing after %ds:\n%s" % (timeout, text))
            time.sleep(0.2)

    def run_queue(self):
        subprocess.run([SENDMAIL, "-C", self.cf, "-q"], stdin=subprocess.DEVNULL,
                       capture_output=True, timeout=COMMAND_TIMEOUT)

    # The stack --------------------------------------------------------------

    def start(self):
        self.run("stack", "start")
        self.remember_pids()

    def remember_pids(self):
        """Notes the stack's servers and every process below them, so that the
        end can tell that none of them survived."""
        roots = {s["pid"] for s in self.status()["services"] if s["pid"]}
        self._seen_pids |= roots | _descendants(roots)

    def stop(self):
        self.remember_pids()
        self.run("stack", "stop")

    def survivors(self, timeout=10):
        """The processes of the stack still alive after `timeout` seconds:
        remembered pids, and any process whose command line names the sandbox."""
        deadline = time.monotonic() + timeout
        while True:
            alive = {pid for pid in self._seen_pids if _alive(pid)}
            alive |= _naming(self.dir)
            alive.discard(os.getpid())
            if not alive or time.monotonic() >= deadline:
                return {pid: _cmdline(pid) for pid in alive}
            time.sleep(0.1)

    # SMTP -------------------------------------------------------------------

    def send(self, sender, rcpts, body="hello", client_address="127.0.0.1", message=None):
        """One SMTP transaction with our daemon from client_address
        ('127.0.0.1', '::1' or another 127.0.0.N); refusals are results."""
        if isinstance(rcpts, str):
            rcpts = [rcpts]
        result = SendResult()
        host = "::1" if ":" in client_address else "127.0.0.1"
        text = message if message is not None else make_message(sender, rcpts, body)
        smtp = smtplib.SMTP(timeout=NETWORK_TIMEOUT, local_hostname="client.e2e.example",
                            source_address=(client_address, 0))
        try:
            code, msg = smtp.connect(host, self.smtp_port)
        except smtplib.SMTPConnectError as e:
            result.refused = (e.smtp_code, _decode(e.smtp_error))
            for rcpt in rcpts:
                result.rcpt[rcpt] = result.refused
            return result
        try:
            code, msg = smtp.ehlo()
            if code != 250:
                result.refused = (code, _decode(msg))
            else:
                code, msg = smtp.mail(sender)
                if code != 250:
                    result.refused = (code, _decode(msg))
            if result.refused:
                for rcpt in rcpts:
                    result.rcpt[rcpt] = result.refused
                return result
            for rcpt in rcpts:
                code, msg = smtp.rcpt(rcpt)
                result.rcpt[rcpt] = (code, _decode(msg))
            if any(r[0] in (250, 251) for r in result.rcpt.values()):
                code, msg = smtp.data(text.encode())
                result.data = (code, _decode(msg))
            else:
                smtp.rset()
            return result
        finally:
            try:
                smtp.quit()
            except (smtplib.SMTPException, OSError):
                smtp.close()

    def smtp_command(self, command, client_address="127.0.0.1"):
        """One command after EHLO, with our daemon's reply (code, text)."""
        host = "::1" if ":" in client_address else "127.0.0.1"
        with smtplib.SMTP(host, self.smtp_port, timeout=NETWORK_TIMEOUT,
                          local_hostname="client.e2e.example",
                          source_address=(client_address, 0)) as smtp:
            smtp.ehlo()
            code, msg = smtp.docmd(command)
            return code, _decode(msg)

    # Maildir and IMAP -------------------------------------------------------

    def maildir(self, domain, local):
        return os.path.join(self.mail_root, domain, local, "Maildir")

    def maildir_files(self, domain, local):
        names = []
        for sub in ("new", "cur"):
            folder = os.path.join(self.maildir(domain, local), sub)
            if os.path.isdir(folder):
                names += [os.path.join(folder, n) for n in sorted(os.listdir(folder))]
        return names

    def wait_for_maildir(self, domain, local, count, timeout=DELIVERY_TIMEOUT):
        """Waits until the mailbox's Maildir holds at least `count` messages;
        returns their texts. Fewer after `timeout` seconds fail the test."""
        deadline = time.monotonic() + timeout
        while True:
            files = self.maildir_files(domain, local)
            if len(files) >= count:
                texts = []
                for name in files:
                    with open(name, "rb") as f:
                        texts.append(f.read())
                return texts
            if time.monotonic() >= deadline:
                raise AssertionError("%s@%s holds %d of %d messages after %ds" % (
                    local, domain, len(files), count, timeout))
            time.sleep(0.1)

    def next_source(self):
        """A loopback source address no IMAP login of this sandbox used yet."""
        n = next(self._next_source)
        return "127.0.%d.%d" % (n // 250, n % 250 + 2)

    def imap(self, source="127.0.0.1"):
        host = "::1" if ":" in source else "127.0.0.1"
        return Imap(host, self.imap_port, source)

    def imap_login(self, user, password, source=None):
        """Whether Dovecot takes the login: (True, None) or (False, its answer)."""
        conn = self.imap(source or self.next_source())
        try:
            conn.login(user, password)
            return True, None
        except imaplib.IMAP4.error as e:
            return False, str(e)
        finally:
            try:
                conn.logout()
            except (imaplib.IMAP4.error, OSError):
                pass

    def imap_fetch(self, user, password, source="127.0.0.1"):
        """The INBOX's messages, fetched with the mailbox's own login."""
        conn = self.imap(source)
        try:
            conn.login(user, password)
            conn.select("INBOX", readonly=True)
            typ, data = conn.search(None, "ALL")
            bodies = []
            for num in data[0].split():
                typ, parts = conn.fetch(num, "(RFC822)")
                bodies.append(parts[0][1])
            return bodies
        finally:
            try:
                conn.logout()
            except (imaplib.IMAP4.error, OSError):
                pass


def _port_of(listen):
    return int(listen.split()[0].rsplit(":", 1)[1])


def _alive(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def _cmdline(pid):
    try:
        with open("/proc/%d/cmdline" % pid, "rb") as f:
            return f.read().replace(b"\0", b" ").decode("utf-8", "replace").strip()
    except OSError:
        return ""


def _parents():
    parents = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                with open("/proc/%s/stat" % name) as f:
                    parents[int(name)] = int(f.read().rsplit(")", 1)[1].split()[1])
            except (OSError, ValueError, IndexError):
                pass
    return parents


def _descendants(roots):
    parents = _parents()
    found, grew = set(roots), True
    while grew:
        grew = False
        for pid, ppid in parents.items():
            if ppid in found and pid not in found:
                found.add(pid)
                grew = True
    return found - set(roots)


def _naming(text):
    return {pid for pid in _parents() if text in _cmdline(pid) and _alive(pid)}


class StackTestCase(unittest.TestCase):
    """A test class with its own sandbox and running stack. Subclasses set
    up their domains and mailboxes in populate(); test names sort so that
    test_zz_the_end runs last and asserts the clean end."""

    name = "e2e"

    @classmethod
    def setUpClass(cls):
        cls.standin = StandIn()
        cls.addClassCleanup(cls.standin.stop)
        cls.sandbox = Sandbox(cls.name, cls.standin.port)
        cls.addClassCleanup(cls._stop_quietly)
        cls.sandbox.start()
        cls.populate()

    @classmethod
    def populate(cls):
        pass

    @classmethod
    def _stop_quietly(cls):
        try:
            cls.sandbox.stop()
        except Exception:
            pass
        survivors = cls.sandbox.survivors()
        for pid in survivors:
            try:
                os.kill(pid, 9)  # only processes this class's stack started
            except OSError:
                pass

    def test_zz_the_end_leaves_an_empty_queue_and_no_process_of_the_stack(self):
        sb = self.sandbox
        self.assertEqual(sb.wait_queue(lambda n: n == 0), 0, sb.queue_listing())
        sb.stop()
        self.assertEqual(sb.survivors(), {})
        self.assertIn("is empty", sb.queue_listing())
        status = sb.status()
        self.assertEqual([s["name"] for s in status["services"] if s["running"]], [])
        self.assertEqual(status["queued"], 0)
        shutil.rmtree(sb.parent, ignore_errors=True)
