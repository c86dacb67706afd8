"""Mail to a mailbox, to its alias and to its forwards, read back over IMAP."""

import os
import unittest

import harness


D = "delivery.example"


class Delivery(harness.StackTestCase):
    name = "delivery"

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(D)
        sb.add_box("ann@" + D, "--alias", "sales", password="ann's secret")
        sb.add_box("nopass@" + D)
        sb.add_box("copy@" + D, "--forward", "copy-out@faraway.example", password="copy password")
        sb.add_box("only@" + D, "--forward-only", "--forward", "only-out@faraway.example",
                   password="only password")

    def test_mail_to_a_mailbox_lands_in_its_maildir_and_is_fetched_with_its_own_password(self):
        sb = self.sandbox
        r = sb.send("someone@elsewhere.example", "ann@" + D, body="first letter for ann")
        self.assertEqual(r.code("ann@" + D), 250, r)
        self.assertEqual(r.data[0], 250, r)
        texts = sb.wait_for_maildir(D, "ann", 1)
        self.assertTrue(any(b"first letter for ann" in t for t in texts))
        bodies = sb.imap_fetch("ann@" + D, "ann's secret")
        self.assertTrue(any(b"first letter for ann" in b for b in bodies), bodies)

    def test_a_wrong_password_is_refused(self):
        ok, answer = self.sandbox.imap_login("ann@" + D, "not ann's secret")
        self.assertFalse(ok)
        self.assertIn("AUTHENTICATIONFAILED", answer)

    def test_a_mailbox_without_a_password_cannot_log_in(self):
        sb = self.sandbox
        for password in ("", "anything"):
            ok, answer = sb.imap_login("nopass@" + D, password)
            self.assertFalse(ok, password)

    def test_mail_to_an_alias_reaches_the_mailbox(self):
        sb = self.sandbox
        before = len(sb.maildir_files(D, "ann"))
        r = sb.send("someone@elsewhere.example", "sales@" + D, body="a letter for sales")
        self.assertEqual(r.code("sales@" + D), 250, r)
        texts = sb.wait_for_maildir(D, "ann", before + 1)
        self.assertTrue(any(b"a letter for sales" in t for t in texts))
        bodies = sb.imap_fetch("ann@" + D, "ann's secret")
        self.assertTrue(any(b"a letter for sales" in b for b in bodies))

    def test_a_forward_with_a_local_copy_reaches_both_the_maildir_and_the_outside(self):
        sb = self.sandbox
        r = sb.send("someone@elsewhere.example", "copy@" + D, body="copy me out")
        self.assertEqual(r.code("copy@" + D), 250, r)
        texts = sb.wait_for_maildir(D, "copy", 1)
        self.assertTrue(any(b"copy me out" in t for t in texts))
        out = [m for m in self._outside_after_delivery()
               if "copy-out@faraway.example" in m.recipients]
        self.assertEqual(len(out), 1, self.standin.messages())
        self.assertIn(b"copy me out", out[0].data)
        self.assertEqual(sb.imap_fetch("copy@" + D, "copy password")[-1].count(b"copy me out"), 1)

    def test_a_forward_only_mailbox_sends_on_and_keeps_nothing_and_cannot_log_in(self):
        sb = self.sandbox
        r = sb.send("someone@elsewhere.example", "only@" + D, body="pass me on")
        self.assertEqual(r.code("only@" + D), 250, r)
        out = [m for m in self._outside_after_delivery()
               if "only-out@faraway.example" in m.recipients]
        self.assertEqual(len(out), 1, self.standin.messages())
        self.assertIn(b"pass me on", out[0].data)
        self.assertFalse(os.path.exists(os.path.join(sb.mail_root, D, "only")))
        ok, answer = sb.imap_login("only@" + D, "only password")
        self.assertFalse(ok)

    def _outside_after_delivery(self):
        # Delivery runs in the background: once the queue is empty, every
        # copy that was going out has gone.
        self.sandbox.wait_queue(lambda n: n == 0)
        return self.standin.messages()


if __name__ == "__main__":
    unittest.main(verbosity=2)
