"""What the platform remembers: its accounts, instances, backups and jobs. They survive a restart."""
import datetime
import json
import os
import secrets
import time
import uuid

FINAL = ("Completed", "Failed")


def new_id(suffix):
    """Ascending, so that ids tell which of two backups is newer."""
    return "%016x%s%s" % (time.time_ns(), secrets.token_hex(8), suffix)


class Records(object):
    """Members: `instances`, `backups` and `jobs`, objects of JSON by their ids."""

    def __init__(self, directory):
        self.directory, self.path = directory, os.path.join(directory, "records.json")
        with open(self.path) as source:
            kept = json.load(source)
        self.accounts, self.instances = kept["accounts"], kept["instances"]
        self.backups, self.jobs = kept["backups"], kept["jobs"]
        self.zone = datetime.datetime.strptime(kept["zone"], "%z").tzinfo
        self.listen = kept["address"], kept["port"]
        for one in [*self.backups.values(), *self.jobs.values()]:
            if one["status"] not in ("COMPLETED", *FINAL):  # the platform was ended meanwhile
                one["status"] = "FAILED" if one["status"].isupper() else "Failed"
        for one in self.instances.values():
            one["busy"] = False

    @staticmethod
    def create(directory, address, port, zone, account, instances):
        """@param instances  (name, user, port) of each"""
        os.makedirs(directory, 0o700)
        made = {}
        for name, user, own_port in instances:
            made[uuid.uuid4().hex + "in14"] = {
                "name": name, "user": user, "port": own_port, "medium": "nas", "extend": {},
                "history": [], "branch_start": 0, "busy": False}
        write(os.path.join(directory, "records.json"), {
            "address": address, "port": port, "zone": zone, "accounts": dict([account]),
            "instances": made, "backups": {}, "jobs": {}})

    def save(self):
        write(self.path, {
            "address": self.listen[0], "port": self.listen[1],
            "zone": datetime.datetime.now(self.zone).strftime("%z"), "accounts": self.accounts,
            "instances": self.instances, "backups": self.backups, "jobs": self.jobs})

    def time_text(self, seconds):
        """As backups have it."""
        return datetime.datetime.fromtimestamp(seconds, self.zone).strftime("%Y-%m-%dT%H:%M:%S%z")

    # --- manifests, which are too large for the rest

    def keep_manifest(self, manifest):
        write(os.path.join(self.directory, manifest["key"]), manifest)

    def manifest(self, key):
        with open(os.path.join(self.directory, key)) as source:
            return json.load(source)

    def chain(self, key):
        """The manifests of a physical backup and of those it builds on, the full one's first."""
        found = []
        while key:
            found.insert(0, self.manifest(key))
            key = found[0]["prior"]
        return found

    # --- what an instance has

    def is_physical(self, key):
        return self.backups[key]["backup_type"] != "log"

    def completed(self, instance_id):
        return [key for key, one in self.backups.items()
                if one["instance_id"] == instance_id and one["status"] == "COMPLETED"]

    def log_for(self, instance_id, seconds):
        """The newest log backup by which that time can be restored, and the newest physical one before
        the time; None when there are none."""
        for key in reversed(self.completed(instance_id)):
            log = self.backups[key]
            if self.is_physical(key) or not log["begin"] <= seconds <= log["end"]:
                continue
            bases = [one for one in log["chain"]
                     if self.is_physical(one) and self.backups[one]["end"] <= seconds]
            if bases:
                return key, bases[-1]
        return None


def write(path, content):
    with open(path + ".new", "w") as out:
        json.dump(content, out)
    os.rename(path + ".new", path)
