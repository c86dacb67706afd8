"""What becomes of mail to an address no mailbox has: each domain's default
action, and relaying to domains that are not ours."""

import os
import unittest

import harness



HOME = "home.example"           # default action: error
IGNORE = "quiet.example"        # ignore
AWAY = "away.example"           # redir_email to a remote address
INWARD = "inward.example"       # redir_email to a mailbox of ours
ALIKE = "alike.example"         # redir_domain to HOME


class CatchAll(harness.StackTestCase):
    name = "catchall"

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(HOME)
        sb.add_box("desk@" + HOME, password="desk password")
        sb.add_box("anne@" + HOME, password="anne password")
        sb.add_domain(IGNORE, "--default-action", "ignore")
        sb.add_domain(AWAY, "--default-action", "redir_email", "--redirect",
                      "catcher@faraway.example")
        sb.add_domain(INWARD, "--default-action", "redir_email", "--redirect", "desk@" + HOME)
        sb.add_domain(ALIKE, "--default-action", "redir_domain", "--redirect", HOME)

    def test_error_refuses_an_unknown_address_at_rcpt_with_the_domains_error(self):
        r = self.sandbox.send("someone@elsewhere.example", "nobody@" + HOME)
        self.assertPermanentRefusal(r, "nobody@" + HOME)
        self.assertIn("No such user here", r.text("nobody@" + HOME))

    def test_ignore_accepts_and_stores_nowhere_and_sends_nothing_out(self):
        sb = self.sandbox
        outside = len(self.standin.messages())
        r = sb.send("someone@elsewhere.example", "whoever@" + IGNORE, body="into the void")
        self.assertEqual(r.code("whoever@" + IGNORE), 250, r)
        self.assertEqual(r.data[0], 250, r)
        sb.wait_queue(lambda n: n == 0)
        self.assertFalse(os.path.exists(os.path.join(sb.mail_root, IGNORE)))
        self.assertEqual(len(self.standin.messages()), outside)
        for root, dirs, files in os.walk(sb.mail_root):
            for name in files:
                with open(os.path.join(root, name), "rb") as f:
                    self.assertNotIn(b"into the void", f.read(), name)

    def test_redir_email_to_a_remote_address_sends_it_to_the_outside(self):
        sb = self.sandbox
        r = sb.send("someone@elsewhere.example", "anyone@" + AWAY, body="caught remotely")
        self.assertEqual(r.code("anyone@" + AWAY), 250, r)
        got = self._outside_with(b"caught remotely")
        self.assertEqual(got.recipients, ["catcher@faraway.example"])

    def test_redir_email_to_a_mailbox_of_ours_lands_in_its_maildir(self):
        sb = self.sandbox
        before = len(sb.maildir_files(HOME, "desk"))
        r = sb.send("someone@elsewhere.example", "anyone@" + INWARD, body="caught locally")
        self.assertEqual(r.code("anyone@" + INWARD), 250, r)
        texts = sb.wait_for_maildir(HOME, "desk", before + 1)
        self.assertTrue(any(b"caught locally" in t for t in texts))
        self.assertTrue(any(b"caught locally" in b for b in sb.imap_fetch("desk@" + HOME, "desk password")))

    def test_redir_domain_delivers_the_same_local_part_at_the_other_domain(self):
        sb = self.sandbox
        r = sb.send("someone@elsewhere.example", "anne@" + ALIKE, body="same name elsewhere")
        self.assertEqual(r.code("anne@" + ALIKE), 250, r)
        texts = sb.wait_for_maildir(HOME, "anne", 1)
        self.assertTrue(any(b"same name elsewhere" in t for t in texts))
        self.assertFalse(os.path.exists(os.path.join(sb.mail_root, ALIKE)))

    def test_redir_domain_refuses_a_local_part_the_other_domain_does_not_have(self):
        # The other domain's own catch-all decides; there it is an error.
        r = self.sandbox.send("someone@elsewhere.example", "ghost@" + ALIKE)
        self.assertPermanentRefusal(r, "ghost@" + ALIKE)
        self.assertIn("No such user here", r.text("ghost@" + ALIKE))

    def test_a_remote_looking_client_may_not_relay_to_a_domain_that_is_not_ours(self):
        r = self.sandbox.send("someone@elsewhere.example", "friend@faraway.example",
                              client_address="127.0.0.77")
        self.assertEqual(r.code("friend@faraway.example"), 550, r)
        self.assertIn("Relaying denied", r.text("friend@faraway.example"))

    def test_the_loopback_client_relays_to_the_outside(self):
        # 127.0.0.1 and ::1 are this host itself, which sendmail lets relay.
        sb = self.sandbox
        r = sb.send("desk@" + HOME, "friend@faraway.example", body="relayed from loopback")
        self.assertEqual(r.code("friend@faraway.example"), 250, r)
        got = self._outside_with(b"relayed from loopback")
        self.assertEqual(got.recipients, ["friend@faraway.example"])
        self.assertEqual(got.sender, "desk@" + HOME)

    def assertPermanentRefusal(self, result, rcpt):
        # The daemon answers 553 5.3.0 today, where 550 5.1.1 would say
        # "no such user" more exactly; either is a refusal at RCPT.
        self.assertGreaterEqual(result.code(rcpt), 500, result)
        self.assertLess(result.code(rcpt), 600, result)
        self.assertIsNone(result.data, result)

    def _outside_with(self, marker):
        self.sandbox.wait_queue(lambda n: n == 0)
        found = [m for m in self.standin.messages() if marker in m.data]
        self.assertEqual(len(found), 1, self.standin.messages())
        return found[0]


if __name__ == "__main__":
    unittest.main(verbosity=2)
