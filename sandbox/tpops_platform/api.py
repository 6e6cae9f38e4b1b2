"""The platform's REST interface: what each call takes and answers. Anything else is refused."""
import datetime
import json
import re
import secrets
import time
import urllib.parse

from roach.cluster import Tool_Error
from tpops_platform.instance import NODE, VERSION, Instance
from tpops_platform.records import FINAL, new_id

MAX_LIMIT = 100
POLICY = re.compile(r"tpops_[A-Za-z0-9._-]+")
BACKUP_TYPES = ("completed", "differential", "log")
LISTED_TYPES = {"Snapshot_Xbsa": ("completed",), "Log_Xbsa": ("log",)}
TIME = "%Y-%m-%dT%H:%M:%S%z"


class Refused(Exception):
    """An answer that is an error."""

    def __init__(self, status, code, message):
        super().__init__(message)
        self.status, self.body = status, {"errCode": code, "externalMessage": message}


def bad(message):
    return Refused(400, "DBS.280001", message)


class Endpoint(object):
    """@param query     keys that have to be there
    @param optional  keys that may be there, those of a tuple only together
    @param body      type by key; None: no body. Those of `more` may be absent"""

    def __init__(self, name, method, path, query=(), optional=(), body=None, more=None, needs_token=True):
        self.name, self.method, self.needs_token = name, method, needs_token
        self.path = re.compile(path.replace("%s", "([^/]+)"))
        self.query, self.optional, self.body, self.more = query, optional, body, more or {}

    def read_query(self, text):
        given = {}
        for pair in text.split("&") if text else ():
            key, equals, value = pair.partition("=")
            if not equals or key in given or not value:
                raise bad("The query '%s' has an invalid key '%s'." % (text, key))
            given[key] = urllib.parse.unquote_plus(value, errors="strict")
        groups = [one if isinstance(one, tuple) else (one,) for one in self.optional]
        known = set(self.query).union(*groups)
        if not set(self.query) <= set(given) <= known:
            raise bad("The query '%s' does not have the keys %s." % (text, sorted(known)))
        for group in groups:
            if len(set(group) & set(given)) not in (0, len(group)):
                raise bad("The keys %s belong together." % ", ".join(group))
        return given

    def read_body(self, content, content_type):
        if self.body is None:
            if content:
                raise bad("A body is not expected.")
            return {}
        if content_type != "application/json":
            raise Refused(415, "DBS.280415", "The content type '%s' is not supported." % content_type)
        try:
            given = json.loads(content)
        except ValueError:
            raise bad("The body is not JSON.")
        check_object(given, self.body, self.more)
        return given


def check_object(given, wanted, more):
    if not isinstance(given, dict) or not set(wanted) <= set(given) <= set(wanted) | set(more):
        raise bad("The body needs the keys %s, and may have %s." % (sorted(wanted), sorted(more)))
    for key, value in given.items():
        kind = wanted.get(key) or more[key]
        if not isinstance(value, kind) or isinstance(value, bool):
            raise bad("The value of '%s' is not of the type %s." % (key, kind.__name__))


OWN = "/rds/gaussdb/v3/instances/%s"
ENDPOINTS = [
    Endpoint("login", "POST", "/rds/v3/auth/mini-token", body={"username": str, "password": str},
             needs_token=False),
    Endpoint("instances", "GET", "/rds/v3/instances", optional=("instance_id",)),
    Endpoint("agent_status", "GET", OWN + "/agent/status"),
    Endpoint("databases", "GET", OWN + "/databases", query=("limit", "offset")),
    Endpoint("put_extend_info", "PUT", OWN + "/extend-info", body={"key": str, "value": str}),
    Endpoint("get_extend_info", "GET", OWN + "/extend-info", query=("key",)),
    Endpoint("change_media", "PUT", OWN + "/change-backup-media", body={"type": str}),
    Endpoint("create_backup", "POST", "/rds/gaussdb/v3/backups", more={"depend_backupIds": list}, body={
        "instance_id": str, "name": str, "description": str, "backup_type": str}),
    Endpoint("stop_backup", "POST", OWN + "/backups/stop", body={"job_id": str}),
    Endpoint("differential_backups", "GET", OWN + "/differential-backups",
             optional=(("begin_time", "end_time"),)),
    Endpoint("backups", "GET", "/rds/gaussdb/v3.1/backups", query=("instance_id",),
             optional=(("begin_time", "end_time"), "backup_id", "backup_type")),
    Endpoint("restore", "POST", "/rds/gaussdb/v3/instances/recovery", body={"source": dict, "target": dict}),
    Endpoint("jobs", "GET", "/rds/v3/jobs", query=("id",)),
]


def find_endpoint(method, path):
    """The endpoint and the parts of the path that it leaves open."""
    fitting = [(one, one.path.fullmatch(path)) for one in ENDPOINTS]
    fitting = [(one, match) for one, match in fitting if match]
    for endpoint, match in fitting:
        if endpoint.method == method:
            return endpoint, match.groups()
    if fitting:
        raise Refused(405, "DBS.280405", "The method %s is not allowed." % method)
    raise Refused(404, "DBS.280404", "The path %s does not exist." % path)


class Tokens(object):
    def __init__(self):
        self.seconds = 3600
        self.known = {}  # user and end by token

    def give(self, user):
        token = secrets.token_urlsafe(32)
        self.known[token] = [user, time.monotonic() + self.seconds, False]
        return token

    def check(self, token):
        user, end, is_revoked = self.known.get(token, (None, 0, False))
        if is_revoked:
            raise Refused(403, "DBS.280012", "The token was revoked.")
        if time.monotonic() >= end:
            raise Refused(401, "DBS.280011", "The token is invalid or has expired.")
        return user

    def expire(self):
        for one in self.known.values():
            one[1] = 0

    def revoke(self):
        for one in self.known.values():
            one[2] = True


class Api(object):
    """The calls, each by its endpoint's name. A result is what the answer's body has."""

    def __init__(self, records, jobs):
        self.records, self.runner, self.tokens = records, jobs, Tokens()

    def instance(self, instance_id):
        try:
            return self.records.instances[instance_id]
        except KeyError:
            raise Refused(404, "DBS.280238", "The instance %s does not exist." % instance_id)

    def idle_instance(self, instance_id):
        found = self.instance(instance_id)
        if found["busy"]:
            raise Refused(409, "DBS.200019", "Another operation on the instance %s is in progress." % instance_id)
        return found

    def login(self, _query, body):
        if self.records.accounts.get(body["username"]) != body["password"]:
            raise Refused(401, "DBS.280010", "The user name or the password is incorrect.")
        return {"x_mini_token": self.tokens.give(body["username"])}

    # --- instances

    def instances(self, query):
        wanted = query.get("instance_id")
        return {"instances": [self._describe(key, one) for key, one in self.records.instances.items()
                              if wanted in (None, key)],
                "total_count": len(self.records.instances)}

    @staticmethod
    def _describe(key, one):
        answers = Instance(one["user"], one["port"]).answers()
        status = one.get("status") or ("normal" if answers else "abnormal")
        return {"id": key, "name": one["name"], "instance_status": status, "mode": "ha",
                "engine_version": VERSION}

    def agent_status(self, _query, instance_id):
        self.instance(instance_id)
        return {"node_list": [{"id": NODE, "status": "normal"}]}

    def databases(self, query, instance_id):
        """@param query  its "offset" counts pages"""
        one = self.instance(instance_id)
        if not query["limit"].isdigit() or not query["offset"].isdigit() \
                or not 1 <= int(query["limit"]) <= MAX_LIMIT:
            raise bad("limit is a number from 1 to %d, offset the number of a page." % MAX_LIMIT)
        try:
            lines = Instance(one["user"], one["port"]).sql(
                "select datname, pg_get_userbyid(datdba), pg_size_pretty(pg_database_size(oid)), "
                "pg_encoding_to_char(encoding), datcollate, datctype from pg_database "
                "where datallowconn order by 1").splitlines()
        except Tool_Error as error:
            raise Refused(500, "DBS.280500", str(error))
        names = ("name", "owner", "size", "character_set", "collate_set", "datctype")
        first = int(query["offset"]) * int(query["limit"])
        page = lines[first:first + int(query["limit"])]
        return {"databases": [dict(zip(names, line.split("|"))) for line in page],
                "total_count": len(lines)}

    def put_extend_info(self, _query, body, instance_id):
        one = self.instance(instance_id)
        if body["key"] == "XbsaRoute":
            check_route(body["value"])
        elif body["key"] != "BackupSet" or not POLICY.fullmatch(body["value"]):
            raise bad("The extended information '%s' cannot be '%s'." % (body["key"], body["value"]))
        one["extend"][body["key"]] = body["value"]
        self.records.save()
        return {}

    def get_extend_info(self, query, instance_id):
        extend = self.instance(instance_id)["extend"]
        if query["key"] not in extend:
            raise Refused(404, "DBS.280239", "The instance has no extended information '%s'." % query["key"])
        return {"key": query["key"], "value": extend[query["key"]]}

    def change_media(self, _query, body, instance_id):
        one = self.idle_instance(instance_id)
        if body["type"] != "xbsa":
            raise bad("The medium '%s' is not supported." % body["type"])
        if one["medium"] == "xbsa":
            raise Refused(400, "DBS.06015006", "The backup medium is xbsa already.")
        check_extend(one)
        return {"job_id": self.runner.start("ChangeBackupMedia", instance_id, self.runner.change_medium, "Running")}

    # --- backups

    def create_backup(self, _query, body):
        instance_id, kind = body["instance_id"], body["backup_type"]
        one = self.idle_instance(instance_id)
        if kind not in BACKUP_TYPES or not body["name"] or len(body["name"]) > 64:
            raise bad("A backup of the type '%s' cannot have the name '%s'." % (kind, body["name"]))
        if one["medium"] != "xbsa":
            raise Refused(400, "DBS.06015007", "The backup medium of the instance is %s." % one["medium"])
        check_extend(one)
        chain = self._chain(one, kind, body.get("depend_backupIds"))
        key = new_id("br14")
        backup = {"id": key, "name": body["name"], "description": body["description"], "backup_type": kind,
                  "status": "BUILDING", "instance_id": instance_id, "begin": int(time.time()), "end": None,
                  "size": 0, "chain": chain}
        self.records.backups[key] = backup
        job_id = self.runner.start("Create%sBackup" % kind.capitalize(), instance_id,
                                 lambda job: self.runner.back_up(job, backup))
        shown = {"backup": self.describe(backup)}
        return shown if kind == "log" else dict(shown, job_id=job_id)

    def _chain(self, instance, kind, depends):
        """What of the instance's backups a new one builds on."""
        history = instance["history"]
        if kind != "log":
            if depends is not None:
                raise bad("Only a log backup has depend_backupIds.")
            if kind == "differential" and not any(self.records.is_physical(key) for key in history):
                raise Refused(400, "DBS.06015010", "The instance has no full backup.")
            return []
        if not depends or not all(isinstance(key, str) for key in depends):
            raise bad("A log backup needs depend_backupIds.")
        for key in depends:
            known = self.records.backups.get(key)
            if not known or known["status"] != "COMPLETED" or self.instance(known["instance_id"]) is not instance:
                raise Refused(400, "DBS.06015011", "The instance has no backup %s." % key)
        chain = [key for key in history if key in depends]
        if not any(self.records.is_physical(key) for key in chain):
            raise Refused(400, "DBS.06015010", "No full backup of what the instance is now is among them.")
        return chain

    async def stop_backup(self, _query, body, instance_id):
        self.instance(instance_id)
        job = self.records.jobs.get(body["job_id"])
        if not job or job["instance_id"] != instance_id or job["status"] in FINAL:
            raise Refused(404, "DBS.280240", "The instance has no running job %s." % body["job_id"])
        await self.runner.stop(body["job_id"])
        return {}

    def describe(self, backup):
        def text(seconds):
            return self.records.time_text(seconds) if seconds else None
        return {"id": backup["id"], "name": backup["name"], "description": backup["description"],
                "status": backup["status"], "size": backup["size"], "type": "manual",
                "datastore": {"type": "GaussDB", "version": VERSION}, "begin_time": text(backup["begin"]),
                "end_time": text(backup["end"]), "instance_id": backup["instance_id"]}

    def backups(self, query):
        self.instance(query["instance_id"])
        kind = query.get("backup_type")
        if kind is not None and kind not in LISTED_TYPES:
            raise bad("The backup type '%s' is unknown." % kind)
        return self._list("backups", query, LISTED_TYPES.get(kind, ("completed", "log")))

    def differential_backups(self, query, instance_id):
        self.instance(instance_id)
        return self._list("differential_backups", dict(query, instance_id=instance_id), ("differential",))

    def _list(self, name, query, kinds):
        """The newest first."""
        first, last = [parse_time(query[key]) if key in query else None for key in ("begin_time", "end_time")]
        found = [self.describe(one) for key, one in reversed(self.records.backups.items())
                 if one["instance_id"] == query["instance_id"] and one["backup_type"] in kinds
                 and query.get("backup_id") in (None, key)
                 and (first is None or first <= one["begin"] <= last)]
        return {name: found, "total_count": len(found)}

    # --- restores

    def restore(self, _query, body):
        source, target = body["source"], body["target"]
        check_object(source, {"instance_id": str, "backup_id": str, "type": str}, {"restore_time": int})
        check_object(target, {"instance_id": str}, {})
        self.idle_instance(target["instance_id"])
        origin = self.instance(source["instance_id"])
        check_extend(origin)
        if source["type"] == "backup":
            base, log, text = self._of_backup(source)
        elif source["type"] == "timestamp":
            base, log, text = self._of_time(source)
        else:
            raise bad("The restore type '%s' is unknown." % source["type"])
        return {"job_id": self.runner.start("RestoreInstance", target["instance_id"], lambda job: self.runner.restore(
            job, origin, base, log, text))}

    def _of_backup(self, source):
        key = source["backup_id"]
        if "restore_time" in source:
            raise bad("A restore from a backup has no restore_time.")
        if key not in self.records.completed(source["instance_id"]):
            raise Refused(400, "DBS.06015011", "The instance has no backup '%s'." % key)
        if self.records.is_physical(key):
            return key, None, "recovery_target = 'immediate'\n"
        physical = [one for one in self.records.backups[key]["chain"] if self.records.is_physical(one)]
        return physical[-1], key, ""

    def _of_time(self, source):
        if source["backup_id"] or source.get("restore_time", 0) <= 0:
            raise bad("A restore to a time has restore_time and an empty backup_id.")
        seconds = source["restore_time"] / 1000
        found = self.records.log_for(source["instance_id"], seconds)
        if not found:
            raise Refused(400, "DBS.06015012", "The instance cannot be restored to that time.")
        log, base = found
        text = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(int(seconds)))
        return base, log, "recovery_target_time = '%s.%03d+00'\n" % (text, source["restore_time"] % 1000)

    def jobs(self, query):
        job = self.records.jobs.get(query["id"])
        if not job:
            raise Refused(404, "DBS.280240", "The job %s does not exist." % query["id"])
        return {"job": self.runner.describe(job)}


def check_route(text):
    try:
        route = json.loads(text)
    except ValueError:
        raise bad("XbsaRoute is not JSON.")
    if not isinstance(route, dict) or set(route) != {"ip", "port", "ssl"} or not isinstance(route["ip"], str) \
            or type(route["port"]) is not int or not 0 < route["port"] < 65536 or type(route["ssl"]) is not bool:
        raise bad("XbsaRoute does not have ip, port and ssl.")
    if route["ssl"]:
        raise Refused(400, "DBS.06015013", "The certificate of the service %s is not installed." % route["ip"])


def check_extend(instance):
    if set(instance["extend"]) != {"BackupSet", "XbsaRoute"}:
        raise Refused(400, "DBS.06015008", "The instance has no BackupSet or no XbsaRoute.")


def parse_time(text):
    try:
        return datetime.datetime.strptime(text, TIME).timestamp()
    except ValueError:
        raise bad("The time '%s' is not of the form %s." % (text, TIME))
