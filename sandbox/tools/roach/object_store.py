"""Where the data of a backup goes: objects with names, written in transactions.

    store = open_store(policy)
    store.begin(); writer = store.create(name, bytes); writer.send(memory); writer.end(); store.commit()
    store.begin(); names = store.names("20240101_000000/dn_6001/")         below a prefix
    reader = store.open(name); count = reader.read(memory); reader.end(); store.commit()

A transaction either writes or reads. A store belongs to the process that opened it and to one thread. All
failures are Store_Error. A name must not hold "*", "?" or a backslash.
"""
import ctypes
import os
import time

from roach.cluster import Tool_Error

MIB = 1024 * 1024


SMALLEST_BLOCK = 16384  # that anything here sends or reads


class Store_Error(Tool_Error):
    pass


# --- The Open Group's Backup Services API (C425): the types of its calls -----------------------------

BSA_RC_NO_MATCH, BSA_RC_NO_MORE_DATA = 0x11, 0x12
ANY, BACKUP, FILE, COMMIT, ABORT = 1, 3, 2, 1, 2
OBJECT_SPACE, OWNER = b"gaussdb", b"gs_roach"
VERSION = (1, 1, 0)


class Api_Version(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint16) for name in ("issue", "version", "level")]


class Tm(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int) for name in
                ("sec", "min", "hour", "mday", "mon", "year", "wday", "yday", "isdst")] + [
                    ("gmtoff", ctypes.c_long), ("zone", ctypes.c_char_p)]


class Object_Owner(ctypes.Structure):
    _fields_ = [("bsa", ctypes.c_char * 64), ("app", ctypes.c_char * 64)]


class Object_Name(ctypes.Structure):
    _fields_ = [("space", ctypes.c_char * 1024), ("path", ctypes.c_char * 1024)]


class Object_Descriptor(ctypes.Structure):
    _fields_ = [("rsv1", ctypes.c_uint32), ("owner", Object_Owner), ("name", Object_Name),
                ("create_time", Tm), ("copy_type", ctypes.c_int), ("copy_id", ctypes.c_uint64),
                ("restore_order", ctypes.c_uint64), ("rsv2", ctypes.c_char * 31),
                ("rsv3", ctypes.c_char * 31), ("estimated_size", ctypes.c_uint64),
                ("resource_type", ctypes.c_char * 31), ("object_type", ctypes.c_int),
                ("object_status", ctypes.c_int), ("rsv4", ctypes.c_char * 31),
                ("description", ctypes.c_char * 100), ("info", ctypes.c_ubyte * 256)]


class Query_Descriptor(ctypes.Structure):
    _fields_ = [("owner", Object_Owner), ("name", Object_Name), ("create_from", Tm),
                ("create_to", Tm), ("rsv1", Tm), ("rsv2", Tm), ("copy_type", ctypes.c_int),
                ("rsv3", ctypes.c_char * 31), ("rsv4", ctypes.c_char * 31),
                ("rsv5", ctypes.c_char * 31), ("object_type", ctypes.c_int),
                ("object_status", ctypes.c_int), ("rsv6", ctypes.c_char * 100)]


class Data_Block(ctypes.Structure):
    _fields_ = [("buffer_len", ctypes.c_uint32), ("num_bytes", ctypes.c_uint32),
                ("header_bytes", ctypes.c_uint32), ("share_id", ctypes.c_int),
                ("share_offset", ctypes.c_uint32), ("buffer", ctypes.c_void_p)]


def library_path():
    """The link that the agent places: among the cluster's libraries, or where they all look."""
    candidates = [os.path.join(os.environ.get("GAUSSHOME", ""), "lib/libsimsearch/libxbsa64.so"),
                  "/usr/openv/lib/libxbsa64.so"]
    for path in candidates:
        if os.path.exists(path):
            return path
    raise Store_Error("[GAUSS-53202] : There is no NBU library: none of %s exists."
                      % ", ".join(candidates))


class Xbsa_Store(object):
    """A session of the backup service that the NBU policy leads to."""

    def __init__(self, policy, path=None):
        path = path or library_path()
        try:
            self.library = ctypes.CDLL(path)
        except OSError as error:
            raise Store_Error("[GAUSS-53202] : Failed to load %s: %s" % (path, error))
        self.handle = ctypes.c_long()
        self.in_transaction = False
        version = Api_Version()
        self.call("BSAQueryApiVersion", ctypes.byref(version))
        if (version.issue, version.version, version.level) != VERSION:
            raise Store_Error("[GAUSS-53202] : %s has version %d.%d.%d of the API instead of %d.%d.%d."
                              % ((path, version.issue, version.version, version.level) + VERSION))
        keywords = (ctypes.c_char_p * 3)(b"BSA_API_VERSION=%d.%d.%d" % VERSION,
                                         b"NBBSA_POLICY=" + policy.encode(), None)
        owner = Object_Owner(app=OWNER)
        self.call("BSAInit", ctypes.byref(self.handle), None, ctypes.byref(owner), keywords)

    def call(self, name, *arguments, **expected):
        """Calls a function; every code but success and those of expected["more"] is a failure."""
        code = getattr(self.library, name)(*arguments)
        if code == 0 or code in expected.get("more", ()):
            return code
        size = ctypes.c_uint32(1024)
        text = ctypes.create_string_buffer(size.value)
        self.library.BSAGetLastError(ctypes.byref(size), text)
        raise Store_Error("[GAUSS-53203] : %s failed with 0x%02x %s"
                          % (name, code, text.value.decode(errors="replace")))

    def begin(self):
        self.call("BSABeginTxn", self.handle)
        self.in_transaction = True

    def commit(self):
        self.in_transaction = False
        self.call("BSAEndTxn", self.handle, COMMIT)

    def abort(self):
        if self.in_transaction:
            self.in_transaction = False
            self.call("BSAEndTxn", self.handle, ABORT)

    def close(self):
        self.call("BSATerminate", self.handle)

    def create(self, name, estimated_size):
        # an object that is announced as empty takes no data
        descriptor = Object_Descriptor(copy_type=BACKUP, estimated_size=max(estimated_size, 1),
                                       object_type=FILE)
        descriptor.owner.app = OWNER
        descriptor.name.space, descriptor.name.path = OBJECT_SPACE, b"/" + name.encode()
        descriptor.resource_type = b"gs_roach"
        wish = Data_Block()
        self.call("BSACreateObject", self.handle, ctypes.byref(descriptor), ctypes.byref(wish))
        self._check(wish)
        return Xbsa_Writer(self)

    @staticmethod
    def _check(wish):
        if wish.header_bytes or wish.buffer_len > SMALLEST_BLOCK:
            raise Store_Error("[GAUSS-53203] : The media want blocks with a header of %d bytes, of %d "
                              "bytes at least." % (wish.header_bytes, wish.buffer_len))

    def _query(self, pattern):
        """The copy id of the newest copy of each object whose path name matches, by path name."""
        query = Query_Descriptor(copy_type=ANY, object_type=ANY, object_status=ANY)
        query.owner.bsa, query.owner.app = b"*", OWNER
        query.name.space, query.name.path = OBJECT_SPACE, pattern.encode()
        found = {}
        descriptor = Object_Descriptor()
        code = self.call("BSAQueryObject", self.handle, ctypes.byref(query),
                         ctypes.byref(descriptor), more=(BSA_RC_NO_MATCH,))
        while code == 0:
            found.setdefault(descriptor.name.path.decode()[1:], descriptor.copy_id)
            code = self.call("BSAGetNextQueryObject", self.handle, ctypes.byref(descriptor),
                             more=(BSA_RC_NO_MORE_DATA,))
        return found

    def names(self, prefix):
        return set(self._query("/" + prefix + "*"))

    def open(self, name):
        found = self._query("/" + name)
        if name not in found:
            raise Store_Error("[GAUSS-53204] : The media have no object %s." % name)
        descriptor, wish = Object_Descriptor(copy_id=found[name]), Data_Block()
        self.call("BSAGetObject", self.handle, ctypes.byref(descriptor), ctypes.byref(wish))
        self._check(wish)
        return Xbsa_Reader(self, name)


class Xbsa_Writer(object):
    def __init__(self, store):
        self.store = store

    def send(self, memory):
        """Appends writable memory."""
        size = len(memory)
        start = ctypes.addressof(ctypes.c_char.from_buffer(memory))
        self.store.call("BSASendData", self.store.handle, ctypes.byref(
            Data_Block(buffer_len=size, num_bytes=size, buffer=start)))

    def end(self):
        self.store.call("BSAEndData", self.store.handle)


class Xbsa_Reader(object):
    def __init__(self, store, name):
        self.store = store
        self.name = name

    def read(self, memory):
        """Fills memory from its beginning; returns the count, 0 at the end of a whole object."""
        start = ctypes.addressof(ctypes.c_char.from_buffer(memory))
        block = Data_Block(buffer_len=len(memory), buffer=start)
        while True:
            try:
                code = self.store.call("BSAGetData", self.store.handle, ctypes.byref(block),
                                       more=(BSA_RC_NO_MORE_DATA,))
            except Store_Error as error:
                raise Store_Error("%s (object %s)" % (error, self.name))
            if code == BSA_RC_NO_MORE_DATA or block.num_bytes:
                return block.num_bytes

    def end(self):
        self.store.call("BSAEndData", self.store.handle)


# --- a plain directory, for tests of the tools alone ------------------------------------------------


class Directory_Store(object):
    """Objects are files; what is not committed has a name of its own."""

    def __init__(self, root):
        self.root = root
        self.pending = []

    def begin(self):
        self.pending = []

    def create(self, name, estimated_size):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        self.pending.append(path)
        return File_Writer(open(path + ".partial", "wb", buffering=0))

    def commit(self):
        for path in self.pending:
            os.rename(path + ".partial", path)
        self.pending = []

    def abort(self):
        for path in self.pending:
            os.unlink(path + ".partial")
        self.pending = []

    def close(self):
        self.abort()

    def names(self, prefix):
        top = os.path.join(self.root, os.path.dirname(prefix))
        found = set()
        for directory, _, names in os.walk(top):
            for name in names:
                relative = os.path.relpath(os.path.join(directory, name), self.root)
                if relative.startswith(prefix) and not name.endswith(".partial"):
                    found.add(relative)
        return found

    def open(self, name):
        try:
            return File_Reader(open(os.path.join(self.root, name), "rb", buffering=0))
        except OSError:
            raise Store_Error("[GAUSS-53204] : The media have no object %s." % name)


class File_Writer(object):
    def __init__(self, file):
        self.file = file
        # bytes a second, for a test that needs to meet a run half-way
        self.rate = int(os.environ.get("SANDBOX_OBJECT_RATE", 0))

    def send(self, memory):
        if self.rate:
            time.sleep(len(memory) / self.rate)
        rest = memoryview(memory)
        while rest:
            try:
                rest = rest[self.file.write(rest):]
            except OSError as error:
                raise Store_Error("[GAUSS-53203] : Failed to write to the media: %s" % error)

    def end(self):
        self.file.close()


class File_Reader(object):
    def __init__(self, file):
        self.file = file

    def read(self, memory):
        return self.file.readinto(memory)

    def end(self):
        self.file.close()


def open_store(policy):
    """A session for the policy, or for the way to a service that has one; the tests' directory instead
    where their environment names one."""
    directory = os.environ.get("SANDBOX_OBJECT_DIRECTORY")
    if directory:
        return Directory_Store(directory)
    if isinstance(policy, str):
        return Xbsa_Store(policy)
    from roach.remote import Remote_Store  # which needs this module
    return Remote_Store(policy)
