"""The cluster's static configuration: who its machines are and which instances they run.

The file is binary, little-endian and packed: a head of 28 bytes (checksum of the rest of the head,
length, version, time, number of machines, number of the local machine), then one page of 8192 bytes
for each machine (checksum of the rest of the page, id, names, priority, addresses, instances).
Text is NUL-padded to a fixed width.
"""
import struct
import time
import zlib

PAGE = 8192
HEAD = struct.Struct("<IIIqiI")
NODE = struct.Struct("<II64s64sI128s128sII")
INSTANCE = struct.Struct("<IIIII128s1024s")
VERSION = 201  # one primary with standbys

INSTANCE_ROLE_COORDINATOR = 3
INSTANCE_ROLE_DATANODE = 4
MASTER_INSTANCE = 0


class ConfigError(Exception):
    """The file is not a static configuration, or damaged."""


def _text(raw):
    return raw.rstrip(b"\0").decode()


class instanceInfo(object):
    def __init__(self, instanceId, role, port, address, datadir, mirrorId=0, instanceType=0):
        self.instanceId = instanceId
        self.instanceRole = role
        self.instanceType = instanceType
        self.mirrorId = mirrorId
        self.port = port
        self.listenIps = [address] if address else []
        self.datadir = datadir
        self.hostname = ""

    def pack(self):
        return INSTANCE.pack(self.instanceId, self.instanceRole, self.instanceType, self.mirrorId,
                             self.port, "".join(self.listenIps).encode(), self.datadir.encode())


class dbNodeInfo(object):
    def __init__(self, nodeId, name, address):
        self.id = nodeId
        self.name = name
        self.azName = "AZ1"
        self.azPriority = 1
        self.backIps = [address]
        self.sshIps = [address]
        self.cmservers = []
        self.gtms = []
        self.coordinators = []
        self.datanodes = []
        self.cmDataDir = ""

    def pack(self):
        body = NODE.pack(0, self.id, self.name.encode(), self.azName.encode(), self.azPriority,
                         self.backIps[0].encode(), self.sshIps[0].encode(),
                         len(self.coordinators), len(self.datanodes))[4:]
        for instance in self.coordinators + self.datanodes:
            body += instance.pack()
        if len(body) + 4 > PAGE:
            raise ConfigError("too many instances on %s" % self.name)
        body = body.ljust(PAGE - 4, b"\0")
        return struct.pack("<I", zlib.crc32(body)) + body


class dbClusterInfo(object):
    def __init__(self, checkSctpPort=False):
        self.name = ""
        self.appPath = ""
        self.logPath = ""
        self.dbNodes = []
        self.localNodeId = 0

    def initFromStaticConfig(self, user, static_config_file="", isLCCluster=False,
                             ignoreLocalEnv=False):
        self.initFromStaticConfigWithoutUser(static_config_file)

    def initFromStaticConfigWithoutUser(self, staticConfigFile):
        with open(staticConfigFile, "rb") as source:
            content = source.read()
        if len(content) < PAGE:
            raise ConfigError("%s is too short" % staticConfigFile)
        crc, length, version, _, count, self.localNodeId = HEAD.unpack_from(content)
        if crc != zlib.crc32(content[4:HEAD.size]) or version != VERSION \
                or length != len(content) or length != PAGE * (count + 1):
            raise ConfigError("%s is damaged" % staticConfigFile)
        self.dbNodes = [self._node(content[PAGE * number:PAGE * (number + 1)], staticConfigFile)
                        for number in range(1, count + 1)]

    @staticmethod
    def _node(page, path):
        (crc, node_id, name, az_name, az_priority, back_ip, ssh_ip, coordinators,
         datanodes) = NODE.unpack_from(page)
        if crc != zlib.crc32(page[4:]):
            raise ConfigError("%s is damaged" % path)
        node = dbNodeInfo(node_id, _text(name), _text(back_ip))
        node.azName, node.azPriority, node.sshIps = _text(az_name), az_priority, [_text(ssh_ip)]
        for number in range(coordinators + datanodes):
            instance_id, role, kind, mirror, port, address, datadir = INSTANCE.unpack_from(
                page, NODE.size + number * INSTANCE.size)
            instance = instanceInfo(instance_id, role, port, _text(address), _text(datadir), mirror,
                                    kind)
            instance.hostname = node.name
            (node.coordinators if number < coordinators else node.datanodes).append(instance)
        return node

    def saveToStaticConfig(self, filePath, localNodeId, dbNodes=None, upgrade=False):
        nodes = self.dbNodes if dbNodes is None else dbNodes
        body = HEAD.pack(0, PAGE * (len(nodes) + 1), VERSION, int(time.time()), len(nodes),
                         localNodeId)[4:]
        with open(filePath, "wb") as target:
            target.write((struct.pack("<I", zlib.crc32(body)) + body).ljust(PAGE, b"\0"))
            for node in nodes:
                target.write(node.pack())

    def getClusterNodeNames(self):
        return [node.name for node in self.dbNodes]

    def getClusterBackIps(self):
        return [node.backIps[0] for node in self.dbNodes]

    def getDbNodeByName(self, name):
        for node in self.dbNodes:
            if node.name == name:
                return node
        return None

    def isSingleNode(self):
        return len(self.dbNodes) == 1
