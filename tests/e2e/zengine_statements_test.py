#!/usr/bin/env python3
"""The statements that the sandbox's lone instance takes, and no others."""
import pathlib
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(ROOT / "sandbox/zengine"), str(ROOT / "sandbox/tools")]
sys.dont_write_bytecode = True
from zengine_tools.instance import Engine_Error, hash_password  # noqa: E402
from zengine_tools.statements import Alter, Backup, Query, Recover, Restore, parse, split  # noqa: E402

FULL = ("backup database incremental level 0 format '/c/FULL' as zstd compressed backupset level 3 "
        "tag 'ZENBRAK3_FULL' parallelism 4")


class Statements_Test(unittest.TestCase):
    def test_the_statements(self):
        for text, meaning in (
                (FULL, Backup(0, False, "/c/FULL", "zstd", 3, "ZENBRAK3_FULL", 4)),
                ("BACKUP DATABASE INCREMENTAL LEVEL 1 FORMAT '/c/D' AS COMPRESSED BACKUPSET TAG 'D' "
                 "PARALLELISM 16", Backup(1, False, "/c/D", "zlib", 1, "D", 16)),
                ("backup database incremental level 1 cumulative format '/c/C' as compressed backupset "
                 "level 9 tag 'C' parallelism 1", Backup(1, True, "/c/C", "zlib", 9, "C", 1)),
                ("restore database from '/c/FULL' parallelism 2", Restore("/c/FULL", 2)),
                ("restore database from '/c/FULL'", Restore("/c/FULL", 4)),
                ("recover database", Recover()), ("alter database open", Alter("OPEN")),
                ("alter database mount", Alter("MOUNT")),
                ("select status from dv_database", Query("select status from dv_database"))):
            self.assertEqual(meaning, parse(text), text)

    def test_what_the_grammar_does_not_have(self):
        for text in (
                "drop table item", "backup", "recover", "restore database", "alter database close",
                "recover database until cancel", "restore database from '/x' parallelism 0",
                FULL.replace("level 0", "level 2"), FULL.replace("level 0", "level 0 cumulative"),
                FULL.replace("incremental level 0 ", ""), FULL.replace("zstd", "gzip"),
                FULL.replace("level 3", "level 0"), FULL.replace("level 3", "level 10"),
                FULL.replace("parallelism 4", "parallelism 0"), FULL.replace("parallelism 4", "parallelism 17"),
                FULL.replace(" parallelism 4", ""), FULL.replace("ZENBRAK3_FULL", "a b"),
                FULL.replace("ZENBRAK3_FULL", "x" * 64), FULL.replace("ZENBRAK3_FULL", ""),
                FULL.replace("compressed ", ""), FULL.replace("/c/", "c/"), FULL.replace("/c/", "disk:/c/"),
                FULL + " x"):
            with self.assertRaisesRegex(Engine_Error, "^GS-00601, Sql syntax error", msg=text):
                parse(text)
        for path in ("/c/$x", "/c/`x`", "/" + "x" * 255):
            with self.assertRaisesRegex(Engine_Error, "^GS-00024, The directory .* is invalid"):
                parse(FULL.replace("/c/FULL", path))

    def test_several_statements_of_a_text(self):
        self.assertEqual(["restore database from '/a;b  c' parallelism 4", "recover database"],
                         split("restore  database from '/a;b  c' parallelism 4;\nrecover database;"))
        for text in ("", " ; ;", "select 'x"):
            with self.assertRaises(Engine_Error):
                split(text)

    def test_a_password_is_kept_as_its_digest(self):
        saved = hash_password("secret")
        self.assertNotIn("secret", saved)
        self.assertEqual(saved, hash_password("secret", saved.split(":")[0]))
        self.assertNotEqual(saved, hash_password("secret"), "each has its own salt")
        self.assertNotEqual(saved, hash_password("Secret", saved.split(":")[0]))


if __name__ == "__main__":
    unittest.main(verbosity=2)
