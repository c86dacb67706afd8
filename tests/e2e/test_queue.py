"""Mail that cannot be delivered at once: a recipient the outside refuses
comes back to its sender as a bounce; a full mailbox keeps the message
waiting in the queue until there is room."""

import unittest

import harness



D = "queue.example"


class Queue(harness.StackTestCase):
    name = "queue"

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(D)
        sb.add_box("writer@" + D, password="writer password")
        sb.add_box("small@" + D, "--quota", "1K", password="small password")
        cls.standin.refuse("gone@faraway.example")

    def test_a_recipient_the_outside_refuses_comes_back_as_a_bounce_to_the_local_sender(self):
        sb = self.sandbox
        r = sb.send("writer@" + D, "gone@faraway.example", body="this will not arrive")
        self.assertEqual(r.code("gone@faraway.example"), 250, r)
        self.assertEqual(r.data[0], 250, r)
        texts = sb.wait_for_maildir(D, "writer", 1)
        bounce = texts[0]
        self.assertIn(b"gone@faraway.example", bounce)
        self.assertIn(b"550", bounce)
        self.assertRegex(bounce, rb"(?im)^From: .*MAILER-DAEMON")
        self.assertFalse([m for m in self.standin.messages() if b"this will not arrive" in m.data])
        bodies = sb.imap_fetch("writer@" + D, "writer password")
        self.assertEqual(len(bodies), 1)
        self.assertIn(b"this will not arrive", bodies[0])

    def test_a_full_mailbox_keeps_the_message_queued_until_its_quota_is_lifted(self):
        sb = self.sandbox
        big = "\r\n".join("line %04d of a message larger than the mailbox's quota" % i
                          for i in range(100))
        r = sb.send("someone@elsewhere.example", "small@" + D, body=big)
        self.assertEqual(r.code("small@" + D), 250, r)
        self.assertEqual(r.data[0], 250, r)
        # The delivery was tried and put off: the mail store said "full, try
        # later", and the message waits, with no bounce to its sender.
        listing = sb.wait_listing(lambda text: "Deferred" in text)
        self.assertIn("452", listing)
        self.assertIn("small@" + D, listing)
        self.assertGreaterEqual(sb.queued(), 1)
        self.assertEqual(sb.maildir_files(D, "small"), [])
        self.assertEqual([m for m in self.standin.messages() if b"small@" in m.data], [])

        sb.run("mail", "box", "set", "small@" + D, "--quota", "0")
        sb.run_queue()
        texts = sb.wait_for_maildir(D, "small", 1)
        self.assertIn(b"line 0099 of a message", texts[0])
        self.assertEqual(sb.wait_queue(lambda n: n == 0), 0)
        bodies = sb.imap_fetch("small@" + D, "small password")
        self.assertEqual(len(bodies), 1)
        self.assertIn(b"line 0000 of a message", bodies[0])


if __name__ == "__main__":
    unittest.main(verbosity=2)
