#!/usr/bin/python3
"""The platform's server: its REST interface over TLS, and a control channel that only tests see.

    server.py DIRECTORY

The control channel is the socket DIRECTORY/control. It takes one JSON object a line, and answers each with
one:

    {"rules": [...]}         what goes wrong, in place of the rules before. A rule: {"endpoint": name, "do":
                             action, "when": "before" or "after" the call has been carried out ("before" unless
                             given), "skip": calls that pass first (0), "count": calls that it is for (1; 0: all)}
    {"down": true | false}   closes the port and all connections; opens the port again
    {"certificate": name}    serves "good" or "wrong_name", whose certificate is another host's
    {"token_seconds": n}     how long new tokens are valid
    {"tokens": "expire" | "revoke"}
    {"password": [user, password]}
    {"medium": name}         of all instances
    {"hold": true | false}   holds jobs in their middle; lets them go on
    {"report": true}         {"requests", "down", "held", "busy"}; each request has "endpoint", "query",
                             "body", "status" and "user"
    {"forget": true}         forgets the requests

An action is {"status": n}, {"body": text}, "hang", "cut", "down", after which the port stays closed, or "wait",
which holds the call until the next order "rules".
"""
import asyncio
import inspect
import json
import os
import ssl
import sys
import uuid

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path[:0] = [os.path.join(HERE, ".."), os.path.join(HERE, "../tools")]
sys.dont_write_bytecode = True
from aiohttp import web  # noqa: E402
from tpops_platform.api import Api, Refused, find_endpoint  # noqa: E402
from tpops_platform.jobs import Jobs  # noqa: E402
from tpops_platform.records import Records  # noqa: E402


class Faults(object):
    def __init__(self):
        self.rules = []

    def take(self, endpoint, when):
        """The action for a call, or None."""
        for rule in self.rules:
            if rule["endpoint"] != endpoint or rule.get("when", "before") != when or rule.get("count") == -1:
                continue
            if rule.get("skip", 0):
                rule["skip"] -= 1
                return None
            count = rule.get("count", 1)
            rule["count"] = -1 if count == 1 else max(count - 1, 0)
            return rule["do"]
        return None


class Server(object):
    def __init__(self, directory):
        self.directory = directory
        self.records = Records(directory)
        self.jobs = Jobs(self.records, open(os.path.join(directory, "workers.log"), "ab"))
        self.api = Api(self.records, self.jobs)
        self.faults, self.requests, self.certificate = Faults(), [], "good"
        self.site, self.new_rules = None, asyncio.Event()
        application = web.Application()
        application.router.add_route("*", "/{path:.*}", self.handle)
        self.runner = web.AppRunner(application, access_log=None)

    async def run(self):
        await self.runner.setup()
        await self.up()
        await asyncio.start_unix_server(self.control, os.path.join(self.directory, "control"))
        await asyncio.Event().wait()

    async def up(self):
        if self.site:
            return
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        path = os.path.join(self.directory, self.certificate)
        context.load_cert_chain(path + ".pem", path + ".key")
        address, port = self.records.listen
        self.site = web.TCPSite(self.runner, address, port, ssl_context=context, reuse_address=True)
        await self.site.start()

    def close_port(self):
        if self.site:
            # its own way to end would wait for the connections
            site, self.site = self.site, None
            site._server.close()
            self.runner._unreg_site(site)

    def down(self):
        self.close_port()
        for connection in self.runner.server.connections:
            if connection.transport and not connection.transport.is_closing():
                connection.transport.abort()

    # --- a call

    async def handle(self, request):
        content = await request.read()
        seen = {"endpoint": None, "path": request.rel_url.raw_path, "query": request.rel_url.raw_query_string,
                "body": content.decode(errors="replace"), "status": None, "user": None}
        self.requests.append(seen)
        endpoint = None
        try:
            endpoint, parts = find_endpoint(request.method, request.raw_path.partition("?")[0])
            seen["endpoint"] = endpoint.name
            action = self.faults.take(endpoint.name, "before")
            if action == "wait":
                await self.jobs.hold_until(self.new_rules)
                action = None
            if action is not None:
                return await self.go_wrong(request, seen, action)
            status, body = 200, await self.call(request, endpoint, parts, content, seen)
        except Refused as refused:
            status, body = refused.status, refused.body
        # one whose token is refused will be made again
        action = self.faults.take(endpoint.name, "after") if endpoint and status != 401 else None
        if action == "down":
            self.close_port()
            response = await self.answer(request, seen, status, body)
            self.down()
            return response
        if action is not None:
            return await self.go_wrong(request, seen, action)
        return await self.answer(request, seen, status, body)

    async def call(self, request, endpoint, parts, content, seen):
        if endpoint.needs_token:
            seen["user"] = self.api.tokens.check(request.headers.get("X-Mini-Token", ""))
        query = endpoint.read_query(request.raw_path.partition("?")[2])
        given = [query]
        if endpoint.body is not None:
            given.append(endpoint.read_body(content, request.content_type))
        else:
            endpoint.read_body(content, None)
        result = getattr(self.api, endpoint.name)(*given, *parts)
        return await result if inspect.isawaitable(result) else result

    async def answer(self, request, seen, status, body):
        """Sends the answer to its end."""
        seen["status"] = status
        text = body if isinstance(body, str) else json.dumps(body)
        response = web.Response(status=status, text=text, content_type="application/json",
                                headers={"X-TRACE-ID": uuid.uuid4().hex})
        await response.prepare(request)
        await response.write_eof()
        return response

    async def go_wrong(self, request, seen, action):
        if action == "hang":
            await asyncio.Event().wait()  # until the connection ends
        if action == "down":
            self.down()
        if action in ("cut", "down"):
            if request.transport:
                request.transport.abort()
            raise asyncio.CancelledError
        if "status" in action:
            return await self.answer(request, seen, action["status"], {
                "errCode": "DBS.280500", "externalMessage": "The request cannot be served."})
        return await self.answer(request, seen, 200, action["body"])

    # --- the control channel

    async def control(self, reader, writer):
        try:
            while line := await reader.readline():
                writer.write(json.dumps(await self.obey(json.loads(line))).encode() + b"\n")
                await writer.drain()
        finally:
            writer.close()

    async def obey(self, order):
        word, value = next(iter(order.items()))
        if word == "rules":
            self.faults.rules = value
            self.new_rules.set()
            self.new_rules = asyncio.Event()
        elif word == "down":
            if value:
                self.down()
            else:
                await self.up()
        elif word == "certificate":
            self.certificate = value
            self.down()
            await self.up()
        elif word == "token_seconds":
            self.api.tokens.seconds = value
        elif word == "tokens":
            getattr(self.api.tokens, value)()
        elif word == "password":
            self.records.accounts[value[0]] = value[1]
        elif word == "medium":
            for one in self.records.instances.values():
                one["medium"] = value
        elif word == "hold":
            (self.jobs.free.clear if value else self.jobs.free.set)()
        elif word == "forget":
            self.requests.clear()
        return {"requests": self.requests, "down": not self.site, "held": self.jobs.held,
                "busy": [one["name"] for one in self.records.instances.values() if one["busy"]]}


if __name__ == "__main__":
    asyncio.run(Server(sys.argv[1]).run())
