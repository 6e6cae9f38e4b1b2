"""Instances of management platforms, and the host that protects them: a world for tests and the demo. On the
platforms' machine nothing of the product is installed."""
import json
import socket
import subprocess
import sys
import time

sys.dont_write_bytecode = True
from agentless_world import CACHE, OURS, World  # noqa: E402
from machines import HERE, SERVICE, Host, run, wait_until  # noqa: E402

TPOPS = str(HERE / "tpops")
ADDRESS = "10.77.0.20"
ACCOUNT, PASSWORD = "backup_admin", "Platform@123"
CA_FILE, CONFIG = "/etc/zenbrak3/platform-ca.pem", "/etc/zenbrak3/agent.toml"
XBSA_PORT = 9800
BACKUP_AGENT = "backUpAgent"


class Platform(object):
    """@param number  1 for the first: they differ in port, directory and instances"""

    def __init__(self, host, number, names):
        self.host, self.names, self.port = host, names, 8001 + number
        self.directory, self.first_port = "/var/lib/tpops%d" % number, 5400 + 100 * number

    def words(self, *words):
        return [TPOPS, "--directory", self.directory, *words]

    def creation(self):
        return self.words("create", "--address", ADDRESS, "--port", str(self.port), "--instances",
                          ",".join(self.names), "--first-port", str(self.first_port), "--no-fsync")

    def do(self, *words):
        return self.host.do(*self.words(*words))

    def control(self, **order):
        with socket.socket(socket.AF_UNIX) as control:
            control.connect(str(self.host.path(self.directory + "/control")))
            control.sendall(json.dumps(order).encode() + b"\n")
            with control.makefile() as answers:
                return json.loads(answers.readline())

    def rule(self, endpoint, do, **more):
        """Lets one call of the endpoint go wrong."""
        self.control(rules=[dict(endpoint=endpoint, do=do, **more)])

    def report(self):
        return self.control(report=True)

    def put_right(self):
        """Resets whatever a test has changed."""
        for order in ({"rules": []}, {"hold": False}, {"token_seconds": 3600}, {"certificate": "good"},
                      {"password": [ACCOUNT, PASSWORD]}, {"down": False}):
            self.control(**order)
        wait_until(lambda: not self.report()["busy"], "the end of the platform's jobs")

    def wait_until_held(self):
        wait_until(lambda: self.report()["held"] > 0, "the middle of the platform's job")

    # --- its instances

    def rows(self, name):
        return self.do("checksums", name)

    def change(self, name, percent=5):
        self.do("change", name, str(percent))

    def seconds(self, name):
        return float(self.do("sql", name, "select extract(epoch from clock_timestamp())"))

    def next_second(self, name):
        """One that has begun and ended on the instance's clock, as ISO 8601 has it."""
        second = int(self.seconds(name)) + 1
        wait_until(lambda: self.seconds(name) >= second + 1, "the next second")
        return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(second))


class Tpops_World(World):
    """@param platforms  for each the names of its instances
    @param names  clusters of other flavours beside them"""

    def __init__(self, build, platforms, mib, names=()):
        self.wanted = platforms
        super().__init__(build, list(names), mib)

    def add_machines(self):
        (self.work / "share-tpops").mkdir()
        self.tpops = Host(self.work / "tpops1", "tpops1", ADDRESS, self.work / "share-tpops")
        self.hosts.append(self.tpops)
        self.platforms = [Platform(self.tpops, number, names)
                          for number, names in enumerate(self.wanted, 1)]

    def start_making(self, mib):
        steps = [one.creation() for one in self.platforms]
        steps += [one.words("fill", name, str(mib)) for one in self.platforms for name in one.names]
        script = " && ".join(" ".join(words) for words in steps)
        return [subprocess.Popen(self.tpops.words("sh", "-c", script), stdout=subprocess.DEVNULL)]

    def prepare_agent(self):
        if not self.ours.processes(BACKUP_AGENT):  # a cluster beside has it, too
            self.start_backup_agent()
        authorities = "".join(self.tpops.path(one.directory + "/ca.pem").read_text() for one in self.platforms)
        self.ours.path(CA_FILE).write_text(authorities)
        with open(self.ours.path(CONFIG), "a") as config:
            config.write("\n[platform]\nca_file = \"%s\"\n" % CA_FILE)

    def start_backup_agent(self):
        self.ours.do(SERVICE, "start", BACKUP_AGENT, "--address", OURS, "--port", XBSA_PORT)

    def add_platform_words(self, platform):
        return ["zenbrak3", "platform", "add", "%s:%d" % (ADDRESS, platform.port), *platform.names, "--user",
                ACCOUNT, "--xbsa-host", OURS, "--xbsa-port", str(XBSA_PORT), "--no-xbsa-tls"]

    def add_platform(self, platform):
        run(*self.ours.words(*self.add_platform_words(platform)), input=PASSWORD + "\n")
        self.note_resources(platform)

    def note_resources(self, platform):
        self.resources |= {self.instance(name)["uuid"] for name in platform.names}

    def add_platforms(self):
        for platform in self.platforms:
            self.add_platform(platform)

    def platform_of(self, name):
        return next(one for one in self.platforms if name in one.names)

    # --- jobs

    def backup_definition(self, name, subtype="full", pool="main", **more):
        return dict({"name": subtype + " of " + name, "type": "backup", "subtype": subtype,
                     "target": {"pool": pool}, "options": {"channels": 2},
                     "source": {"id": self.instance(name)["uuid"], "entries": ["gaussdb/" + name]}}, **more)

    def restore_definition(self, backup, name=None, restore_time=None, **more):
        """@param name  the target, unless it is the instance of the backup
        @param restore_time  ISO 8601"""
        name = name or backup["instance"]
        options = {"channels": 2, **({"restore_time": restore_time} if restore_time else {})}
        return dict({"name": "restore of " + name, "type": "restore", "subtype": "full",
                     "target": {"id": self.instance(name)["uuid"]}, "options": options,
                     "source": {"id": backup["resource_uuid"], "backup_key": backup["backup_key"],
                                "restore_as": "gaussdb/" + name,
                                "entries": ["gaussdb/" + backup["instance"]]}}, **more)

    def complete(self, definition):
        """The run of a job that has to succeed."""
        record = self.run_definition(**definition)
        assert record["state"] == "completed", "%s\n%s" % (record, record["log"])
        return record

    def set_of(self, run_record):
        return next(one for one in self.sets() if one["uuid"] == run_record["run_id"])

    def back_up(self, name, subtype="full", **more):
        """The record of a new set."""
        return self.set_of(self.complete(self.backup_definition(name, subtype, **more)))

    # --- what jobs leave

    def leftovers(self):
        """A restore that has failed leaves its policy to the next run."""
        return [one for one in super().leftovers() if one not in self.allowed()]

    def allowed(self):
        return {"tpops_%s_%s" % (source, target) for source in self.resources for target in self.resources}

    def policies(self):
        return {path.name for path in self.ours.path(CACHE).glob("tpops_*")}
