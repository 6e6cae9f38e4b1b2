"""What the tool shows while it works. Its status lines are redrawn by control sequences."""
import sys

HOME_LINE = "\x1b[1A\x1b[2K\x1b[1G"
START_LINE = "\x1b[2K\x1b[1G"


def say(text):
    print(text, flush=True)


class Progress(object):
    """One line for each machine with data nodes, redrawn in its place."""

    def __init__(self, total, machines, master=None):
        """@param machines  number and address of each
        @param master  who shows it instead, when this is an agent's"""
        self.master = master
        self.total = total
        self.machines = machines
        self.shown = None

    def show(self, done, others=None):
        """@param others  hundredths of a percent, by number, of machines that count for themselves
        @return the percent of this machine when anything has changed, else None"""
        # what grows or goes meanwhile may make more or less of it
        hundredths = 10000 if not self.total else min(10000, done * 10000 // self.total)
        shown = [(others or {}).get(number, hundredths) for number, _ in self.machines]
        if shown == self.shown:
            return None
        if self.master:
            self.shown = shown
            self.master.tell("progress", hundredths)
            return hundredths // 100
        text = ""
        if self.shown is not None:
            text += HOME_LINE * len(self.machines)
        self.shown = shown
        for (number, address), part in zip(self.machines, shown):
            text += START_LINE + "N%d %s: %s%% COMPLETED\n" % (
                number, address, "100" if part == 10000 else "%d.%02d" % divmod(part, 100))
        sys.stdout.write(text)
        sys.stdout.flush()
        return hundredths // 100


def marked(text):
    """A line of the master, which ends the redrawn ones."""
    say(START_LINE + text)
