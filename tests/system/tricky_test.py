"""What is scanned is what any reader sees: the pattern where one reader finds it and another doesn't, with the real engine."""

from scanning import NOT_CHECKED, QUEUED, REJECTED, Scanning, archive, attached, body
from tricky import CASES


class Tricky(Scanning):
    def test_nothing_gets_through(self):
        """Also where ambiguous structure passes."""
        self.settings(WhenAmbiguous="pass", TooComplex="pass")
        for name, message in CASES:
            with self.subTest(name):
                count = len(self.server.messages)
                self.assertEqual(self.send(message), REJECTED)
                self.assertEqual(len(self.server.messages), count)
