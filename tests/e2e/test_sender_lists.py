"""The sender lists: refused and accepted senders (addresses, domains) and
connecting clients (IPv4 and IPv6), as the daemon answers them."""

import unittest

import harness


D = "lists.example"
BOX = "inbox@" + D


class SenderLists(harness.StackTestCase):
    name = "senderlists"
    accepted = 0

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(D)
        sb.add_box(BOX, password="inbox password")

    def assertAccessDenied(self, result):
        self.assertEqual(result.refused and result.refused[0], 550, result)
        self.assertIn("Access denied", result.refused[1])

    def outcome(self, sender, client="127.0.0.1"):
        r = self.sandbox.send(sender, BOX, client_address=client)
        if r.data and r.data[0] == 250:
            type(self).accepted += 1
        return r.code(BOX), r

    def test_a_blacklisted_sender_address_is_refused_and_its_neighbours_are_not(self):
        sb = self.sandbox
        self.assertEqual(self.outcome("pest@noisy.example")[0], 250)
        sb.run("mail", "blacklist", "add", "pest@noisy.example")
        code, r = self.outcome("pest@noisy.example")
        self.assertAccessDenied(r)
        self.assertEqual(self.outcome("calm@noisy.example")[0], 250)

    def test_a_blacklisted_domain_refuses_every_sender_of_it(self):
        sb = self.sandbox
        sb.run("mail", "blacklist", "add", "spam.example")
        for sender in ("a@spam.example", "b@spam.example"):
            code, r = self.outcome(sender)
            self.assertAccessDenied(r)
        self.assertEqual(self.outcome("a@ham.example")[0], 250)

    def test_a_whitelisted_address_in_a_blacklisted_domain_is_accepted(self):
        sb = self.sandbox
        sb.run("mail", "blacklist", "add", "mixed.example")
        sb.run("mail", "whitelist", "add", "friend@mixed.example")
        self.assertEqual(self.outcome("friend@mixed.example")[0], 250)
        code, r = self.outcome("stranger@mixed.example")
        self.assertAccessDenied(r)

    def test_a_whitelisted_subdomain_of_a_blacklisted_domain_is_accepted(self):
        sb = self.sandbox
        sb.run("mail", "blacklist", "add", "parent.example")
        sb.run("mail", "whitelist", "add", "good.parent.example")
        self.assertEqual(self.outcome("anyone@good.parent.example")[0], 250)
        code, r = self.outcome("anyone@parent.example")
        self.assertAccessDenied(r)

    def test_a_blacklisted_ipv4_client_is_refused_and_a_whitelisted_one_in_a_blacklisted_network_is_not(self):
        sb = self.sandbox
        self.assertEqual(self.outcome("x@ok.example", client="127.3.0.5")[0], 250)
        sb.run("mail", "blacklist", "add", "127.3.0.5")
        code, r = self.outcome("x@ok.example", client="127.3.0.5")
        self.assertAccessDenied(r)
        self.assertEqual(self.outcome("x@ok.example", client="127.3.0.6")[0], 250)

        sb.run("mail", "blacklist", "add", "127.4.0")
        sb.run("mail", "whitelist", "add", "127.4.0.9")
        code, r = self.outcome("x@ok.example", client="127.4.0.8")
        self.assertAccessDenied(r)
        self.assertEqual(self.outcome("x@ok.example", client="127.4.0.9")[0], 250)

    @unittest.skipUnless(harness.has_ipv6_loopback(), "no IPv6 loopback here")
    def test_the_ipv6_loopback_client_is_refused_while_listed_and_accepted_once_deleted(self):
        sb = self.sandbox
        self.assertEqual(self.outcome("x@ok.example", client="::1")[0], 250)
        sb.run("mail", "blacklist", "add", "::1")
        code, r = self.outcome("x@ok.example", client="::1")
        self.assertAccessDenied(r)
        # The other family is not concerned.
        self.assertEqual(self.outcome("x@ok.example", client="127.0.0.1")[0], 250)
        sb.run("mail", "blacklist", "delete", "::1")
        self.assertEqual(self.outcome("x@ok.example", client="::1")[0], 250)

    def test_zy_every_accepted_message_was_delivered(self):
        sb = self.sandbox
        sb.wait_queue(lambda n: n == 0)
        # Every message the daemon took reached the mailbox; none was lost.
        sb.wait_for_maildir(D, "inbox", self.accepted)
        self.assertEqual(len(sb.imap_fetch(BOX, "inbox password")), self.accepted)


if __name__ == "__main__":
    unittest.main(verbosity=2)
