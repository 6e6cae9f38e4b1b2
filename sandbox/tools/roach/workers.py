"""Worker processes that move the data. Each has a session of the store of its own."""
import ctypes
import multiprocessing
import multiprocessing.connection
import os
import signal
import sys
import time

from roach.cluster import Tool_Error

PR_SET_PDEATHSIG = 1


def end_by_signal(*numbers):
    """Lets the first of these signals end what runs, and none of them what cleans up behind it."""
    def ended(_signal, _frame):
        for number in numbers:
            signal.signal(number, signal.SIG_IGN)
        raise Tool_Error("[GAUSS-53214] : The operation was ended by a signal.")
    for number in numbers:
        signal.signal(number, ended)


def ignore_signals():
    """From now on nothing ends what cleans up."""
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)


class Worker(object):
    """What a worker sees: its number, what it has done, and the way to its master."""

    def __init__(self, number, done, next_unit, pipe):
        self.number = number
        self.pipe = pipe
        self._done = done
        self._next_unit = next_unit

    def take(self, units):
        """The units that no other worker has taken."""
        while True:
            with self._next_unit.get_lock():
                number = self._next_unit.value
                self._next_unit.value += 1
            if number >= len(units):
                return
            yield units[number]

    def add(self, count):
        """Bytes that are done, for the progress."""
        self._done[self.number] += count

    def report_and_wait(self, result):
        """Tells the master the result and waits until all workers have one: True to go on."""
        self.pipe.send(("ready", result))
        return self.pipe.recv() == "commit"


def _body(main, worker, others):
    # the master may be killed: what it has begun must not go on without it
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    def ended(_signal, _frame):
        raise Tool_Error("[GAUSS-53206] : The worker process was ended.")
    signal.signal(signal.SIGTERM, ended)
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    # while a worker has its master's ends of pipes, it does not see that the master has closed them
    for pipe in others:
        pipe.close()
    try:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGTERM})
        main(worker)
        worker.pipe.send(("done", None))
    except (Tool_Error, OSError, EOFError) as error:
        # the master may end it now, for another's failure: what it has to tell comes to its end
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
        try:
            worker.pipe.send(("failed", str(error)))
        except OSError:
            pass  # the master has given up


def gather(pipes, wanted, handle_progress=None, tick=None):
    """Waits for that message from each pipe; the results in the pipes' order. Raises Tool_Error with
    the first failure.

    @param handle_progress  called with the pipe and the value of each message of progress
    @param tick             called about five times a second
    """
    results = {}
    last = 0
    while len(results) < len(pipes):
        waiting = [pipe for number, pipe in enumerate(pipes) if number not in results]
        for pipe in multiprocessing.connection.wait(waiting, 0.2):
            try:
                kind, value = pipe.recv()
            except (EOFError, OSError):
                gone = getattr(pipe, "gone", None)
                kind, value = "failed", (gone() if gone else
                                         "[GAUSS-53206] : A worker process ended unexpectedly.")
            if kind == "progress":
                if handle_progress:
                    handle_progress(pipe, value)
            elif kind != wanted:
                raise Tool_Error(value)
            else:
                results[pipes.index(pipe)] = value
        if tick and time.monotonic() - last >= 0.2:
            last = time.monotonic()
            tick()
    return [results[number] for number in range(len(pipes))]


class Crew(object):
    """Runs main(worker) in several processes and follows them, and agents of other machines with them.

    @param progress  called with the bytes done here and the agents' progress by their machines'
                     numbers, about five times a second
    @param remotes   the agents
    """

    def __init__(self, count, main, progress, remotes=()):
        context = multiprocessing.get_context("fork")
        self.done = multiprocessing.RawArray("Q", count)
        next_unit = context.Value("Q", 0)
        self.progress = progress
        self.pipes, self.processes = [], []
        sys.stdout.flush()
        # a worker that is told to end before it has begun must not miss it: what Python notes of a
        # signal it forgets in a new process
        mask = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
        for number in range(count):
            ours, theirs = context.Pipe()
            self.pipes.append(ours)
            process = context.Process(
                target=_body, args=(main, Worker(number, self.done, next_unit, theirs), self.pipes))
            process.start()
            theirs.close()
            self.processes.append(process)
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)
        self.own = list(self.pipes)
        self.pipes += remotes
        self.others = {one.number: 0 for one in remotes}

    def gather(self, wanted):
        """Waits for that message of every worker; the results, by worker. Raises Tool_Error with
        the first failure."""
        def show():
            self.progress(sum(self.done), self.others)

        def handle(remote, hundredths):
            self.others[remote.number] = hundredths
        results = gather(self.pipes, wanted, handle, show)
        show()
        return results

    def tell(self, word):
        for pipe in self.pipes:
            pipe.send(word if pipe in self.own else (word, None))

    def close(self):
        """Waits for the workers. Those that still work are told to give up what they have begun."""
        for pipe in self.own:
            pipe.close()
        for process in self.processes:
            if sys.exc_info()[0] is not None and process.is_alive():
                process.terminate()
        for process in self.processes:
            process.join(60)
            if process.is_alive():
                process.kill()
                process.join()
