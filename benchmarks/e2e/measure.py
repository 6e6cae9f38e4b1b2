"""What a step costs: wall time, CPU time of every process of the machine, and their peak of memory.

The private machine has a process table of its own, and its first process takes over what others leave
behind, so the CPU time is exact without control groups: what lives now, and what the living have waited
for. Our own thread that looks at the memory is left out, our children are not.
"""
import os
import threading
import time

TICK = os.sysconf("SC_CLK_TCK")
SAMPLES_A_SECOND = 2  # looking through the maps of all processes is work itself
TICKS_OF_SELF = 2  # the first of the four fields that the children's follow


def processes():
    return [name for name in os.listdir("/proc") if name.isdigit()]


def cpu_seconds():
    total = 0
    for name in processes():
        try:
            with open("/proc/%s/stat" % name) as stat:
                ticks = [int(word) for word in stat.read().rsplit(") ", 1)[1].split()[11:15]]
        except OSError:
            continue
        total += sum(ticks[TICKS_OF_SELF:] if int(name) == os.getpid() else ticks)
    return total / TICK


def memory_bytes():
    """The memory of all processes but this one, shared pages counted once."""
    total = 0
    for name in processes():
        if int(name) == os.getpid():
            continue
        try:
            with open("/proc/%s/smaps_rollup" % name) as rollup:
                for line in rollup:
                    if line.startswith("Pss:"):
                        total += int(line.split()[1]) * 1024
        except OSError:
            pass  # it has ended
    return total


class Figures(object):
    """@param wall, cpu  seconds; memory  bytes above what was used before"""

    def __init__(self, wall, cpu, memory):
        self.wall, self.cpu, self.memory = wall, cpu, memory


class Measure(object):
    """with Measure() as measure: ...; then measure.figures"""

    def __enter__(self):
        os.sync()  # what an earlier step has left to be written is not this one's
        self._base = self._peak = memory_bytes()
        self._over = threading.Event()
        self._watcher = threading.Thread(target=self._watch, daemon=True)
        self._cpu = cpu_seconds()
        self._start = time.monotonic()
        self._watcher.start()
        return self

    def _watch(self):
        while not self._over.wait(1 / SAMPLES_A_SECOND):
            self._peak = max(self._peak, memory_bytes())

    def __exit__(self, *_):
        wall = time.monotonic() - self._start
        self._over.set()
        self._watcher.join()
        self.figures = Figures(wall, cpu_seconds() - self._cpu, self._peak - self._base)


def mean(figures):
    count = len(figures)
    return Figures(sum(one.wall for one in figures) / count, sum(one.cpu for one in figures) / count,
                   max(one.memory for one in figures))


def in_turn(repetitions, *steps):
    """Runs the steps forwards and backwards, so that what drifts meets all of them: the mean of each.

    @param steps  each is called, and returns Figures
    """
    figures = [[] for _ in steps]
    for turn in range(repetitions):
        order = range(len(steps)) if turn % 2 == 0 else reversed(range(len(steps)))
        for number in order:
            figures[number].append(steps[number]())
    return [mean(each) for each in figures]
