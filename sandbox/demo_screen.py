"""What the demos of a world of machines share: what they print, and how they begin and end."""
import argparse
import os
import subprocess
import sys
import time

BOLD, PLAIN = ("\x1b[1m", "\x1b[0m") if sys.stdout.isatty() else ("", "")


class Failure(Exception):
    pass


def title(text):
    print("\n%s== %s%s" % (BOLD, text, PLAIN), flush=True)


def count_rows(texts):
    """Rows and tables of what "checksums" has printed."""
    tables = [line.split() for text in texts for line in text.splitlines()]
    return sum(int(line[3]) for line in tables), len(tables)


class Demo_Screen(object):
    """@param world  a World, with the host `ours` that has the agent"""

    def __init__(self, world):
        self.world, self.summary = world, []

    def show(self, host, *words, text=None, **options):
        """Prints a command, runs it on a machine for all to see; the seconds that it took."""
        shown = text or " ".join(words)
        print("%s%s$ %s%s" % (BOLD, host.name, " " + shown, PLAIN), flush=True)
        start = time.monotonic()
        if subprocess.run(host.words(*words), **options).returncode:
            raise Failure("`%s` failed" % shown)
        return time.monotonic() - start

    def product(self, *words, **options):
        return self.show(self.world.ours, "zenbrak3", *words, **options)

    @staticmethod
    def on_cluster(name, what, action):
        print("%s%s: %s%s" % (BOLD, name, what, PLAIN), flush=True)
        return action()

    @staticmethod
    def compare(before, after, what):
        """Of each server what "checksums" has printed."""
        if before != after:
            lines = [set("\n".join(one).splitlines()) for one in (before, after)]
            raise Failure("rows differ: %s" % "; ".join(sorted(lines[0] ^ lines[1])[:4]))
        rows, tables = count_rows(after)
        print("%d rows of %d tables compared: all are there" % (rows, tables), flush=True)
        return "%s: %d rows compared" % (what, rows)

    def add(self, what, seconds, more=""):
        self.summary.append("%-42s %6.1f s  %s" % (what, seconds, more))

    def backup(self, name, *words):
        """The record of a new set."""
        seconds = self.product("backup", name, "--pool", "main", "--channels", "2", *words)
        record = self.world.sets()[0]
        self.add(record["type"] + " backup", seconds, "%.1f MiB" % (record["backup_set_size"] / 2 ** 20))
        return record

    def print_summary(self):
        title("Summary")
        print("\n".join(self.summary))


def parser(usage):
    made = argparse.ArgumentParser(usage=usage)
    made.add_argument("--build", required=True)
    made.add_argument("--size", type=float, default=60)
    made.add_argument("--keep", action="store_true")
    return made


def run_demo(options, make_world, steps):
    """The exit status. @param steps  called with the world"""
    start, world, status = time.monotonic(), None, 1
    try:
        world = make_world(os.path.realpath(options.build))
        steps(world)
        print("\n%.0f seconds in all, and every row is there." % (time.monotonic() - start))
        status = 0
    except (Failure, AssertionError, OSError, subprocess.SubprocessError, ValueError, LookupError) as failure:
        print("\n%sThe demo failed: %s%s" % (BOLD, failure, PLAIN), file=sys.stderr)
    finally:
        if world:
            if options.keep:
                print("\nThis is a shell on the agent's machine; the machines go with it.")
                subprocess.call(world.ours.words("bash"))
            world.clean()
    return status
