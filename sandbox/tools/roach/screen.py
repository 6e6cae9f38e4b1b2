"""What the tool shows while it works. Its status lines are redrawn by control sequences."""
import sys

HOME_LINE = "\x1b[1A\x1b[2K\x1b[1G"
START_LINE = "\x1b[2K\x1b[1G"


def say(text):
    print(text, flush=True)


class Progress(object):
    """One line for each machine with data nodes, redrawn in its place."""

    def __init__(self, total, machines):
        """@param machines  number and address of each"""
        self.total = total
        self.machines = machines
        self.shown = None

    def show(self, done):
        """@return the percent when it has changed, else None"""
        # what grows or goes meanwhile may make more or less of it
        hundredths = 10000 if not self.total else min(10000, done * 10000 // self.total)
        if hundredths == self.shown:
            return None
        text = ""
        if self.shown is not None:
            text += HOME_LINE * len(self.machines)
        self.shown = hundredths
        for number, address in self.machines:
            text += START_LINE + "N%d %s: %d.%02d%% COMPLETED\n" % (
                number, address, hundredths // 100, hundredths % 100)
        sys.stdout.write(text)
        sys.stdout.flush()
        return hundredths // 100


def marked(text):
    """A line of the master, which ends the redrawn ones."""
    say(START_LINE + text)
