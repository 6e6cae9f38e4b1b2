"""The user whom a cluster of the sandbox belongs to, and what is run as that user."""
import os
import pwd
import subprocess
import sys

POSTGRES = "/usr/lib/postgresql/15/bin"


def quiet(*command, **options):
    """Runs a program; its output is shown only when it fails, which ends ours."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if done.returncode:
        sys.stderr.write(done.stdout.decode(errors="replace"))
        sys.exit("cluster: %s failed" % command[0])


def environment(where):
    """The variables of the cluster's profile, as a login of its user has them."""
    text = subprocess.check_output(
        ["bash", "-c", "set -a; source %s; env -0" % where.profile],
        env={"PATH": os.environ["PATH"], "HOME": where.home, "USER": where.user, "LANG": "C.UTF-8"})
    return dict(entry.split("=", 1) for entry in text.decode().split("\0") if "=" in entry)


def as_user(where, command, **options):
    """Runs a program as the cluster's user, in its environment."""
    entry = pwd.getpwnam(where.user)
    options.setdefault("cwd", where.tools)
    return subprocess.run(command, user=entry.pw_uid, group=entry.pw_gid,
                          extra_groups=os.getgrouplist(where.user, entry.pw_gid),
                          env=environment(where), **options)


def checked(where, command, **options):
    done = as_user(where, command, **options)
    if done.returncode:
        sys.exit("cluster: %s: exit status %d" % (command[0], done.returncode))
    return done


def make_user(where):
    try:
        pwd.getpwnam(where.user)
        sys.exit("cluster: the user %s exists" % where.user)
    except KeyError:
        pass
    quiet("groupadd", "-f", "dbgrp")
    # no password, which is not the same as a locked user, whom sshd refuses
    quiet("useradd", "-g", "dbgrp", "-d", where.home, "-m", "-s", "/bin/bash", "-p", "*", where.user)


def run_alone(where, data, database, script):
    """Runs statements with the server for a single user, which takes one a line."""
    lines = [" ".join(line.split()) for line in script.split(";\n")]
    done = as_user(where, [POSTGRES + "/postgres", "--single", "-j", "-D", data, "-c", "exit_on_error=on",
                           database],
                   input=";\n\n".join(line for line in lines if line).encode() + b";\n\n",
                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode:
        sys.stderr.write(done.stdout.decode())
        sys.exit("cluster: the views could not be made")
