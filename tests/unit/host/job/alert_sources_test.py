#!/usr/bin/python3
"""Every alert that the module raises has a text, and every log line that stands for one is really logged."""
import pathlib
import re
import sys
import unittest

SOURCES = pathlib.Path(sys.argv.pop(1))
TABLE = (SOURCES / "host/job/job_alert.cpp").read_text()
MODULE = "\n".join(path.read_text() for folder in ("gaussdb", "job", "host/storage")
                   for path in sorted((SOURCES / folder).rglob("*")) if path.suffix in (".h", ".cpp"))
LITERAL = r'"(?:[^"\\]|\\.)*"'


def block(name):
    begin = TABLE.index(name)
    return TABLE[begin:TABLE.index("\n};", begin)]


KNOWN = {(int(level), int(code)) for level, code in re.findall(r"\{(\d), (\d+),", block("ALERTS[]"))}


class Alerts(unittest.TestCase):
    def test_what_the_module_raises_has_a_text(self):
        raised = {(int(level), int(code, 0)) for level, code in
                  re.findall(r"raise_alert\(job_?, (\d), (0x[0-9a-f]+|\d+)\)", MODULE)}
        self.assertGreater(len(raised), 8)
        self.assertEqual(set(), raised - KNOWN)

    def test_the_lines_are_those_of_the_module(self):
        # neighbours are one literal
        literals = [re.sub(r'"\s*"', "", text) for text in
                    re.findall(r"QMRT_LOG\(\w+,\s*(%s(?:\s*%s)*)" % (LITERAL, LITERAL), MODULE)]
        lines = re.findall(r"\{(%s), (\d), (\d+)\}" % LITERAL, block("LINES[]"))
        self.assertGreater(len(lines), 30)
        for beginning, level, code in lines:
            self.assertIn((int(level), int(code)), KNOWN, beginning)
            self.assertTrue(any(literal.startswith(beginning[:-1]) for literal in literals),
                            "nothing logs a line that begins with " + beginning)


if __name__ == "__main__":
    unittest.main()
