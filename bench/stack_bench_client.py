"""The client side of bench/stack_bench: sends the messages over SMTP to the
sandbox's daemon, finds each one in its recipient's Maildir and prints one
line of figures per connection count as JSON (the bash front makes the
table).

A message's latency runs from the moment its MAIL FROM was sent
(time.time()) to the modification time of its file in Maildir/new, which
Dovecot leaves at the end of its write: looking for the files costs the
figure nothing, however late we look. Each message carries a unique token
(header X-Bench-Token and its Message-ID) so its file is told apart from
the others in the same mailbox.

Only Python's standard library; run by /usr/bin/python3.
"""

import argparse
import json
import os
import random
import smtplib
import sys
import threading
import time
import uuid

NETWORK_TIMEOUT = 60


def mailboxes(count):
    """The sandbox's mailboxes as the front makes them: 10 a domain."""
    return [("d%d.example" % (i // 10), "user%d" % (i % 10)) for i in range(count)]


def make_message(token, rcpt, size):
    head = ("From: Bench Sender <bench@outside.example>\r\n"
            "To: <%s>\r\n"
            "Subject: stack bench %s\r\n"
            "Message-ID: <%s@stack-bench.example>\r\n"
            "X-Bench-Token: %s\r\n"
            "Date: %s\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-Type: text/plain; charset=us-ascii\r\n"
            "\r\n") % (rcpt, token, token, token,
                       time.strftime("%a, %d %b %Y %H:%M:%S +0000", time.gmtime()))
    line = "The quick brown fox jumps over the lazy dog while the queue runs. 0123456789\r\n"
    left = max(2, size - len(head))
    body = (line * (left // len(line) + 1))[:left - 2].rstrip("\r") + "\r\n"
    return (head + body).encode("ascii")


class Message:
    __slots__ = ("token", "domain", "local", "data", "mail_at", "acked_at", "delivered_ns",
                 "error")

    def __init__(self, token, domain, local, data):
        self.token = token
        self.domain = domain
        self.local = local
        self.data = data
        self.mail_at = None
        self.acked_at = None
        self.delivered_ns = None
        self.error = None


def send_share(port, share, errors):
    """One SMTP session that sends its share one message after another."""
    try:
        smtp = smtplib.SMTP("127.0.0.1", port, timeout=NETWORK_TIMEOUT,
                            local_hostname="client.stack-bench.example")
        code, msg = smtp.ehlo()
        if code != 250:
            raise RuntimeError("EHLO answered %d %s" % (code, msg))
        for m in share:
            m.mail_at = time.time()
            code, msg = smtp.mail("bench@outside.example")
            if code != 250:
                m.error = "MAIL %d %s" % (code, msg)
                smtp.rset()
                continue
            code, msg = smtp.rcpt("%s@%s" % (m.local, m.domain))
            if code not in (250, 251):
                m.error = "RCPT %d %s" % (code, msg)
                smtp.rset()
                continue
            code, msg = smtp.data(m.data)
            m.acked_at = time.time()
            if code != 250:
                m.error = "DATA %d %s" % (code, msg)
        smtp.quit()
    except (OSError, smtplib.SMTPException, RuntimeError) as e:
        errors.append(repr(e))


def token_of(path):
    try:
        with open(path, "rb") as f:
            head = f.read(8192)
    except OSError:
        return None
    at = head.find(b"\nX-Bench-Token: ")
    if at < 0:
        return None
    end = head.find(b"\n", at + 1)
    return head[at + 16:end].strip().decode("ascii", "replace")


def find_deliveries(mail_root, messages, limit, interval):
    """Waits (at most `limit` seconds) until every sent message is in its
    recipient's Maildir/new; sets delivered_ns from the file's mtime."""
    pending = {}
    for m in messages:
        if m.error is None:
            pending.setdefault((m.domain, m.local), {})[m.token] = m
    seen = {}
    deadline = time.monotonic() + limit
    while pending:
        for box in list(pending):
            folder = os.path.join(mail_root, box[0], box[1], "Maildir", "new")
            try:
                names = os.listdir(folder)
            except OSError:
                continue
            known = seen.setdefault(box, set())
            for name in names:
                if name in known:
                    continue
                path = os.path.join(folder, name)
                token = token_of(path)
                if token is None:
                    continue
                known.add(name)
                m = pending[box].pop(token, None)
                if m is not None:
                    try:
                        m.delivered_ns = os.stat(path).st_mtime_ns
                    except OSError:
                        pass
            if not pending[box]:
                del pending[box]
        if not pending or time.monotonic() >= deadline:
            break
        time.sleep(interval)
    return sum(len(v) for v in pending.values())


# --------------------------------------------------------------------------
# Where the CPU went: the stack's processes read from /proc before and after.
# A process that ended in between is counted in its parent's times of
# reaped children (both servers reap their own), so two looks suffice and
# nothing samples while the messages flow.

TICK = os.sysconf("SC_CLK_TCK")


def _stat(pid):
    with open("/proc/%d/stat" % pid) as f:
        text = f.read()
    comm = text[text.index("(") + 1:text.rindex(")")]
    fields = text.rsplit(")", 1)[1].split()
    # fields[0] is the state; utime, stime, cutime, cstime are 11..14.
    return comm, int(fields[1]), int(fields[11]) + int(fields[12]), int(fields[13]) + int(fields[14])


def cpu_snapshot(roots):
    """{pid: (comm, own ticks, reaped children's ticks)} of the roots and
    every process below them."""
    parents = {}
    info = {}
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            comm, ppid, own, children = _stat(int(name))
        except (OSError, ValueError, IndexError):
            continue
        parents[int(name)] = ppid
        info[int(name)] = (comm, own, children)
    found = {r for r in roots if r in info}
    grew = True
    while grew:
        grew = False
        for pid, ppid in parents.items():
            if ppid in found and pid not in found:
                found.add(pid)
                grew = True
    return {pid: info[pid] for pid in found}


def cpu_by_name(before, after):
    """CPU seconds spent between two snapshots, by process name."""
    out = {}
    for pid, (comm, own, children) in after.items():
        was = before.get(pid)
        if was is not None and was[0] == comm:
            spent = own - was[1] + children - was[2]
        else:
            spent = own + children
        out[comm] = out.get(comm, 0) + spent
    return {k: round(v / TICK, 2) for k, v in sorted(out.items(), key=lambda kv: -kv[1]) if v}


def machine_busy():
    """(busy ticks, all ticks) of the whole machine since boot."""
    with open("/proc/stat") as f:
        v = [int(x) for x in f.readline().split()[1:]]
    idle = v[3] + v[4]
    return sum(v) - idle, sum(v)


def percentile(sorted_values, p):
    if not sorted_values:
        return float("nan")
    k = (len(sorted_values) - 1) * p / 100.0
    lo = int(k)
    hi = min(lo + 1, len(sorted_values) - 1)
    return sorted_values[lo] + (sorted_values[hi] - sorted_values[lo]) * (k - lo)


def run(args, connections, rng):
    boxes = mailboxes(args.mailboxes)
    messages = []
    for _ in range(args.messages):
        domain, local = rng.choice(boxes)
        token = uuid.uuid4().hex
        messages.append(Message(token, domain, local,
                                make_message(token, "%s@%s" % (local, domain), args.size)))
    shares = [messages[i::connections] for i in range(connections)]
    errors = []
    threads = [threading.Thread(target=send_share, args=(args.port, share, errors))
               for share in shares]
    roots = [int(x) for x in args.stack_pids.split()]
    cpu_before = cpu_snapshot(roots)
    busy0, all0 = machine_busy()
    cpu0 = time.process_time()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    client_cpu = time.process_time() - cpu0
    sent = [m for m in messages if m.mail_at is not None and m.error is None
            and m.acked_at is not None]
    refused = [m for m in messages if m.error is not None]
    first_mail = min((m.mail_at for m in sent), default=float("nan"))
    last_ack = max((m.acked_at for m in sent), default=float("nan"))
    missing = find_deliveries(args.mail_root, sent, args.wait_limit, args.poll_interval)
    busy1, all1 = machine_busy()
    stack_cpu = cpu_by_name(cpu_before, cpu_snapshot(roots))
    delivered = [m for m in sent if m.delivered_ns is not None]
    lat = sorted(m.delivered_ns / 1e6 - m.mail_at * 1e3 for m in delivered)
    smtp_part = sorted((m.acked_at - m.mail_at) * 1e3 for m in sent)
    queue_part = sorted(m.delivered_ns / 1e6 - m.acked_at * 1e3 for m in delivered)
    last_delivery = max((m.delivered_ns / 1e9 for m in delivered), default=float("nan"))
    span = last_delivery - first_mail
    # Whole-second mtimes would mean the mail store set the file's time
    # itself, and the latencies would be worth nothing.
    whole = sum(1 for m in delivered if m.delivered_ns % 1000000000 == 0)
    return {
        "connections": connections,
        "messages": args.messages,
        "sent": len(sent),
        "refused": len(refused),
        "refusals": sorted({m.error for m in refused})[:3],
        "session_errors": errors[:3],
        "delivered": len(delivered),
        "missing": missing,
        "rate": len(delivered) / span if delivered and span > 0 else 0.0,
        "p50": percentile(lat, 50),
        "p95": percentile(lat, 95),
        "max": lat[-1] if lat else float("nan"),
        "min": lat[0] if lat else float("nan"),
        "smtp_p50": percentile(smtp_part, 50),
        "smtp_p95": percentile(smtp_part, 95),
        "queue_p50": percentile(queue_part, 50),
        "queue_p95": percentile(queue_part, 95),
        "sending_s": last_ack - first_mail,
        "span_s": span,
        "client_cpu_s": round(client_cpu, 2),
        "stack_cpu_s": stack_cpu,
        "machine_busy": round((busy1 - busy0) / max(1, all1 - all0), 3),
        "whole_second_mtimes": whole,
        "negative_latencies": sum(1 for v in lat if v < 0),
    }


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--mail-root", required=True)
    p.add_argument("--mailboxes", type=int, required=True)
    p.add_argument("--messages", type=int, required=True)
    p.add_argument("--size", type=int, required=True)
    p.add_argument("--connections", type=int, required=True)
    p.add_argument("--stack-pids", default="", help="the stack's servers' pids")
    p.add_argument("--seed", type=int, default=None)
    p.add_argument("--wait-limit", type=float, default=300.0)
    p.add_argument("--poll-interval", type=float, default=0.5)
    args = p.parse_args()
    rng = random.Random(args.seed)
    result = run(args, args.connections, rng)
    json.dump(result, sys.stdout)
    sys.stdout.write("\n")
    return 0 if result["missing"] == 0 and result["refused"] == 0 and not result["session_errors"] else 1


if __name__ == "__main__":
    sys.exit(main())
