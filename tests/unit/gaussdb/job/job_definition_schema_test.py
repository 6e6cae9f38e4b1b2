#!/usr/bin/env python3
"""Validates what the generators write, and the manual's examples, against docs/schema.

    job_definition_schema_test.py SAMPLES

SAMPLES is the program that writes samples.
"""
import json
import pathlib
import re
import subprocess
import sys
import unittest

import jsonschema

DOCS = pathlib.Path(__file__).resolve().parents[4] / "docs"
KINDS = ("backup-job-options", "restore-job-options", "backup-job-source", "restore-job-source")
SCHEMAS = {kind: json.loads((DOCS / "schema" / f"{kind}.json").read_text("utf-8")) for kind in KINDS}
VALIDATORS = {kind: jsonschema.Draft202012Validator(schema) for kind, schema in SCHEMAS.items()}
PROGRAM = ""


def samples():
    """What the program writes, by kind."""
    out = subprocess.run([PROGRAM], stdout=subprocess.PIPE, check=True, text=True, encoding="utf-8")
    found = {kind: [] for kind in KINDS}
    for line in out.stdout.splitlines():
        kind, text = line.split("\t", 1)
        found[kind].append(json.loads(text))
    return found


class Job_Definition_Schema_Test(unittest.TestCase):
    def test_the_schemas_are_schemas(self):
        for schema in SCHEMAS.values():
            jsonschema.Draft202012Validator.check_schema(schema)

    def test_what_is_generated_is_valid_and_uses_every_key(self):
        for kind, objects in samples().items():
            self.assertEqual(300, len(objects))
            used = set()
            for value in objects:
                VALIDATORS[kind].validate(value)
                used |= set(value)
            self.assertEqual(set(SCHEMAS[kind]["properties"]), used, kind)

    def test_a_value_of_another_type_is_refused_under_each_key(self):
        for kind, objects in samples().items():
            for key, rule in SCHEMAS[kind]["properties"].items():
                wrong = 7 if rule.get("type") != "integer" else "7"
                self.assertFalse(VALIDATORS[kind].is_valid({**objects[0], key: wrong}), key)
                self.assertFalse(VALIDATORS[kind].is_valid({**objects[0], key: None}), key)

    def test_numbers_out_of_range_are_refused(self):
        for kind in KINDS:
            for key, rule in SCHEMAS[kind]["properties"].items():
                if rule.get("type") != "integer":
                    continue
                for number in (rule["minimum"] - 1, rule["maximum"] + 1, 1.5):
                    self.assertFalse(VALIDATORS[kind].is_valid({key: number}), (key, number))
                for number in (rule["minimum"], rule["maximum"], rule["default"]):
                    self.assertTrue(VALIDATORS[kind].is_valid({key: number}), (key, number))

    def test_a_missing_key_an_unknown_key_and_a_nul_are_refused(self):
        for kind, objects in samples().items():
            for key in SCHEMAS[kind].get("required", []):
                without = {name: value for name, value in objects[0].items() if name != key}
                self.assertFalse(VALIDATORS[kind].is_valid(without), key)
            self.assertFalse(VALIDATORS[kind].is_valid({**objects[0], "chanels": 4}))
            for key, rule in SCHEMAS[kind]["properties"].items():
                if rule.get("type") == "string":
                    nul = {**objects[0], key: "gaussdb/a\0b"}
                    self.assertFalse(VALIDATORS[kind].is_valid(nul), key)

    def test_entries_of_another_form_are_refused(self):
        for kind in ("backup-job-source", "restore-job-source"):
            value = samples()[kind][0]
            for entry in ("", "gaussdb", "/gaussdb/a", "gaussdb/a/", "gaussdb/a/schema/d",
                          "gaussdb/a/table/d/s/t/s", 5):
                self.assertFalse(VALIDATORS[kind].is_valid({**value, "entries": [entry]}), entry)

    def test_the_manuals_examples_are_valid(self):
        manual = (DOCS / "job-definitions.md").read_text("utf-8")
        for kind in KINDS:
            title = kind.replace("-job-", " ").capitalize()
            section = manual.split(f"\n## {title}\n", 1)[1].split("\n## ", 1)[0]
            examples = re.findall(r"```json\n(.*?)```", section, re.S)
            self.assertTrue(examples, title)
            for example in examples:
                VALIDATORS[kind].validate(json.loads(example))


if __name__ == "__main__":
    PROGRAM = sys.argv.pop(1)
    unittest.main()
