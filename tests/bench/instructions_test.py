"""What scripts/lib/bench/instructions.py makes of a baseline and counts."""

import os
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "scripts", "lib", "bench"))

import instructions  # pylint: disable=wrong-import-position


class Check(unittest.TestCase):
    def verdict(self, recorded, counts):
        with tempfile.NamedTemporaryFile() as baseline:
            instructions.record(baseline.name, recorded)
            return instructions.check(baseline.name, counts)

    def test_passes_at_the_recorded_counts(self):
        self.assertTrue(self.verdict({"encode": 1000, "decode": 20}, {"encode": 1000, "decode": 20}))

    def test_passes_at_a_tenth_more_and_at_less(self):
        self.assertTrue(self.verdict({"encode": 1000, "decode": 20}, {"encode": 1100, "decode": 1}))

    def test_fails_above_a_tenth_more_of_one(self):
        self.assertFalse(self.verdict({"encode": 1000, "decode": 20}, {"encode": 1101, "decode": 1}))

    def test_fails_without_a_recorded_count(self):
        self.assertFalse(self.verdict({"encode": 1000}, {"encode": 1000, "decode": 20}))

    def test_fails_without_a_recorded_operation(self):
        self.assertFalse(self.verdict({"encode": 1000, "decode": 20}, {"encode": 1000}))


if __name__ == "__main__":
    unittest.main()
