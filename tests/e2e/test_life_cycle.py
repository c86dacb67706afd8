"""Domains and mailboxes changing while the daemon runs."""

import glob
import os
import unittest

import harness

D = "life.example"
NEW = "newcomer.example"


class LifeCycle(harness.StackTestCase):
    name = "lifecycle"

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(D)

    def test_a_domain_added_while_the_daemon_runs_gets_its_mail_at_once(self):
        sb = self.sandbox
        sb.add_domain(NEW)
        sb.add_box("first@" + NEW, password="first password")
        # The reload ran the daemon anew under another pid.
        sb.remember_pids()
        r = sb.send("someone@elsewhere.example", "first@" + NEW, body="welcome aboard")
        self.assertEqual(r.code("first@" + NEW), 250, r)
        self.assertEqual(r.data[0], 250, r)
        texts = sb.wait_for_maildir(NEW, "first", 1)
        self.assertIn(b"welcome aboard", texts[0])
        self.assertIn(b"welcome aboard", sb.imap_fetch("first@" + NEW, "first password")[0])
        # It went nowhere else: the daemon took the domain as its own.
        self.assertEqual(self.standin.messages(), [])

    def test_a_mailbox_deleted_and_added_again_gets_new_mail_with_its_new_password(self):
        bodies = self._deleted_and_added_again()
        self.assertTrue(any(b"for the second owner" in b for b in bodies), bodies)
        ok, answer = self.sandbox.imap_login("again@" + D, "old password")
        self.assertFalse(ok, answer)

    def test_a_mailbox_re_added_does_not_show_the_old_mail(self):
        bodies = self._deleted_and_added_again()
        self.assertEqual([b for b in bodies if b"for the first owner" in b], [])
        # The old mail is kept in the mail archive, out of the new owner's reach.
        archived = glob.glob(os.path.join(self.sandbox.dir, "mail-archive", D, "again.*",
                                          "Maildir", "new", "*"))
        self.assertEqual(len(archived), 1, archived)

    _again = None

    def _deleted_and_added_again(self):
        """Runs the deletion and the new start once for both tests above, and
        returns what the new owner fetches. Each step is checked here, so
        that a failure of the test above can only be the old mail's."""
        cls = type(self)
        if cls._again is not None:
            return cls._again
        sb = self.sandbox
        box = "again@" + D
        sb.add_box(box, password="old password")
        r = sb.send("someone@elsewhere.example", box, body="for the first owner")
        self.assertEqual(r.data[0], 250, r)
        sb.wait_for_maildir(D, "again", 1)

        sb.run("mail", "box", "delete", box)
        r = sb.send("someone@elsewhere.example", box)
        self.assertGreaterEqual(r.code(box), 500, r)
        sb.add_box(box, password="new password")
        r = sb.send("someone@elsewhere.example", box, body="for the second owner")
        self.assertEqual(r.data[0], 250, r)
        sb.wait_queue(lambda n: n == 0)
        cls._again = sb.imap_fetch(box, "new password")
        return cls._again

if __name__ == "__main__":
    unittest.main(verbosity=2)
