#!/usr/bin/env python3
"""The sandbox's management platform by itself: what its interface takes and refuses, and its backups and
restores of real databases through backUpAgent and the XBSA library.

Run in a machine of the sandbox: sandbox/machine run python3 tests/e2e/sandbox_platform_test.py LIBRARY
The agent that the library asks is tests/support/xbsa_agent_main.
"""
import http.client
import json
import os
import pathlib
import shutil
import ssl
import subprocess
import sys
import time
import unittest
import uuid

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parents[2]
LIBRARY = sys.argv.pop(1)
TPOPS, SERVICE = str(ROOT / "sandbox/tpops"), str(ROOT / "sandbox/service")
PLATFORM, AGENT, POOL = pathlib.Path("/var/lib/tpops"), pathlib.Path("/srv/agent"), pathlib.Path("/srv/pool")
CACHE = pathlib.Path("/var/cache/quilmot/zenbrak3/gaussdb")
KEY, ACCOUNT = "the access key", {"username": "backup_admin", "password": "Platform@123"}
ROUTE = {"ip": "127.0.0.1", "port": 9800, "ssl": False}
OWN = "/rds/gaussdb/v3/instances/"
BACKUPS, RECOVERY = "/rds/gaussdb/v3/backups", "/rds/gaussdb/v3/instances/recovery"


def tpops(*words):
    done = subprocess.run([TPOPS, *map(str, words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


def control(**order):
    return json.loads(tpops("control", json.dumps(order)))


def wait_until(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, "in vain waited for " + what
        time.sleep(0.02)


class Client(object):
    """Calls as a client of the interface makes them."""

    def __init__(self, token=None):
        self.token = token
        self.trust = ssl.create_default_context(cafile=PLATFORM / "ca.pem")

    def send(self, method, path, body=None, headers=(), timeout=30):
        """Status, body, and the header that traces the call."""
        connection = http.client.HTTPSConnection("127.0.0.1", 8002, context=self.trust, timeout=timeout)
        try:
            given = dict(headers)
            if self.token:
                given["X-Mini-Token"] = self.token
            if body is not None:
                given.setdefault("Content-Type", "application/json")
                body = body if isinstance(body, str) else json.dumps(body)
            connection.request(method, path, body, given)
            answer = connection.getresponse()
            return answer.status, answer.read().decode(), answer.headers.get("X-TRACE-ID")
        finally:
            connection.close()

    def call(self, method, path, body=None):
        status, text, trace = self.send(method, path, body)
        assert status == 200 and trace, (status, text)
        return json.loads(text)

    def login(self):
        self.token = self.call("POST", "/rds/v3/auth/mini-token", ACCOUNT)["x_mini_token"]
        return self


class Job_Failed(Exception):
    pass


def setUpModule():
    """The platform with two instances, backUpAgent, and what the library needs of an agent."""
    tpops("create", "--instances", "gs1,gs2,gs3", "--no-fsync")
    target = pathlib.Path("/opt/quilmot/zenbrak3/lib/libxbsa64.so")
    target.parent.mkdir(parents=True)
    shutil.copy(LIBRARY, target)
    subprocess.check_call([SERVICE, "start", "backUpAgent"])
    POOL.mkdir()
    shutil.chown(POOL, "gsbackup")
    AGENT.mkdir()
    CACHE.mkdir(parents=True)
    Media.tell()
    agent = subprocess.Popen([sys.executable, ROOT / "tests/support/xbsa_agent_main", AGENT])
    unittest.addModuleCleanup(agent.wait)
    unittest.addModuleCleanup(agent.kill)
    wait_until((AGENT / "port").exists, "the agent's port")


class Media(object):
    """Policies, as a job leaves them for backUpAgent."""

    sets = []

    @classmethod
    def tell(cls):
        pool = {"uuid": "pool1", "name": "pool1", "url": "file://%s" % POOL, "compression": "zstd",
                "compression_level": 1, "read_only": False, "device_uuids": []}
        (AGENT / "agent.json.new").write_text(json.dumps(
            {"world": 1, "key": KEY, "sets": cls.sets, "pool": pool}))
        os.rename(AGENT / "agent.json.new", AGENT / "agent.json")

    @classmethod
    def write_policy(cls, name, cluster):
        """Returns the set's id. The counter file is made as well, as a job does."""
        cls.sets.append(str(uuid.uuid4()))
        cls.tell()
        (CACHE / name).write_text(json.dumps({
            "access_key": KEY, "backupd_host": "127.0.0.1", "backupd_port": int((AGENT / "port").read_text()),
            "backupd_ssl": False, "cluster_id": cluster, "device_uuid": "", "pool_uuid": "pool1",
            "uuid": cls.sets[-1], "retry": 0, "resumption_buffer_size": 0, "compression": "zstd",
            "compression_level": 1, "version": 2, "major": 8, "full_backup": True, "rate_limits": "",
            "src_rate_limits": ""}))
        (CACHE / (name + "_act")).write_bytes(bytes(4096))
        for path in (CACHE / name, CACHE / (name + "_act")):
            shutil.chown(path, "gsbackup")
        return cls.sets[-1]

    @staticmethod
    def counted(name):
        return int.from_bytes((CACHE / (name + "_act")).read_bytes()[:8], "little")


class Platform_Test(unittest.TestCase):
    """@cvar names  the instances' names by id"""

    @classmethod
    def setUpClass(cls):
        cls.ids = dict(line.split() for line in tpops("list").splitlines())
        cls.client = Client().login()

    def refused(self, status, method, path, body=None, **more):
        got, text, trace = self.client.send(method, path, body, **more)
        self.assertEqual(status, got, text)
        self.assertTrue(trace)
        self.assertEqual({"errCode", "externalMessage"}, set(json.loads(text)))
        return json.loads(text)["errCode"]

    def own(self, name, path):
        return OWN + self.ids[name] + path

    def job(self, job_id, states=None):
        """Waits for the job's end."""
        seen = [] if states is None else states
        def ended():
            job = self.client.call("GET", "/rds/v3/jobs?id=" + job_id)["job"]
            seen.append(job["status"])
            return job["status"] in ("Completed", "Failed")
        wait_until(ended, "the end of the job")
        if seen[-1] == "Failed":
            raise Job_Failed(self.client.call("GET", "/rds/v3/jobs?id=" + job_id)["job"]["fail_reason"])

    def use_xbsa(self, name):
        for key, value in (("BackupSet", "tpops_" + name), ("XbsaRoute", json.dumps(ROUTE))):
            self.client.call("PUT", self.own(name, "/extend-info"), {"key": key, "value": value})
        status, text, _ = self.client.send("PUT", self.own(name, "/change-backup-media"), {"type": "xbsa"})
        if status == 200:
            self.job(json.loads(text)["job_id"])

    def request(self, name, kind, **more):
        return {"instance_id": self.ids[name], "name": uuid.uuid4().hex, "description": "", "backup_type": kind,
                **more}

    def backup(self, name, kind, depends=None):
        """The record of a new backup."""
        Media.write_policy("tpops_" + name, name)
        wanted = self.request(name, kind, **({"depend_backupIds": depends} if depends else {}))
        answer = self.client.call("POST", BACKUPS, wanted)
        if kind == "log":
            self.assertNotIn("job_id", answer)
            found = []
            def ended():
                found[:] = self.listed(name, "&backup_id=%s&backup_type=Log_Xbsa" % answer["backup"]["id"])
                return found[0]["status"] in ("COMPLETED", "FAILED")
            wait_until(ended, "the end of the log backup")
            if found[0]["status"] == "FAILED":
                raise Job_Failed
            return found[0]
        self.job(answer["job_id"])
        if kind == "differential":
            found = self.client.call("GET", self.own(name, "/differential-backups"))["differential_backups"]
        else:
            found = self.listed(name, "&backup_type=Snapshot_Xbsa")
        return next(one for one in found if one["name"] == wanted["name"])

    def listed(self, name, more=""):
        return self.client.call("GET", "/rds/gaussdb/v3.1/backups?instance_id=%s%s" % (
            self.ids[name], more))["backups"]

    def restore(self, source, target, policy, **more):
        Media.write_policy(policy, source)
        self.job(self.client.call("POST", RECOVERY, {
            "source": {"instance_id": self.ids[source], "backup_id": "", **more},
            "target": {"instance_id": self.ids[target]}})["job_id"])

    @staticmethod
    def next_second(name):
        """A second that has begun and ended on the instance's clock."""
        def now():
            return int(float(tpops("sql", name, "select extract(epoch from clock_timestamp())")))
        second = now() + 1
        wait_until(lambda: now() > second, "the next second")
        return second


class Interface_Test(Platform_Test):
    def test_a_login_needs_the_account(self):
        for body in ({**ACCOUNT, "password": "x"}, {**ACCOUNT, "username": "x"}):
            self.refused(401, "POST", "/rds/v3/auth/mini-token", body)
        for body in ({}, {"username": "backup_admin"}, {**ACCOUNT, "more": 1}, [], "{", {**ACCOUNT, "password": 1}):
            self.refused(400, "POST", "/rds/v3/auth/mini-token", body)
        self.refused(415, "POST", "/rds/v3/auth/mini-token", ACCOUNT, headers={"Content-Type": "text/plain"})
        self.refused(405, "GET", "/rds/v3/auth/mini-token")

    def test_tokens_expire_and_are_revoked(self):
        client = Client()
        self.assertEqual(401, client.send("GET", "/rds/v3/instances")[0])
        client.token = "made up"
        self.assertEqual(401, client.send("GET", "/rds/v3/instances")[0])
        for action, status in (("expire", 401), ("revoke", 403)):
            client.login().call("GET", "/rds/v3/instances")
            control(tokens=action)
            self.assertEqual(status, client.send("GET", "/rds/v3/instances")[0])
        control(token_seconds=0)
        self.addCleanup(control, token_seconds=3600)
        self.assertEqual(401, client.login().send("GET", "/rds/v3/instances")[0])
        type(self).client = Client()
        control(token_seconds=3600)
        self.client.login()

    def test_unknown_paths_methods_and_queries_are_refused(self):
        key = self.ids["gs1"]
        for path in ("/", "/rds/v3/instances/", "/rds/v3//instances", "/rds/gaussdb/v3/instances",
                     "/rds/gaussdb/v3/backups/", "/rds/v3/backups", "/x" + "/rds/v3/instances"):
            self.refused(404, "GET", path)
        self.refused(404, "GET", OWN + "0in14/agent/status")
        self.refused(404, "GET", OWN + "0in14/databases?limit=1&offset=0")
        for method, path in (("DELETE", "/rds/v3/instances"), ("POST", "/rds/v3/jobs?id=1"),
                             ("GET", "/rds/gaussdb/v3/backups"), ("POST", OWN + key + "/extend-info")):
            self.refused(405, method, path, {} if method == "POST" else None)
        for path in ("/rds/v3/instances?id=" + key, "/rds/v3/instances?instance_id=", "/rds/v3/instances?instance_id",
                     "/rds/v3/instances?instance_id=%s&instance_id=%s" % (key, key), "/rds/v3/jobs",
                     "/rds/gaussdb/v3.1/backups", "/rds/gaussdb/v3.1/backups?backup_id=1",
                     "/rds/gaussdb/v3.1/backups?instance_id=%s&begin_time=2022-05-09T18:02:31%%2b0800" % key,
                     "/rds/gaussdb/v3.1/backups?instance_id=%s&backup_type=Full" % key,
                     OWN + key + "/differential-backups?begin_time=x&end_time=y",
                     OWN + key + "/differential-backups?instance_id=1",
                     OWN + key + "/databases", OWN + key + "/databases?limit=0&offset=0",
                     OWN + key + "/databases?limit=101&offset=0", OWN + key + "/databases?limit=1&offset=-1"):
            self.refused(400, "GET", path)
        self.refused(400, "GET", "/rds/v3/instances", "{}")
        self.refused(404, "GET", "/rds/v3/jobs?id=1")

    def test_instances_and_their_databases(self):
        found = self.client.call("GET", "/rds/v3/instances")["instances"]
        self.assertEqual(self.ids, {one["name"]: one["id"] for one in found})
        one, = self.client.call("GET", "/rds/v3/instances?instance_id=" + self.ids["gs2"])["instances"]
        self.assertEqual({"id", "name", "instance_status", "mode", "engine_version"}, set(one))
        self.assertEqual(("gs2", "normal"), (one["name"], one["instance_status"]))
        self.assertEqual([], self.client.call("GET", "/rds/v3/instances?instance_id=0in14")["instances"])
        self.assertEqual(1, len(self.client.call("GET", self.own("gs1", "/agent/status"))["node_list"]))

    def test_an_offset_is_the_number_of_a_page(self):
        tpops("sql", "gs2", "create database shop")
        pages = [self.client.call("GET", self.own("gs2", "/databases?limit=2&offset=%d" % page))
                 for page in range(3)]
        self.assertEqual([["postgres", "shop"], ["template1"], []],
                         [[one["name"] for one in page["databases"]] for page in pages])
        self.assertEqual([3] * 3, [page["total_count"] for page in pages])
        self.assertEqual({"name", "owner", "size", "character_set", "collate_set", "datctype"},
                         set(pages[0]["databases"][0]))

    def test_extended_information_is_of_one_instance(self):
        path = self.own("gs2", "/extend-info")
        self.assertEqual("DBS.280239", self.refused(404, "GET", path + "?key=Unknown"))
        for body in ({"key": "BackupSet"}, {"key": "Other", "value": "x"}, {"key": "BackupSet", "value": "x y"},
                     {"key": "BackupSet", "value": 1}, {"key": "XbsaRoute", "value": "{}"},
                     {"key": "XbsaRoute", "value": "x"},
                     {"key": "XbsaRoute", "value": json.dumps({**ROUTE, "port": "9800"})},
                     {"key": "XbsaRoute", "value": json.dumps({**ROUTE, "ssl": True})}):
            self.refused(400, "PUT", path, body)
        self.client.call("PUT", path, {"key": "BackupSet", "value": "tpops_gs2"})
        self.assertEqual("tpops_gs2", self.client.call("GET", path + "?key=BackupSet")["value"])

    def test_requests_for_backups_are_checked(self):
        good = self.request("gs2", "completed")
        for change in ({"instance_id": None}, {"backup_type": "full"}, {"backup_type": ""}, {"name": ""},
                       {"description": None}, {"depend_backupIds": ["x"]}, {"policy": "x"}):
            self.refused(400, "POST", BACKUPS, {**good, **change})
        self.refused(404, "POST", BACKUPS, {**good, "instance_id": "0in14"})
        self.refused(400, "POST", BACKUPS, {key: good[key] for key in ("instance_id", "name", "backup_type")})

    def test_what_is_told_to_go_wrong_does(self):
        def rule(do, **more):
            control(rules=[dict(endpoint="instances", do=do, **more)])
        path = "/rds/v3/instances"
        rule({"status": 500}, skip=1)
        self.assertEqual([200, 500, 200], [self.client.send("GET", path)[0] for _ in range(3)])
        rule({"status": 401}, count=0)
        self.assertEqual([401, 401], [self.client.send("GET", path)[0] for _ in range(2)])
        rule({"body": "<html>"})
        self.assertEqual((200, "<html>"), self.client.send("GET", path)[:2])
        rule("cut")
        with self.assertRaises((http.client.HTTPException, OSError)):
            self.client.send("GET", path)
        rule("hang")
        with self.assertRaises(TimeoutError):
            self.client.send("GET", path, timeout=0.5)
        rule("down", when="after")
        self.assertEqual(200, self.client.send("GET", path)[0])
        with self.assertRaises(ConnectionRefusedError):
            self.client.send("GET", path)
        control(down=False)
        self.client.call("GET", path)
        control(certificate="wrong_name")
        with self.assertRaises(ssl.SSLCertVerificationError):
            self.client.send("GET", path)
        control(certificate="good", rules=[])
        self.client.call("GET", path)


class Backup_Test(Platform_Test):
    """One instance through all it can be done to."""

    def test_every_row_comes_back_at_the_moment_that_is_wanted(self):
        tpops("fill", "gs1", 3)
        self.assertEqual("DBS.06015007", self.refused(400, "POST", BACKUPS, self.request("gs1", "completed")))
        self.use_xbsa("gs1")
        self.assertEqual("DBS.06015006", self.refused(400, "PUT", self.own("gs1", "/change-backup-media"),
                                                      {"type": "xbsa"}))
        self.refused(400, "PUT", self.own("gs1", "/change-backup-media"), {"type": "nas"})
        for kind in ("differential", "log"):
            self.refused(400, "POST", BACKUPS, self.request("gs1", kind))
        full = self.backup("gs1", "completed")
        size = Media.counted("tpops_gs1")
        self.assertGreater(size, 10 << 20)
        self.assertRegex(full["end_time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+0800$")
        for depends in ([], ["x"], [full["id"], "x"], [1]):
            self.refused(400, "POST", BACKUPS, self.request("gs1", "log", depend_backupIds=depends))
        rows = {"full": tpops("checksums", "gs1")}

        tpops("change", "gs1", 5)
        rows["differential"] = tpops("checksums", "gs1")
        differential = self.backup("gs1", "differential")
        self.assertLess(Media.counted("tpops_gs1"), size // 2)
        tpops("change", "gs1", 5)
        rows["moment"] = tpops("checksums", "gs1")
        moment = self.next_second("gs1")
        tpops("change", "gs1", 20)
        rows["log"] = tpops("checksums", "gs1")
        log = self.backup("gs1", "log", [full["id"], differential["id"]])
        self.assertEqual(4, len(set(rows.values())))
        self.check_recovery_time(moment)
        for time_ in (moment - 86400, moment + 86400):
            self.refused(400, "POST", RECOVERY, self.recovery(type="timestamp", restore_time=time_ * 1000))

        tpops("lose", "gs1")
        one, = self.client.call("GET", "/rds/v3/instances?instance_id=" + self.ids["gs1"])["instances"]
        self.assertEqual("abnormal", one["instance_status"])
        self.refused(500, "GET", self.own("gs1", "/databases?limit=9&offset=0"))
        self.restore("gs1", "gs1", "tpops_gs1_gs1", type="timestamp", restore_time=moment * 1000)
        self.assertEqual(rows["moment"], tpops("checksums", "gs1"))
        self.go_on_behind_the_restore([full["id"], differential["id"], log["id"]], rows["moment"])
        for name, one in (("full", full), ("log", log), ("differential", differential)):
            self.restore("gs1", "gs1", "tpops_gs1_gs1", type="backup", backup_id=one["id"])
            self.assertEqual(rows[name], tpops("checksums", "gs1"), name)
        # the policy's name is not known of an instance without backups of its own
        self.restore("gs1", "gs3", "tpops_gs1_other", type="backup", backup_id=full["id"])
        self.assertEqual(rows["full"], tpops("checksums", "gs3"))
        self.miss_a_piece(full)

    def recovery(self, **more):
        return {"source": {"instance_id": self.ids["gs1"], "backup_id": "", **more},
                "target": {"instance_id": self.ids["gs1"]}}

    def check_recovery_time(self, moment):
        calls = [json.loads(line) for line in (AGENT / "calls.jsonl").read_text().splitlines()]
        paths = [piece["path"] for call in calls if call["method"] == "catalog.add_piece"
                 for piece in call["params"]["pieces"]]
        found = [path for path in paths if "basic_recovery_time" in path]
        self.assertEqual(1, len(found), paths)
        file, = POOL.rglob("*basic_recovery_time*")
        text = subprocess.check_output(["zstd", "-dcq", file], text=True)
        begin, end = map(int, text.strip().split(","))
        self.assertLessEqual(begin, moment)
        self.assertLessEqual(moment, end)

    def go_on_behind_the_restore(self, depends, rows):
        """The chain goes on from what the instance is now; the time that was given up is left behind."""
        tpops("change", "gs1", 3)
        later = tpops("checksums", "gs1")
        moment = self.next_second("gs1")
        tpops("change", "gs1", 3)
        differential = self.backup("gs1", "differential")
        log = self.backup("gs1", "log", [*depends, differential["id"]])
        self.restore("gs1", "gs1", "tpops_gs1_gs1", type="timestamp", restore_time=moment * 1000)
        self.assertEqual(later, tpops("checksums", "gs1"))
        self.assertNotEqual(later, rows)
        self.assertEqual("COMPLETED", log["status"])

    def miss_a_piece(self, full):
        rows = tpops("checksums", "gs1")
        away = [path for path in POOL.rglob("*data_0000*")]
        for path in away:
            path.rename(str(path) + ".away")
        with self.assertRaisesRegex(Job_Failed, "The media have no object"):
            self.restore("gs1", "gs1", "tpops_gs1_gs1", type="backup", backup_id=full["id"])
        with self.assertRaisesRegex(Job_Failed, "no complete full backup"):
            self.backup("gs1", "differential")
        self.assertEqual(rows, tpops("checksums", "gs1"))
        for path in away:
            os.rename(str(path) + ".away", path)

    def test_a_backup_that_is_held_is_met_in_the_middle(self):
        self.use_xbsa("gs2")
        control(hold=True)
        self.addCleanup(control, hold=False)
        Media.write_policy("tpops_gs2", "gs2")
        job_id = self.client.call("POST", BACKUPS, self.request("gs2", "completed"))["job_id"]
        wait_until(lambda: control(report=True)["held"] == 1, "the middle of the backup")
        job = self.client.call("GET", "/rds/v3/jobs?id=" + job_id)["job"]
        self.assertEqual(("Running", "50%"), (job["status"], job["progress"]))
        self.assertGreater(Media.counted("tpops_gs2"), 0)
        self.refused(409, "POST", BACKUPS, self.request("gs2", "completed"))
        self.refused(404, "POST", self.own("gs1", "/backups/stop"), {"job_id": job_id})
        self.client.call("POST", self.own("gs2", "/backups/stop"), {"job_id": job_id})
        with self.assertRaisesRegex(Job_Failed, "stopped"):
            self.job(job_id)
        control(hold=False)
        self.assertEqual("FAILED", self.listed("gs2")[0]["status"])
        states = []
        self.use_xbsa("gs2")
        Media.write_policy("tpops_gs2", "gs2")
        self.job(self.client.call("POST", BACKUPS, self.request("gs2", "completed"))["job_id"], states)
        self.assertLessEqual(set(states), {"Building", "Running", "Completed"})

    def test_a_backup_without_a_service_or_a_policy_fails(self):
        self.use_xbsa("gs2")
        for path in CACHE.iterdir():
            path.unlink()
        with self.assertRaisesRegex(Job_Failed, "BSAInit failed with 0x50"):
            self.job(self.client.call("POST", BACKUPS, self.request("gs2", "completed"))["job_id"])
        subprocess.check_call([SERVICE, "stop", "backUpAgent"])
        with self.assertRaisesRegex(Job_Failed, "Failed to connect to the media server"):
            self.job(self.client.call("POST", BACKUPS, self.request("gs2", "completed"))["job_id"])
        subprocess.check_call([SERVICE, "start", "backUpAgent"])
        self.backup("gs2", "completed")

    def test_what_the_platform_knows_survives_its_restart(self):
        self.use_xbsa("gs2")
        full = self.backup("gs2", "completed")
        tpops("stop")
        tpops("start")
        type(self).client = Client().login()
        self.assertEqual("COMPLETED", self.listed("gs2", "&backup_id=" + full["id"])[0]["status"])
        self.backup("gs2", "differential")


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
