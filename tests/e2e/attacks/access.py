"""The database's user with the key that a backup's policy holds, at the agent's port."""
import base64
import http.client
import json
import pathlib
import socket
import sqlite3
import ssl

from attacks import attacker
from attacks.attacker import Attack_Test, DATABASE_USER, USER, run_as
from protected_cluster import DATABASE, kill_backup_tool, wait_until

PORT = 60305
CERTIFICATE = "/var/opt/quilmot/zenbrak3/agent/backupd.crt"
REFUSED = -32005
STOLEN = pathlib.Path("/root/stolen")


def post(key, body, path="/d2/r/v2/rpc", method="POST", headers=()):
    """Status and body of one request with a key."""
    connection = http.client.HTTPSConnection(
        "localhost", PORT, timeout=30, context=ssl.create_default_context(cafile=CERTIFICATE))
    try:
        connection.request(method, path, body, dict(headers, Authorization="Bearer " + key))
        answer = connection.getresponse()
        return answer.status, answer.read().decode()
    finally:
        connection.close()


def call(key, method, /, **params):
    """The answer to a JSON-RPC request: {"result"} or {"error"}."""
    status, body = post(key, json.dumps({"jsonrpc": "2.0", "id": 1, "method": method,
                                         "params": params}))
    assert status == 200, (status, body)
    return json.loads(body)


def script(command):
    """A run that would do something as root."""
    return {"name": "evil", "type": "backup", "subtype": "full", "target": {"pool": "main"},
            "source": {"id": "c1", "entries": ["gaussdb/c1"]}, "precondition": command}


def read_policy(pool="main"):
    """What the database's user reads during a run; None when there is no policy."""
    done = run_as(DATABASE_USER, "cat", attacker.world.policy(pool))
    return json.loads(done.stdout) if done.returncode == 0 and done.stdout else None


class Run_Key_Test(Attack_Test):
    """A key from the policy of a backup that is on."""

    def setUp(self):
        self.run = attacker.world.start_slow_backup(rate=4000000)
        wait_until(lambda: self.open_set(self.run))
        self.policy = read_policy()
        self.key = self.policy["access_key"]

    def end(self):
        kill_backup_tool()
        attacker.world.wait(self.run)

    @staticmethod
    def open_set(uuid):
        with sqlite3.connect("file:%s?mode=ro" % DATABASE, uri=True) as database:
            return database.execute("select 1 from backup_set where uuid = ? and open = 1",
                                    (uuid,)).fetchall()

    def refused(self, method, /, **params):
        answer = call(self.key, method, **params)
        self.assertEqual(REFUSED, answer.get("error", {}).get("code"), (method, params, answer))

    def test_a_policys_key_opens_what_its_run_needs_and_dies_with_it(self):
        world = attacker.world
        other_set = sorted(world.sets)[0]
        admin = pathlib.Path("/var/lib/zenbrak3/access.key").read_text().strip()
        self.assertNotIn(admin, world.policy("main").read_text())
        self.assertNotEqual(0, run_as(USER, "cat", world.policy("main")).returncode)
        self.assertEqual(self.run, self.policy["uuid"])
        try:
            self.attack(other_set)
        finally:
            self.end()
        status, _ = post(self.key, "{}")
        self.assertEqual(401, status)
        self.assertFalse(STOLEN.exists())

    def attack(self, other_set):
        world, policy = attacker.world, self.policy
        # what the data path needs
        self.assertIn("url", call(self.key, "pool.find", uuid=policy["pool_uuid"])["result"])
        plain = {"type": "gaussdb", "view": "catalogs"}
        own = {"uuid": other_set, "cmode": "rb_orm_rows", "limit": 1}
        rows = call(self.key, "catalog.get_view", query=own, **plain)["result"]["result"]["rows"]
        self.assertEqual([other_set], [row["uuid"] for row in rows])
        self.assertEqual({}, call(self.key, "catalog.add_piece", uuid=self.run, pieces=[])["result"])

        # administration
        self.refused("job.start", run=script("touch %s" % STOLEN))
        self.refused("definition.save", **script("touch %s" % STOLEN))
        self.refused("account.save", instance="c1", username="x", password="y")
        self.refused("instance.save", name="x", options={})
        self.refused("pool.create", name="mine", url="file:///home/omm")
        self.refused("pool.update", pool="main", url="file:///root")
        self.refused("backup.remove", backup=other_set, dependents=True)
        self.refused("job.cancel", job=self.run)
        self.refused("member.add", name="x", all_pools=True)
        self.refused("agent.info")
        self.refused("agent.check", instance="c1")
        self.refused("gaussdb.list")
        self.refused("gaussdb.create_instance", name="mine", uid="u", address="127.0.0.1",
                     meta_path="/m", backup_port=1)
        self.refused("gaussdb.get_instance", instance="c1")
        self.refused("gaussdb.modify_instance", name="c1", address="127.0.0.1")
        self.refused("gaussdb.remove_instance", instance="c1")
        self.refused("gaussdb.add_tpops_instances", uid="u", username="u", password="p", instances=[])
        self.refused("gaussdb.list_tpops_instances", name="c1")
        # from agent to agent
        wish = dict(policy, action="add", os_user="root", minor=0, patch=0, policy_name="x",
                    delete_meta_path="/root/x")
        self.refused("gaussdb.roach_source", **wish)
        self.refused("group.deliver", method="gaussdb.roach_source", params=wish, key=self.key,
                     run={"run_id": self.run, "backup": True, "host_uuid": "h", "instance": "c1",
                          "cluster_id": policy["cluster_id"], "pool_uuid": policy["pool_uuid"]})
        self.refused("group.forward", host_uuid="h", method="gaussdb.roach_source", params=wish)
        self.refused("group.join", host_uuid="h")
        self.refused("run.begin", run_id="r", host_uuid="h", key="0" * 64)
        self.refused("run.end", run_id=self.run)
        self.refused("backupd.instance.notify", type="gaussdb", name="c1", change="removed")
        # the catalog beyond its own set
        self.refused("catalog.abort", uuid=other_set)
        self.refused("catalog.abort", uuid=self.run)
        self.refused("catalog.abort_open", host_uuid="h", before=0)
        self.refused("catalog.initialize", kind="gaussdb", set={"uuid": "new"})
        self.refused("catalog.complete", kind="gaussdb", set={"uuid": self.run})
        self.refused("catalog.commit", kind="gaussdb", set={"uuid": other_set}, overwrite=True)
        folder = "%s/xbsa/%s" % (policy["cluster_id"], self.run)
        self.refused("catalog.add_piece", uuid=other_set, pieces=[{"path": folder + "/x"}])
        for path in ("/etc/shadow", "x", "../x", folder, folder + "/../x", folder + "//x",
                     folder + "/a\0b", "%s/xbsa/%s/x" % (policy["cluster_id"], other_set)):
            self.refused("catalog.add_piece", uuid=self.run, pieces=[{"path": path, "size": 1}])
        with Foreign_Set(policy["pool_uuid"]) as uuid:
            self.refused("catalog.get_view", query={"uuid": uuid}, **plain)
        self.refused("catalog.get_view", query={"resource_uuid": policy["cluster_id"]}, **plain)
        self.refused("catalog.get_view", query={"uuid": other_set, "with_pieces": "1"}, **plain)
        self.refused("catalog.get_view", type="gaussdb", view="restore", query=own)
        self.refused("backup.list")
        # another pool, and another resource of the port
        self.refused("pool.find", uuid="main")
        self.refused("pool.list")
        self.assertEqual(403, post(self.key, None, "/d2/r/v2/resources?feature=backup&scope="
                                   "instances&instance_uuid=x", "GET")[0])
        self.assertEqual(403, post(self.key, None, "/", "GET", {
            "Connection": "Upgrade", "Upgrade": "websocket", "Sec-WebSocket-Version": "13",
            "Sec-WebSocket-Key": base64.b64encode(b"0123456789abcdef").decode()})[0])


class Foreign_Set(object):
    """A set of another cluster, put into the catalog at the agent's own socket."""

    UUID = "11111111-2222-3333-4444-555555555555"

    def __init__(self, pool):
        self.set = {"uuid": self.UUID, "resource_uuid": "another", "host_uuid": "h", "pieces": [],
                    "storages": [{"pool_uuid": pool, "size": 0}]}

    def __enter__(self):
        with socket.socket(socket.AF_UNIX) as agent, agent.makefile("rw") as lines:
            agent.connect("/run/zenbrak3/agent.sock")
            lines.write(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "catalog.commit", "params": {
                "kind": "gaussdb", "set": self.set, "overwrite": True}}) + "\n")
            lines.flush()
            answer = json.loads(lines.readline())
        assert "result" in answer, answer
        return self.UUID

    def __exit__(self, *_):
        attacker.world.drop_from_catalog(self.UUID)
