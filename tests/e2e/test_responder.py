"""The autoresponder in the stack: sendmail runs it as the mail user from
the mailbox's aliases entry, and its answer leaves through the smart host,
once per sender within its period; the mail itself is still delivered."""

import time
import unittest

import harness

D = "away.example"


class Responder(harness.StackTestCase):
    name = "responder"

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(D)
        sb.add_box("holiday@" + D, password="holiday password")
        sb.run("mail", "responder", "holiday@" + D, "on", "--subject", "Away until Monday",
               "--text", "I read my mail on Monday.")

    def answers_to(self, address):
        return [m for m in self.standin.messages()
                if m.recipients == [address] and b"Away until Monday" in m.data]

    def test_the_sender_gets_one_answer_and_the_mailbox_keeps_every_message(self):
        sb = self.sandbox
        sender = "friend@elsewhere.example"
        for n in (1, 2):
            message = ("From: %s\r\nTo: holiday@%s\r\nSubject: question %d\r\n"
                       "Message-ID: <q%d@elsewhere.example>\r\n\r\nAre you there?\r\n"
                       % (sender, D, n, n))
            r = sb.send(sender, "holiday@" + D, message=message)
            self.assertEqual(r.data[0], 250, r)
            sb.wait_for_maildir(D, "holiday", n)
        self.standin.received(1)
        # The second message must not have brought a second answer: give it
        # the time the first one took, bounded.
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline and len(self.answers_to(sender)) < 2:
            time.sleep(0.1)
        answers = self.answers_to(sender)
        self.assertEqual(len(answers), 1, self.standin.messages())
        answer = answers[0]
        # An answer is never answered or bounced back: empty envelope sender.
        self.assertEqual(answer.sender, "")
        self.assertIn(b"In-Reply-To: <q1@elsewhere.example>", answer.data)
        self.assertIn(b"I read my mail on Monday.", answer.data)
        self.assertEqual(len(sb.imap_fetch("holiday@" + D, "holiday password")), 2)


if __name__ == "__main__":
    unittest.main(verbosity=2)
