"""VRFY and EXPN tell a client nothing of a mailbox's forwards or of the
panel's internal names."""

import unittest

import harness



D = "quiet-vrfy.example"
BOX = "hidden@" + D
SECRETS = ("private-target@faraway.example", "hidden+" + D, "also-secret@faraway.example")


class Disclosure(harness.StackTestCase):
    name = "disclosure"

    @classmethod
    def populate(cls):
        sb = cls.sandbox
        sb.add_domain(D)
        sb.add_box(BOX, "--forward", SECRETS[0], "--forward", SECRETS[2], password="hidden password")

    def assertDiscloses_nothing(self, code, text):
        self.assertNotEqual(code, 250, text)
        for secret in SECRETS:
            self.assertNotIn(secret, text)

    def test_vrfy_of_a_mailbox_with_forwards_discloses_nothing(self):
        code, text = self.sandbox.smtp_command("VRFY " + BOX)
        self.assertDiscloses_nothing(code, text)
        self.assertEqual(code, 252, text)

    def test_expn_of_its_address_discloses_nothing(self):
        for client in ("127.0.0.1", "127.0.0.66"):
            with self.subTest(client=client):
                code, text = self.sandbox.smtp_command("EXPN " + BOX, client_address=client)
                self.assertDiscloses_nothing(code, text)
                self.assertGreaterEqual(code, 500, text)

    def test_vrfy_and_expn_of_the_internal_name_disclose_nothing(self):
        for command in ("VRFY", "EXPN"):
            with self.subTest(command=command):
                code, text = self.sandbox.smtp_command("%s hidden+%s" % (command, D))
                self.assertDiscloses_nothing(code, text)


if __name__ == "__main__":
    unittest.main(verbosity=2)
