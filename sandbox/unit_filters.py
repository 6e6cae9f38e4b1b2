"""The system calls that a unit denies its service, as systemd's seccomp filters deny them: for sandbox/run_unit.

Filter takes the settings of a unit and loads one filter with libseccomp, for this process and all that come of it.
A value that is not handled here exactly as systemd handles it is a ValueError.
"""
import ctypes
import errno
import os
import socket
import subprocess

ALLOW, ERRNO, KILL = 0x7fff0000, 0x00050000, 0x80000000
BAD_ARCH, NO_NEW_PRIVILEGES = 2, 3  # attributes of a filter
NOT_EQUAL, LESS, EQUAL, GREATER, MASKED_EQUAL = 1, 2, 4, 6, 7
NAMESPACES = dict(cgroup=0x02000000, ipc=0x08000000, net=0x40000000, mnt=0x00020000, pid=0x20000000,
                  user=0x10000000, uts=0x04000000)
ORDINARY_POLICIES = (os.SCHED_OTHER, os.SCHED_BATCH, os.SCHED_IDLE)
LARGEST_POLICY = 6  # SCHED_DEADLINE
YES = "yes"


class Condition(ctypes.Structure):
    _fields_ = [("argument", ctypes.c_uint), ("operator", ctypes.c_int), ("value", ctypes.c_uint64),
                ("second", ctypes.c_uint64)]


def calls_of(group):
    """The names of a group of system calls such as @clock, by systemd itself."""
    done = subprocess.run(["systemd-analyze", "--no-pager", "syscall-filter", group], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True, env=dict(os.environ, SYSTEMD_COLORS="0"))
    words = [line.strip() for line in done.stdout.splitlines()[1:]]
    names = []
    for word in words:
        if word.startswith("@"):
            names += calls_of(word)
        elif word and not word.startswith("#"):
            names.append(word)
    if not names:
        raise ValueError("systemd knows no system calls of %s" % group)
    return names


class Filter(object):
    """Collects rules by set(), and puts them in force by load()."""

    def __init__(self):
        self.rules = []  # (name of a call, error, conditions)
        self.denied = []
        self.error = None
        self.native_only = False
        self.settings = {
            "LockPersonality": self.lock_personality, "RestrictAddressFamilies": self.restrict_families,
            "RestrictNamespaces": self.restrict_namespaces, "RestrictRealtime": self.restrict_realtime,
            "SystemCallArchitectures": self.restrict_architectures, "SystemCallErrorNumber": self.set_error,
            "SystemCallFilter": self.deny}

    def set(self, key, value):
        """False when the setting is none of a filter's."""
        if key not in self.settings:
            return False
        self.settings[key](value)
        return True

    @staticmethod
    def expect(value, only):
        if value != only:
            raise ValueError("%s: only %s is done here" % (value, only))

    def lock_personality(self, value):
        self.expect(value, YES)
        with open("/proc/self/personality") as file:
            present = int(file.read(), 16)
        self.rules.append(("personality", errno.EPERM, [(0, NOT_EQUAL, present)]))

    def restrict_realtime(self, value):
        self.expect(value, YES)
        for policy in range(LARGEST_POLICY + 1):
            if policy not in ORDINARY_POLICIES:
                self.rules.append(("sched_setscheduler", errno.EPERM, [(1, EQUAL, policy)]))
        self.rules.append(("sched_setscheduler", errno.EPERM, [(1, GREATER, LARGEST_POLICY)]))

    def restrict_architectures(self, value):
        self.expect(value, "native")
        self.native_only = True

    def restrict_families(self, value):
        families = sorted(getattr(socket, name) for name in value.split())  # fails for a "~"
        denied = [(LESS, families[0]), (GREATER, families[-1])]
        denied += [(EQUAL, family) for family in range(families[0], families[-1]) if family not in families]
        for operator, family in denied:
            self.rules.append(("socket", errno.EAFNOSUPPORT, [(0, operator, family)]))

    def restrict_namespaces(self, value):
        kept = [] if value == YES else value.split()
        unknown = set(kept) - set(NAMESPACES)
        if unknown:
            raise ValueError("%s: unknown: %s" % (value, " ".join(sorted(unknown))))
        # its flags are in memory, where no filter can look; the C library then takes clone()
        self.rules.append(("clone3", errno.ENOSYS, []))
        self.rules.append(("setns", errno.EPERM, [(1, EQUAL, 0)]))
        for name in set(NAMESPACES) - set(kept):
            flag = NAMESPACES[name]
            for call, argument in (("unshare", 0), ("clone", 0), ("setns", 1)):
                self.rules.append((call, errno.EPERM, [(argument, MASKED_EQUAL, flag, flag)]))

    def set_error(self, value):
        self.error = getattr(errno, value)

    def deny(self, value):
        if not value.startswith("~"):
            raise ValueError("%s: only a list of what is denied, ~..., is done here" % value)
        for word in value[1:].split():
            self.denied += calls_of(word) if word.startswith("@") else [word]

    def load(self):
        """Puts the filter in force. Raises OSError if the kernel refuses it."""
        if not self.rules and not self.denied and not self.native_only:
            return
        library = ctypes.CDLL("libseccomp.so.2")
        library.seccomp_init.restype = ctypes.c_void_p
        context = ctypes.c_void_p(library.seccomp_init(ctypes.c_uint32(ALLOW)))

        def checked(result):
            if result < 0:
                raise OSError(-result, "libseccomp: %s" % os.strerror(-result))
        checked(library.seccomp_attr_set(context, NO_NEW_PRIVILEGES, 0))
        checked(library.seccomp_attr_set(context, BAD_ARCH,
                                         ctypes.c_uint32(KILL if self.native_only else ALLOW)))
        # systemd kills unless an error is given
        denial = KILL if self.error is None else ERRNO | self.error
        for name, action, conditions in \
                [(name, ERRNO | error, conditions) for name, error, conditions in self.rules] + \
                [(name, denial, []) for name in sorted(set(self.denied))]:
            number = library.seccomp_syscall_resolve_name(name.encode())
            if number < 0:
                continue  # not on this kind of processor
            array = (Condition * len(conditions))(*[Condition(*condition) for condition in conditions])
            checked(library.seccomp_rule_add_array(context, ctypes.c_uint32(action), number, len(conditions),
                                                   array))
        checked(library.seccomp_load(context))
        library.seccomp_release(context)
