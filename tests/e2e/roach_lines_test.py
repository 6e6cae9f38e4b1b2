#!/usr/bin/env python3
"""The command lines that the sandbox's GaussRoach.py takes where the data goes to another machine: those
of the data warehouse and of openGauss, and no others."""
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "sandbox/tools"))
sys.dont_write_bytecode = True
from roach import options, remote_options  # noqa: E402
from roach.cluster import Tool_Error  # noqa: E402
from roach.restore import Restore  # noqa: E402
import GaussRoach  # noqa: E402

KEY = "20240101_000000"
DWS = ("--master-port 9500 --media-type NBU --media-destination POLICY --metadata-destination /m "
       "--parallel-process 2 --nbu-on-remote --nbu-media-list /home/omm/media.txt --client-port 9700 ")
OPENGAUSS = ("--master-port 9500 --media-type REMOTE --media-destination SOURCE --metadata-destination /m "
             "--parallel-process 2 --remote-ip 10.0.0.1 --remote-port 9800 --remote-config POLICY ")
BACKUP = ("-t backup --filesplit-size 4 --physical-fine-grained --compression-type 0 "
          "--compression-level 0 ")
RESTORE = "-t restore --backup-key " + KEY + " "
LINES = {
    "dws": {
        "backup": DWS + BACKUP,
        "schemas": DWS + BACKUP + "--dbname shop --schema-list /home/omm/zenbrak3_schema.txt",
        "restore": DWS + RESTORE + "--clean",
        "new cluster": DWS + RESTORE + "--clean --old-cluster-hostname a --restore-new-cluster "
                       "--restore-configs",
        "tables": DWS + RESTORE + "--clean --physical-fine-grained --dbname shop --table-list /s "
                  "--restore-target-list /t",
        "rebuild": DWS + RESTORE + "--old-cluster-hostname a --restore-new-cluster --fine-rebuild "
                   "--physical-fine-grained --dbname shop",
        "start": "-t start", "start of a new one": "-t start --restore-new-cluster -X /x.xml",
        "stop": "-t stop"},
    "opengauss": {
        "backup": OPENGAUSS + "-t backup --compression-type=0 --compression-level=0",
        "restore": OPENGAUSS + RESTORE + "--clean",
        "new cluster": OPENGAUSS + RESTORE + "--clean --restore-new-cluster --restore-configs",
        "start": "-t start", "start of a new one": "-t start --restore-new-cluster -X /x.xml",
        "stop": "-t stop"},
}
MEMORY = ["--max-memory-usage=512", "--buffer-size=64", "--buffer-block-size=1048576"]


def fault_of(series, words):
    """What the tool says of a line; "" when it takes it."""
    try:
        given = dict(options.parse(words, "t:X:?", GaussRoach.LONG_OPTIONS))
        remote_options.check(given, given["-t"], series)
    except Tool_Error as error:
        return str(error)
    return ""


def pairs(words):
    """The line's options with their values, one entry each."""
    return dict(options.parse(words, "t:X:?", GaussRoach.LONG_OPTIONS))


class Lines_Test(unittest.TestCase):
    def lines(self):
        return [(series, name, line.split()) for series, lines in LINES.items()
                for name, line in lines.items()]

    def test_every_form_is_taken_by_its_own_product_only(self):
        for series, name, words in self.lines():
            self.assertEqual("", fault_of(series, words), (series, name))
            other = "dws" if series == "opengauss" else "opengauss"
            if "--media-type" in words:
                self.assertNotEqual("", fault_of(other, words), (series, name))

    def test_a_flag_that_is_missing_is_told_or_makes_another_whole_form(self):
        whole = {series: [frozenset(pairs(line.split())) for line in lines.values()]
                 for series, lines in LINES.items()}
        for series, name, words in self.lines():
            given = pairs(words)
            for flag in given:
                rest = [word for key, value in given.items() if key != flag
                        for word in ([key, value] if value else [key])]
                if flag == "-t":
                    continue
                expected = frozenset(set(given) - {flag}) in whole[series]
                self.assertEqual(expected, fault_of(series, rest) == "", (series, name, flag))

    def test_options_of_tuning_go_with_their_actions(self):
        dws = LINES["dws"]
        for name, line in dws.items():
            is_backup, moves = name in ("backup", "schemas"), "--media-type" in line
            for word in MEMORY + ["--master-timeout=60", "--logging-level=INFO"]:
                self.assertEqual(moves, fault_of("dws", line.split() + [word]) == "", (name, word))
            for word in ("--cpu-cores=2", "--cbm-recycle-level=0", "--prior-backup-key=" + KEY):
                self.assertEqual(is_backup, fault_of("dws", line.split() + [word]) == "", (name, word))
        for name, line in LINES["opengauss"].items():
            for word in MEMORY:
                self.assertEqual("--media-type" in line,
                                 fault_of("opengauss", line.split() + [word]) == "", (name, word))
            for word in ("--master-timeout=60", "--logging-level=INFO", "--cpu-cores=2",
                         "--physical-fine-grained", "--dbname=shop", "--nbu-on-remote"):
                self.assertNotEqual("", fault_of("opengauss", line.split() + [word]), (name, word))
            for word in ("--cbm-recycle-level=2", "--prior-backup-key=" + KEY):
                self.assertEqual(name == "backup",
                                 fault_of("opengauss", line.split() + [word]) == "", (name, word))

    def test_values_that_cannot_be_are_refused(self):
        backup = LINES["dws"]["backup"]
        for old, new in (("--media-type NBU", "--media-type REMOTE"), ("--filesplit-size 4", "--filesplit-size x"),
                         ("--client-port 9700", "--client-port 70000"), ("--client-port 9700", "--client-port 0"),
                         ("--compression-type 0", "--compression-type 9"),
                         ("--compression-level 0", "--compression-level 10")):
            self.assertIn(old, backup)
            self.assertIn("GAUSS-50004", fault_of("dws", backup.replace(old, new).split()), new)
        for word in ("--cpu-cores=0", "--cbm-recycle-level=3", "--logging-level=LOUD", "--master-timeout=-1"):
            self.assertIn("GAUSS-50004", fault_of("dws", backup.split() + [word]), word)

    def test_lists_are_read_as_they_are_written(self):
        with tempfile.TemporaryDirectory() as directory:
            def lists(sources, targets):
                for name, text in (("s", sources), ("t", targets)):
                    (pathlib.Path(directory) / name).write_text(text)
                return {"--dbname": "shop", "--table-list": directory + "/s",
                        "--restore-target-list": directory + "/t"}
            self.assertEqual(
                {"database": "shop", "tables": [(["a", "b"], ["c", "d"]), (["e", "f"], ["g", "h"])]},
                remote_options.fine(lists("a.b\ne.f", "c.d\ng.h")))
            for sources, targets in (("a.b\ne.f", "c.d"), ("a", "b"), ("a.b.c", "a.b"), ("", ""),
                                     ("a.b c", "a.b"), ("a.'b", "a.b")):
                with self.assertRaises(Tool_Error, msg=(sources, targets)):
                    remote_options.fine(lists(sources, targets))
            given = lists("a\nb", "")
            self.assertEqual({"database": "shop", "schemas": ["a", "b"]}, remote_options.scope(
                dict(given, **{"--schema-list": directory + "/s"})))
            for name, text in (("nothing", None), ("dotted", "a\nb.c"), ("empty", "\n")):
                if text is not None:
                    (pathlib.Path(directory) / name).write_text(text)
                with self.assertRaises(Tool_Error, msg=name):
                    remote_options.scope(dict(given, **{"--schema-list": directory + "/" + name}))

    def test_a_backup_of_another_cluster_is_refused(self):
        for old_host, is_refused in (("a", False), (None, False), ("b", True)):
            restore = Restore.__new__(Restore)
            restore.key, restore.old_host, restore.chain = KEY, old_host, [{"host": "a"}]
            try:
                restore._check_chain()
                self.assertFalse(is_refused)
            except Tool_Error as error:
                self.assertTrue(is_refused, error)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
