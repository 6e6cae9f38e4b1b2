"""The pieces of a backup set: compressed streams of frames, and the head that names them."""
import errno
import hashlib
import json
import os
import subprocess
import zlib

from zengine_tools.instance import failed

HEAD = "backupset"


def write_failed(path, error):
    if isinstance(error, FileExistsError):
        return failed(3, "Failed to create the file %s, the error code was %d" % (path, error.errno))
    return failed(5, "Failed to write the file %s, the error code was %d: %s"
                  % (path, error.errno or 0, error.strerror))


class Piece_Writer(object):
    """One piece, made anew. Its bytes are on the disk when end() returns."""

    def __init__(self, path, method, level):
        self.path = path
        self.tool = None
        try:
            self.out = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o600)
        except OSError as error:
            raise write_failed(path, error)
        if method == "zstd":
            self.tool = subprocess.Popen(["zstd", "-q", "-%d" % level, "-c"], stdin=subprocess.PIPE,
                                         stdout=self.out, stderr=subprocess.PIPE)
        else:
            self.stream = zlib.compressobj(level)

    def send(self, memory):
        try:
            if self.tool:
                self.tool.stdin.write(memory)
            else:
                self._write(self.stream.compress(memory))
        except BrokenPipeError:
            self._tool_failed()
        except OSError as error:
            raise write_failed(self.path, error)

    def _write(self, content):
        while content:
            content = content[os.write(self.out, content):]

    def _tool_failed(self):
        text = self.tool.stderr.read().decode(errors="replace").strip()
        self.tool.wait()
        code = errno.ENOSPC if "No space left" in text else errno.EIO
        raise write_failed(self.path, OSError(code, text or os.strerror(code)))

    def end(self):
        try:
            if self.tool:
                self.tool.stdin.close()
                if self.tool.wait():
                    self._tool_failed()
                self.tool.stderr.close()
            else:
                self._write(self.stream.flush())
            os.fsync(self.out)
            os.close(self.out)
        except BrokenPipeError:
            self._tool_failed()
        except OSError as error:
            raise write_failed(self.path, error)


class Piece_Reader(object):
    """The frames of a piece, as roach.frames reads them."""

    def __init__(self, path, method):
        self.path = path
        self.tool = None
        self.rest = b""
        try:
            self.file = open(path, "rb")
        except OSError as error:
            raise failed(2, "Failed to open the file %s, the error code was %d" % (path, error.errno))
        if method == "zstd":
            self.tool = subprocess.Popen(["zstd", "-q", "-d", "-c"], stdin=self.file,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        else:
            self.stream = zlib.decompressobj()

    def read(self, room):
        """How many bytes were put into the room; 0 at the end of a piece that is whole."""
        if self.tool:
            count = self.tool.stdout.readinto(room)
            if count == 0 and self.tool.wait():
                self._damaged(self.tool.stderr.read().decode(errors="replace").strip())
            return count
        try:
            while not self.rest and not self.stream.eof:
                content = self.stream.unconsumed_tail or self.file.read(1 << 18)
                if not content:
                    self._damaged("unexpected end")
                self.rest = self.stream.decompress(content, 1 << 18)
        except (zlib.error, OSError) as error:
            self._damaged(error)
        count = min(len(room), len(self.rest))
        room[:count] = self.rest[:count]
        self.rest = self.rest[count:]
        return count

    def _damaged(self, reason):
        raise failed(114, "Failed to decompress the file %s: %s" % (self.path, reason))

    def end(self):
        if self.tool:
            self.tool.stdout.close()
            self.tool.stderr.close()
            self.tool.wait()
        self.file.close()


def write_head(directory, head):
    """The head comes last: a directory without it is not a backup set."""
    text = json.dumps(head)
    path = os.path.join(directory, HEAD)
    try:
        with open(path, "x", opener=lambda name, flags: os.open(name, flags, 0o600)) as out:
            out.write("%s\n%s\n" % (text, hashlib.sha256(text.encode()).hexdigest()))
            out.flush()
            os.fsync(out.fileno())
    except OSError as error:
        raise write_failed(path, error)


def read_head(directory):
    """The head of a whole set: all of its pieces are there in their sizes."""
    path = os.path.join(directory, HEAD)
    try:
        with open(path, errors="replace") as lines:
            text, digest = lines.read().split("\n")[:2]
        if hashlib.sha256(text.encode()).hexdigest() != digest:
            raise ValueError
        head = json.loads(text)
    except OSError as error:
        raise failed(2, "Failed to open the file %s, the error code was %d" % (path, error.errno))
    except ValueError:
        raise failed(662, "Invalid backupset, the head %s is corrupted" % path)
    for name, size in head["pieces"]:
        piece = os.path.join(directory, name)
        try:
            found = os.stat(piece).st_size
        except OSError as error:
            raise failed(2, "Failed to open the file %s, the error code was %d" % (piece, error.errno))
        if found != size:
            raise failed(7, "File size(%d) does not match with the expected(%d): %s"
                         % (found, size, piece))
    return head
