"""Suspended mailboxes and domains: their mail is refused at RCPT, their
logins at once, and resuming them brings both back. The panel's internal
names of a mailbox are never addresses a client may use."""

import unittest

import harness



D = "suspend.example"
SD = "paused.example"
SENDER = "someone@elsewhere.example"


class Suspension(harness.StackTestCase):
    name = "suspension"

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(D)
        sb.add_box("sus@" + D, password="sus password")
        sb.add_box("active@" + D, password="active password")
        sb.add_domain(SD)
        sb.add_box("box@" + SD, password="box password")

    def assertAccepted(self, rcpt, client="127.0.0.1"):
        r = self.sandbox.send(SENDER, rcpt, client_address=client)
        self.assertEqual(r.code(rcpt), 250, r)
        self.assertEqual(r.data[0], 250, r)

    def assertRefused(self, rcpt, because=None, client="127.0.0.1"):
        r = self.sandbox.send(SENDER, rcpt, client_address=client)
        self.assertGreaterEqual(r.code(rcpt), 500, r)
        self.assertLess(r.code(rcpt), 600, r)
        self.assertIsNone(r.data, r)
        if because:
            self.assertIn(because, r.text(rcpt))

    def assertLogin(self, user, password, expected):
        ok, answer = self.sandbox.imap_login(user, password)
        self.assertEqual(ok, expected, answer)

    def test_a_suspended_mailbox_is_refused_at_rcpt_and_cannot_log_in_until_resumed(self):
        sb = self.sandbox
        box = "sus@" + D
        self.assertAccepted(box)
        sb.wait_for_maildir(D, "sus", 1)
        self.assertLogin(box, "sus password", True)

        sb.run("mail", "box", "suspend", box)
        self.assertRefused(box, "disabled")
        # No cache stands between the panel and the login: the very next
        # login is refused.
        self.assertLogin(box, "sus password", False)
        self.assertAccepted("active@" + D)

        sb.run("mail", "box", "resume", box)
        self.assertLogin(box, "sus password", True)
        self.assertAccepted(box)
        sb.wait_for_maildir(D, "sus", 2)
        self.assertEqual(len(sb.imap_fetch(box, "sus password")), 2)

    def test_a_suspended_domain_refuses_its_mailboxes_and_their_logins_until_resumed(self):
        sb = self.sandbox
        box = "box@" + SD
        self.assertLogin(box, "box password", True)

        sb.run("mail", "domain", "suspend", SD)
        self.assertRefused(box, "disabled")
        self.assertRefused("nobody@" + SD, "disabled")
        self.assertLogin(box, "box password", False)

        sb.run("mail", "domain", "resume", SD)
        self.assertLogin(box, "box password", True)
        self.assertAccepted(box)
        sb.wait_for_maildir(SD, "box", 1)

    def test_the_internal_names_of_a_mailbox_are_refused_at_rcpt_in_service_or_not(self):
        sb = self.sandbox
        names = ["active+%s" % D, "active+%s@%s" % (D, D), "active+%s@[127.0.0.1]" % D]
        for name in names:
            with self.subTest(name=name, state="in service"):
                self.assertRefused(name, "User unknown")
        sb.run("mail", "box", "suspend", "active@" + D)
        try:
            for name in names:
                with self.subTest(name=name, state="suspended"):
                    # Refused either way; the address at the domain may be
                    # answered with the suspension's text instead.
                    self.assertRefused(name)
        finally:
            sb.run("mail", "box", "resume", "active@" + D)
        self.assertAccepted("active@" + D)


if __name__ == "__main__":
    unittest.main(verbosity=2)
