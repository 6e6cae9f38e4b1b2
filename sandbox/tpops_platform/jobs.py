"""The platform's jobs: each is a process of an instance's user."""
import asyncio
import datetime
import json
import os
import pwd
import signal
import socket
import time
import uuid

from tpops_platform.instance import Instance

WORKER = os.path.join(os.path.dirname(os.path.realpath(__file__)), "worker.py")


class Job_Error(Exception):
    pass


def route_of(instance):
    """Address and port of the service that takes the data."""
    route = json.loads(instance["extend"]["XbsaRoute"])
    return {"hosts": [route["ip"]], "port": route["port"]}


class Jobs(object):
    """@param records  what is known; changed as jobs go on"""

    def __init__(self, records, log):
        self.records, self.log = records, log
        self.workers = {}  # process by job
        self.tasks = set()
        self.free = asyncio.Event()  # unless jobs are held in their middle
        self.free.set()
        self.held = 0

    def start(self, kind, instance_id, work, status="Building"):
        """A new job's id. @param work  coroutine of what it does, given the job"""
        job_id = str(uuid.uuid4())
        job = {"id": job_id, "name": kind, "status": status, "created": time.time(), "ended": None,
               "progress": "", "instance_id": instance_id, "fail_reason": ""}
        self.records.jobs[job_id] = job
        self.records.instances[instance_id]["busy"] = True
        self.records.save()
        task = asyncio.ensure_future(self._run(job, work))
        self.tasks.add(task)
        task.add_done_callback(self.tasks.discard)
        return job_id

    async def _run(self, job, work):
        try:
            await work(job)
            job["status"] = "Completed"
        except (Job_Error, OSError) as error:
            job.update(status="Failed", fail_reason=str(error))
        job.update(ended=time.time(), progress="")
        self.records.instances[job["instance_id"]]["busy"] = False
        self.records.save()

    async def stop(self, job_id):
        """Ends a job's process, which fails it."""
        if job_id in self.workers:
            os.killpg(self.workers[job_id].pid, signal.SIGKILL)

    # --- what jobs do

    async def _work(self, job, instance, order):
        """Has a worker carry out an order; its result. Raises Job_Error."""
        own = Instance(instance["user"], instance["port"])
        owner = pwd.getpwnam(own.user)
        process = await asyncio.create_subprocess_exec(
            WORKER, stdin=asyncio.subprocess.PIPE, stdout=asyncio.subprocess.PIPE, stderr=self.log,
            limit=1 << 28, user=owner.pw_uid, group=owner.pw_gid, extra_groups=[], cwd="/",
            env=own.environment(), start_new_session=True)
        self.workers[job["id"]] = process
        order.update(user=own.user, port=own.port)
        process.stdin.write(json.dumps(order).encode() + b"\n")
        answer = {}
        try:
            while line := await process.stdout.readline():
                answer = json.loads(line)
                if "started" in answer:
                    job["status"] = "Running"
                elif "progress" in answer:
                    job["progress"] = "%d%%" % answer["progress"]
                elif "ready" in answer:
                    await self._pass(process)
        except OSError:
            pass  # its end tells more
        finally:
            await process.wait()
            del self.workers[job["id"]]
        if "result" not in answer:
            raise Job_Error(answer.get("error", "The operation was stopped."))
        return answer["result"]

    async def hold_until(self, event):
        self.held += 1
        try:
            await event.wait()
        finally:
            self.held -= 1

    async def _pass(self, process):
        """Lets a worker go on, as soon as none is held."""
        ended = asyncio.ensure_future(process.wait())
        free = asyncio.ensure_future(self.hold_until(self.free))
        await asyncio.wait({ended, free}, return_when=asyncio.FIRST_COMPLETED)
        free.cancel()
        if not ended.done():
            process.stdin.write(b"go\n")

    async def change_medium(self, job):
        """Only when the route leads to a service."""
        instance = self.records.instances[job["instance_id"]]
        way = route_of(instance)
        _, writer = await asyncio.wait_for(
            asyncio.open_connection(way["hosts"][0], way["port"], family=socket.AF_INET), 10)
        writer.close()
        instance["medium"] = "xbsa"

    async def back_up(self, job, backup):
        """@param backup  the new record, whose `chain` names what a log backup depends on"""
        instance = self.records.instances[job["instance_id"]]
        order = {"id": backup["id"], "way": dict(route_of(instance), policy=instance["extend"]["BackupSet"])}
        try:
            result = await self._work(job, instance, dict(order, **self._order(instance, backup)))
        except (Job_Error, OSError):
            backup.update(status="FAILED", end=int(time.time()))
            raise
        manifest = result.pop("manifest", None)
        if manifest:
            self.records.keep_manifest(manifest)
        backup.update(result, status="COMPLETED")
        instance["history"].append(backup["id"])

    def _order(self, instance, backup):
        physical = [key for key in instance["history"] if self.records.is_physical(key)]
        if backup["backup_type"] == "completed":
            return {"kind": "physical", "chains": []}
        if backup["backup_type"] == "differential":
            return {"kind": "physical", "chains": [self.records.chain(key) for key in reversed(physical)]}
        full = [key for key in backup["chain"] if self.records.is_physical(key)][0]
        logs = [self.records.backups[key] for key in backup["chain"] if not self.records.is_physical(key)]
        ends = [one["end"] for one in logs] or [self.records.backups[full]["end"]]
        return {"kind": "log", "begin": max([instance["branch_start"], *ends]),
                "segments": [name for one in logs for name in one["segments"]],
                "first_segment": self.records.manifest(full)["first_segment"]}

    async def restore(self, job, source, base, log, target_text):
        """@param base, log  keys of the physical and the log backup that are wanted; `log` may be None"""
        instance = self.records.instances[job["instance_id"]]
        taken = [one for one in self.records.backups[log]["chain"] if not self.records.is_physical(one)] \
            + [log] if log else []
        logs = [self.records.backups[one] for one in taken]
        own = instance["extend"].get("BackupSet")
        policy = "%s_%s" % (source["extend"]["BackupSet"], own[len("tpops_"):] if own else "*")
        instance["status"] = "restoring"
        try:
            result = await self._work(job, instance, {
                "kind": "restore", "id": base, "way": dict(route_of(source), policy=policy),
                "chain": self.records.chain(base), "target": target_text,
                "logs": [{"id": one["id"], "objects": one["objects"]} for one in logs]})
        finally:
            del instance["status"]
        before = source["history"] if source is instance else []
        used = set(taken) | {manifest["key"] for manifest in self.records.chain(base)}
        if log:
            used |= {one for one in self.records.backups[log]["chain"] if one <= base}
        instance["history"] = [key for key in before if key in used]
        instance["branch_start"] = result["end"]

    def describe(self, job):
        """As the interface shows it."""
        instance = self.records.instances[job["instance_id"]]
        return {"id": job["id"], "name": job["name"], "status": job["status"],
                "created": utc(job["created"]), "ended": utc(job["ended"]) if job["ended"] else None,
                "progress": job["progress"], "fail_reason": job["fail_reason"],
                "instance": {"id": job["instance_id"], "name": instance["name"]}}


def utc(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime("%Y-%m-%d %H:%M:%S UTC")
