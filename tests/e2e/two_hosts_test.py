#!/usr/bin/env python3
"""A cluster on two machines of the sandbox, with an agent on each: what is backed up from the first is
what both lost. Needs root.

    two_hosts_test.py BUILD [TEST ...]
"""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "sandbox"))
from machines import CLUSTER, MACHINE, MAKE_PACKAGE, Host, files_below, run, wait_until  # noqa: E402

BUILD = sys.argv.pop(1)
MACHINES = "host1=10.77.0.1,host2=10.77.0.2"
CACHE = "/var/cache/quilmot/zenbrak3/gaussdb"
REFUSED = -32005
# one call of the backup server by a key: key, method, params
POST = '''
import http.client, json, ssl, sys
server = http.client.HTTPSConnection(
    "host1", 60305, context=ssl.create_default_context(cafile="/etc/zenbrak3/backupd.crt"))
server.request("POST", "/d2/r/v2/rpc", json.dumps(
    {"jsonrpc": "2.0", "id": 1, "method": sys.argv[2], "params": json.loads(sys.argv[3])}),
    {"Authorization": "Bearer " + sys.argv[1]})
answer = server.getresponse()
print(json.dumps({"status": answer.status, "body": answer.read().decode()}))
'''
SERVER = """
[remote]
address = "0.0.0.0"
[group]
role = "backupd"
"""
MEMBER = """
[group]
role = "member"
backupd_url = "wss://host1:60305"
backupd_ca = "/etc/zenbrak3/backupd.crt"
backupd_key_file = "/etc/zenbrak3/backupd.key"
"""


class Two_Hosts_Test(unittest.TestCase):
    """One cluster, with a data node on each host, for all tests."""

    @classmethod
    def setUpClass(cls):
        cls.work = pathlib.Path(tempfile.mkdtemp(prefix="zenbrak3-two-", dir="/var/tmp"))
        cls.work.chmod(0o755)
        cls.addClassCleanup(cls.clean)
        share = cls.work / "share"
        for directory in (share / "keys", share / "pool"):
            directory.mkdir(parents=True)
        cls.hosts = [Host(cls.work / name, name, address, share)
                     for name, _, address in (one.partition("=") for one in MACHINES.split(","))]
        cls.first, cls.second = cls.hosts
        run(MACHINE, "join", cls.first.directory, cls.second.directory)
        making = [subprocess.Popen(host.words(
            CLUSTER, "create", "--nodes", 2, "--machines", MACHINES, "--keys", "/srv/shared/keys",
            "--no-fsync"), stdout=subprocess.DEVNULL) for host in cls.hosts]
        package = run(MAKE_PACKAGE, BUILD).strip()
        if [one.wait() for one in making] != [0, 0]:
            raise AssertionError("the cluster could not be made")
        for host in cls.hosts:
            host.do("dpkg", "--install", package)
            host.cluster("fill", 6)
        cls.start_agents()

    @classmethod
    def start_agents(cls):
        cls.first.path("/etc/zenbrak3/agent.toml").write_text(SERVER)
        cls.second.path("/etc/zenbrak3/agent.toml").write_text(MEMBER)
        cls.first.start_agent()
        cls.first.do("mkdir", "-p", "/srv/shared/pool")
        cls.first.do("install", "-d", "/srv/shared/private")
        cls.first.do("zenbrak3", "pool", "create", "main", "file:///srv/shared/pool")
        cls.first.do("zenbrak3", "pool", "create", "private", "file:///srv/shared/private")
        pools = json.loads(cls.first.do("zenbrak3", "pools", "--json"))["pools"]
        cls.pool, cls.private = [next(one["uuid"] for one in pools if one["name"] == name)
                                 for name in ("main", "private")]
        cls.member_key = cls.first.do("zenbrak3", "member", "add", "host2", "--pool", "main").strip()
        certificate = cls.first.path("/var/lib/zenbrak3/tls/agent.crt").read_text()
        for target, text in (("crt", certificate), ("key", cls.member_key + "\n")):
            copy = cls.second.path("/etc/zenbrak3/backupd." + target)
            copy.write_text(text)
            copy.chmod(0o600)
        cls.second.start_agent()
        for host in reversed(cls.hosts):
            host.do("zenbrak3", "instances", "--refresh")
        cls.first.do("zenbrak3", "account", "c1", "backup", input="Backup@123\n")

    @classmethod
    def clean(cls):
        for host in getattr(cls, "hosts", ()):
            subprocess.call([MACHINE, "stop", str(host.directory)])
            if host.agent:
                host.agent.wait()
        shutil.rmtree(cls.work, ignore_errors=True)

    # --- what is asked and seen

    def setUp(self):
        self.wait_for_group()
        self.first.cluster("start")
        for host in self.hosts:
            self.assertEqual([], host.processes())

    def wait_for_group(self):
        """The backup server reaches the other host's agent."""
        wait_until(lambda: self.first.call("member.list")["members"][0]["connected"],
                   "the second host in the group")

    def start_backup(self, *words):
        return subprocess.Popen(self.first.words("zenbrak3", "backup", "c1", "--pool", "main", *words),
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def backup(self, *words):
        """Its record in the catalog."""
        self.first.do("zenbrak3", "backup", "c1", "--pool", "main", *words)
        return self.sets()[0]

    def failed_backup(self, *words, job=None):
        """The run of a backup that has to fail, with its alerts."""
        before = self.sets()
        job = job or self.start_backup(*words)
        out, _ = job.communicate(timeout=120)
        self.assertEqual(1, job.returncode, out)
        self.assertEqual(before, self.sets(), "a set has been left")
        run_id = re.search(r"Started job (\S+?)\.?$", out, re.M).group(1)
        return run_id, self.first.do("zenbrak3", "job", "show", run_id)

    def sets(self):
        return json.loads(self.first.do("zenbrak3", "backups", "--json"))["backups"]

    def policy(self, host):
        return host.path("%s/%s" % (CACHE, self.pool))

    def metadata(self, host):
        """The keys of the backups that a host's metadata are of."""
        try:
            text = host.path(CACHE + "/meta/backups.ini").read_text()
        except FileNotFoundError:
            return []
        keys = re.findall(r'"BackupKey":"(\w+)"', text)
        for key in keys:
            manifest = json.loads(host.path("%s/meta/roach/%s/manifest.json" % (CACHE, key)).read_text())
            self.assertEqual(["dn_6001", "dn_6002"], sorted(manifest["nodes"]))
        return keys

    def rows(self):
        return [host.cluster("checksums") for host in self.hosts]

    def change(self):
        for host in self.hosts:
            host.cluster("change", 5)

    def seen_policies(self, job):
        """The policies that a job brings to the hosts, until it has ended."""
        seen = [None, None]
        while job.poll() is None:
            for number, host in enumerate(self.hosts):
                try:
                    about = self.policy(host).stat()
                    policy = json.loads(self.policy(host).read_text() or "null")
                except (FileNotFoundError, ValueError):
                    continue
                seen[number] = policy and (policy, about.st_mode & 0o777, about.st_uid)
            time.sleep(0.02)
        self.assertEqual(0, job.returncode, job.stdout.read())
        job.stdout.close()
        return seen

    def check_policies(self, seen, **expected):
        user = self.first.path("/home/omm").stat().st_uid
        for number, one in enumerate(seen):
            self.assertIsNotNone(one, "the host %d has had no policy" % (number + 1))
            policy, mode, owner = one
            self.assertEqual((0o640, user), (mode, owner))
            self.assertEqual(expected, {key: policy[key] for key in expected})
            self.assertEqual(("localhost", "host1")[number], policy["backupd_host"])
            self.assertFalse(self.policy(self.hosts[number]).exists())

    def check_nothing_is_left(self, hosts=None):
        for host in hosts or self.hosts:
            wait_until(lambda: not host.processes(), "the end of all processes on " + host.name)
            wait_until(lambda: host.sql("select count(*) from pg_replication_slots") == "0",
                       "no slot on " + host.name)
            self.assertEqual([], list(host.path("/home/omm/data").glob("*.roach_restore")))
        kept = {one["uuid"] for one in self.sets()}
        for path in files_below(self.work / "share/pool"):
            found = re.search("/xbsa/([^/]+)/", str(path))
            self.assertTrue(not found or found.group(1) in kept, "%s has been left" % path)

    def lose_and_restore(self, record):
        for host in self.hosts:
            host.cluster("destroy-data")
            self.assertEqual([], list(host.path("/home/omm/data").iterdir()))
        return subprocess.Popen(self.first.words("zenbrak3", "restore", record["uuid"], "--yes"),
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    # --- the tests

    def test_rows_of_both_hosts_come_back_from_a_full_and_an_incremental_backup(self):
        seen = self.seen_policies(self.start_backup())
        full = self.sets()[0]
        self.check_policies(seen, uuid=full["uuid"], pool_uuid=self.pool, full_backup=True)
        for host in self.hosts:
            self.assertEqual([full["backup_key"]], self.metadata(host), host.name)
        self.change()
        rows = self.rows()
        incremental = self.backup("--incremental")
        self.assertEqual(full["backup_key"], incremental["prior_backup_key"])
        keys = [full["backup_key"], incremental["backup_key"]]
        for host in self.hosts:
            self.assertEqual(keys, self.metadata(host), host.name)

        # whatever the second host knew of its backups is brought there again
        shutil.rmtree(self.second.path(CACHE + "/meta"))
        seen = self.seen_policies(self.lose_and_restore(incremental))
        self.check_policies(seen, pool_uuid=self.pool)
        self.assertEqual(rows, self.rows())
        self.assertEqual(keys, self.metadata(self.second))
        for host in self.hosts:
            # neither a policy nor the directory of the restore
            self.assertLessEqual(set(os.listdir(host.path(CACHE))), {"c1", "c1_env", "c1_identity", "media", "meta"})
        self.check_nothing_is_left()

    def test_an_incremental_backup_needs_the_metadata_of_every_host(self):
        backup = self.backup()
        shutil.rmtree(self.second.path(CACHE + "/meta"))
        run_id, _ = self.failed_backup("--incremental")
        self.assertIn("The metadata of the prior backup %s are missing" % backup["backup_key"],
                      self.first.do("zenbrak3", "job", "log", run_id))
        self.check_nothing_is_left()
        full = self.backup()
        self.assertEqual("full", full["type"])
        self.assertEqual([full["backup_key"]], self.metadata(self.second))
        self.assertEqual(full["backup_key"], self.backup("--incremental")["prior_backup_key"])

    def test_a_second_host_without_its_agent_fails_the_job(self):
        self.second.kill_agent()
        _, shown = self.failed_backup()
        self.assertIn("could not be told the policy", shown)
        self.assertFalse(self.policy(self.second).exists())
        self.check_nothing_is_left()
        self.second.start_agent()
        self.wait_for_group()
        self.backup()
        self.check_nothing_is_left()

    def test_a_server_that_is_down_on_the_second_host_fails_the_job(self):
        self.assertIn("Normal", self.first.cluster("status"))
        self.second.cluster("kill", 1)
        self.assertIn("Degraded", self.first.cluster("status"))
        run_id, _ = self.failed_backup()
        self.assertIn("dn_6002", self.first.do("zenbrak3", "job", "log", run_id))
        self.first.cluster("start")
        self.assertIn("Normal", self.second.cluster("status"))
        self.check_nothing_is_left()

    def test_a_cut_cable_fails_the_job_and_the_next_one_succeeds(self):
        job = self.start_backup()
        wait_until(lambda: self.second.processes("gs_roach"), "the agent of the tool")
        # it stays where it is until the cable has been cut
        tool = self.second.processes("gs_roach")
        self.second.kill(signal.SIGSTOP, tool)
        self.first.do("ip", "link", "set", "cable", "down")
        run_id, _ = self.failed_backup(job=job)
        self.second.kill(signal.SIGCONT, tool)
        self.assertRegex(self.first.do("zenbrak3", "job", "log", run_id),
                         "Lost the connection to the agent on host2")
        self.check_nothing_is_left()
        self.first.do("ip", "link", "set", "cable", "up")
        self.wait_for_group()
        self.backup()
        self.check_nothing_is_left()
        for host in self.hosts:
            self.assertFalse(self.policy(host).exists())

    def test_a_run_that_is_cancelled_now_ends_on_both_hosts(self):
        job = self.start_backup()
        wait_until(lambda: self.second.processes("gs_roach"), "the agent of the tool")
        # it does not notice that its master has ended
        self.second.kill(signal.SIGSTOP, self.second.processes("gs_roach"))
        run_id = json.loads(self.first.do("zenbrak3", "jobs", "--json"))["jobs"][0]["run_id"]
        self.assertIn("has ended: canceled",
                      self.first.do("zenbrak3", "job", "cancel", run_id, "--now"))
        out, _ = job.communicate(timeout=60)
        self.assertEqual(6, job.returncode, out)
        for host in self.hosts:
            self.assertEqual([], host.processes())
            self.assertFalse(self.policy(host).exists())
        self.check_nothing_is_left()
        self.backup()
        self.check_nothing_is_left()

    # --- attacks by a member, and by who has its key

    def post(self, key, method, /, **params):
        """The answer of the backup server's port to the second host: (HTTP status, error's code)."""
        done = json.loads(self.second.do("python3", "-c", POST, key, method, json.dumps(params)))
        return done["status"], (json.loads(done["body"] or "{}").get("error") or {}).get("code")

    def test_a_members_key_is_for_its_own_hosts_business(self):
        of_first = self.backup()
        first, second = [host.call("agent.info")["uuid"] for host in self.hosts]

        def refused(method, /, **params):
            self.assertEqual((200, REFUSED), self.post(self.member_key, method, **params),
                             (method, params))
        # administration
        run = {"name": "evil", "type": "backup", "subtype": "full", "precondition": "touch /root/x",
               "target": {"pool": "main"}, "source": {"id": "c1", "entries": ["gaussdb/c1"]}}
        refused("job.start", run=run)
        refused("definition.save", **run)
        refused("account.save", instance="c1", username="x", password="y")
        refused("instance.save", name="x")
        refused("pool.create", name="x", url="file:///root")
        refused("pool.update", pool="main", read_only=True)
        refused("backup.remove", backup=of_first["uuid"])
        refused("member.add", name="x", all_pools=True)
        refused("agent.info")
        refused("gaussdb.roach_source", action="remove", uuid="", policy_name="c1",
                pool_uuid=self.pool, definition_uuid="meta")
        # another host's sets
        uuid, resource = of_first["uuid"], of_first["resource_uuid"]
        self.assertEqual(first, of_first["host_uuid"])
        refused("catalog.abort", uuid=uuid)
        refused("catalog.add_piece", uuid=uuid, pieces=[{"path": resource + "/x", "size": 1}])
        refused("catalog.abort_open", host_uuid=first, before=0)
        record = {"uuid": uuid, "host_uuid": second, "resource_uuid": resource, "storages": []}
        refused("catalog.commit", kind="gaussdb", set=record, overwrite=True)
        refused("catalog.complete", kind="gaussdb", set=record)
        fresh = dict(record, uuid="11111111-2222-3333-4444-555555555555")
        refused("catalog.initialize", kind="gaussdb", set=dict(fresh, host_uuid=first))
        refused("catalog.initialize", kind="gaussdb",
                set=dict(fresh, storages=[{"pool_uuid": self.private, "size": 0}]))
        refused("catalog.initialize", kind="gaussdb",
                set=dict(fresh, pieces=[{"path": "another/xbsa/x", "size": 1}]))
        # a pool that it was not given
        refused("pool.find", uuid=self.private)
        self.assertEqual((200, None), self.post(self.member_key, "pool.find", uuid=self.pool))
        self.assertEqual(["main"], [one["name"] for one in self.second.call("pool.list")["pools"]])
        # another host, and calls of another agent
        refused("group.join", host_uuid=first)
        refused("group.join", host_uuid="11111111-2222-3333-4444-555555555555")
        for method in ("agent.info", "job.start", "gaussdb.roach_source", "group.deliver"):
            refused("group.forward", host_uuid=first, method=method, params={}, key="")
            refused("group.forward", host_uuid=second, method=method, params={}, key=self.member_key)
        refused("group.deliver", method="agent.info", params={}, key="",
                run={"run_id": "r", "backup": True, "host_uuid": second, "instance": "c1",
                     "cluster_id": "c1", "pool_uuid": self.pool})
        refused("run.begin", run_id="r", backup=True, host_uuid=first, instance="c1",
                cluster_id="c1", pool_uuid=self.pool, key="0" * 64)
        # a key that is nobody's, and one that was taken back
        self.assertEqual(401, self.post("0" * 64, "pool.list")[0])
        key = self.first.do("zenbrak3", "member", "add", "host3", "--all-pools").strip()
        self.assertEqual((200, REFUSED), self.post(key, "pool.list"))
        refused("group.join", host_uuid=second)  # the key is for a WebSocket connection there
        self.first.do("zenbrak3", "member", "remove", "host3", "--yes")
        self.assertEqual(401, self.post(key, "pool.list")[0])
        self.assertEqual([uuid], [one["uuid"] for one in self.sets() if one["uuid"] == uuid])
        self.wait_for_group()

    def test_a_member_that_was_removed_is_out(self):
        key = self.first.do("zenbrak3", "member", "remove", "host2", "--yes")
        try:
            wait_until(lambda: not self.second.call("pool.list"), "the end of its connection")
            self.assertEqual(401, self.post(self.member_key, "pool.list")[0])
        finally:
            self.second.kill_agent()
            key = self.first.do("zenbrak3", "member", "add", "host2", "--pool", "main").strip()
            type(self).member_key = key
            self.second.path("/etc/zenbrak3/backupd.key").write_text(key + "\n")
            self.second.start_agent()
        self.wait_for_group()

    def test_the_second_hosts_run_key_dies_with_the_run(self):
        job = self.start_backup()
        wait_until(lambda: self.policy(self.second).exists(), "the policy on the second host")
        text = ""
        while not text and job.poll() is None:
            try:
                text = self.policy(self.second).read_text()
            except FileNotFoundError:
                break
        out, _ = job.communicate(timeout=120)
        self.assertEqual(0, job.returncode, out)
        key = json.loads(text)["access_key"]
        for secret in (self.member_key, self.first.path("/var/lib/zenbrak3/access.key").read_text().strip(),
                       self.second.path("/var/lib/zenbrak3/access.key").read_text().strip()):
            self.assertNotEqual(secret, key)
        self.assertEqual(401, self.post(key, "pool.find", uuid=self.pool)[0])


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
