"""Names that nothing can have: at every method of the agent, at the command, and in a job's source."""
import hashlib
import json
import pathlib
import socket
import sqlite3
import subprocess
import sys

from attacks import attacker
from attacks.attacker import Attack_Test
from protected_cluster import CACHE, DATABASE

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "fuzz"))
import agent_rpc_attack as rpc  # noqa: E402

SOCKET = "/run/zenbrak3/agent.sock"


def record():
    """All that the agent keeps, but for what its own clock changes and for the record of attempts."""
    with sqlite3.connect("file:%s?mode=ro" % DATABASE, uri=True) as database:
        rows = "\n".join(row for row in database.iterdump()
                         if not row.startswith(('INSERT INTO "audit"', "INSERT INTO \"sqlite_sequence\" VALUES('audit'")))
    files = sorted(str(path) for path in CACHE.rglob("*"))
    return hashlib.sha256((rows + "\n".join(files)).encode("utf-8", "surrogatepass")).hexdigest()


class Names_Test(Attack_Test):
    def test_no_method_takes_a_name_that_nothing_can_have(self):
        self.addCleanup(setattr, self, "maxDiff", self.maxDiff)
        before = record()
        attacks = 0
        with rpc.Line_Client(SOCKET) as client:
            methods = client.ask("agent.info", {})["result"]["methods"]
            self.assertEqual(set(), set(methods) - set(rpc.METHODS) - set(rpc.NAMELESS) - set(rpc.CLOSED),
                             "methods that this walk does not know")
            for method in rpc.CLOSED:
                self.assertEqual(-32005, client.ask(method, {})["error"]["code"], method)
            for method, member, text, params in rpc.hostile_calls(methods):
                answer = client.ask(method, params)
                attacks += 1
                where = "%s %s=%.40r: %s" % (method, member, text, str(answer)[:300])
                self.assertIn("error", answer, where)
                if text in rpc.NO_LINE:
                    self.assertEqual(-32602, answer["error"]["code"], where)
        self.assertGreater(attacks, 300)
        self.assertEqual(before, record(), "a refused call has changed something")

    def test_bytes_that_are_no_text_are_refused(self):
        before = record()
        for text in (b'"\xff"', b'"\xc0\xaf"', b'"\xed\xa0\x80"', b'"\\ud800"', b'"a\\u0000b"'):
            with socket.socket(socket.AF_UNIX) as connection:
                connection.settimeout(20)
                connection.connect(SOCKET)
                connection.sendall(b'{"jsonrpc":"2.0","id":1,"method":"instance.save","params":{"name":'
                                   + text + b'}}\n')
                answer = json.loads(connection.makefile("rb").readline())
                self.assertIn("error", answer, text)
        self.assertEqual(before, record())

    def test_the_command_tells_before_it_asks(self):
        for words in (["instance", "save", "../x"], ["instance", "save", "a\nb"],
                      ["instance", "show", "a\nb"], ["pool", "create", "a\nb", "/srv/x"],
                      ["backup", "show", "../x"], ["job", "show", "../x"],
                      ["backup", "x" * 5000, "--pool", "main"]):
            done = subprocess.run(["zenbrak3", *words, "--socket", "/nonexistent"], text=True,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE)
            self.assertEqual(2, done.returncode, "%s: %s" % (words, done.stderr))
            self.assertLess(len(done.stderr), 1000)

    def test_a_source_s_id_may_not_be_a_file_of_the_registry(self):
        before = record()
        wish = {"name": "registry", "type": "backup", "subtype": "full", "target": {"pool": "main"},
                "source": {"id": "c1", "entries": ["gaussdb/c1"]}}
        with rpc.Line_Client(SOCKET) as client:
            for name in ("meta", "media", "c1_env", "../c1", "a\nb", "x" * 100_000):
                wish["source"]["id"] = name
                for method, params in (("definition.save", wish), ("job.start", {"run": wish})):
                    answer = client.ask(method, params)
                    self.assertEqual(-32602, answer.get("error", {}).get("code"), (name[:20], answer))
        self.assertEqual(before, record())
        self.assertTrue((CACHE / "c1_env").is_file())
        attacker.world.assert_clean()
