"""The form of a data object: frames, each a head of 16 bytes (kind, length, offset; little-endian) and
its bytes.

    FILE   a path within the data directory; the frames behind it are of this file
    DATA   bytes at an offset of the file
    END    nothing more; its offset is the number of the object's bytes of data. An object without it
           is not whole.
"""
import os
import struct

from roach.cluster import Tool_Error
from roach.object_store import MIB

HEAD = struct.Struct("<IIQ")
FILE, DATA, END = 0x656C6966, 0x61746164, 0x20646E65
PAGE = 8192
OBJECT_SIZE = 256 * MIB  # about: another object begins behind it, for the sake of parallel restores


class Frame_Writer(object):
    """Writes the files of one worker into objects, a new one whenever one is full.

    @param create  makes the writer of the object with a number
    """

    def __init__(self, create, block):
        self.create = create
        self.buffer = bytearray(max(block, 8 * PAGE))
        self.view = memoryview(self.buffer)
        self.used = 0
        self.writer = None
        self.number = 0
        self.in_object = self.data_in_object = 0
        self.sizes = []  # bytes of each object that has ended
        self.data = 0    # bytes of files in all of them
        self.path = None

    def _flush(self):
        if self.used:
            # a memoryview that is handed on may not keep the buffer from being written again
            with self.view[:self.used] as full:
                self.writer.send(full)
            self.in_object += self.used
            self.used = 0

    def _head(self, kind, length, offset, room):
        if self.used + HEAD.size + room > len(self.buffer):
            self._flush()
        HEAD.pack_into(self.buffer, self.used, kind, length, offset)
        self.used += HEAD.size

    def file(self, path):
        """The frames that follow are of this file."""
        if self.writer and self.in_object + self.used > OBJECT_SIZE:
            self.end()
        if not self.writer:
            self.writer = self.create(self.number)
            self.number += 1
            self.in_object = self.data_in_object = 0
        self._name(path)

    def _name(self, path):
        name = path.encode("utf-8", "surrogateescape")
        self._head(FILE, len(name), 0, len(name))
        self.buffer[self.used:self.used + len(name)] = name
        self.used += len(name)

    def copy(self, descriptor, start, end):
        """Bytes of an open file. Behind its end they are zeros: the log says what belongs there."""
        while start < end:
            room = len(self.buffer) - self.used - HEAD.size
            if room < min(end - start, 4 * PAGE):
                self._flush()
                room = len(self.buffer) - HEAD.size
            length = min(room, end - start)
            place = self.used
            self.used += HEAD.size
            with self.view[self.used:self.used + length] as target:
                count = os.preadv(descriptor, [target], start)
                if count == 0:
                    target[:] = bytes(length)
                    count = length
            HEAD.pack_into(self.buffer, place, DATA, count, start)
            self.used += count
            self._count(count)
            start += count

    def write(self, content, offset):
        """Bytes from memory; not more than a block."""
        self._head(DATA, len(content), offset, len(content))
        self.buffer[self.used:self.used + len(content)] = content
        self.used += len(content)
        self._count(len(content))

    def _count(self, count):
        self.data += count
        self.data_in_object += count

    def end(self):
        """Ends the object, if one was begun."""
        if not self.writer:
            return
        self._head(END, 0, self.data_in_object, 0)
        self._flush()
        self.writer.end()
        self.writer = None
        self.sizes.append(self.in_object)


def read_frames(reader, name, handle_file, handle_data, block):
    """Reads an object to its end: handle_file(path) for each file, handle_data(memory, offset) for
    its bytes in pieces. Raises Tool_Error when the object is not what it should be."""
    buffer = bytearray(max(block, 2 * PAGE))
    view = memoryview(buffer)
    begin = end = data = 0
    ended = False
    left = 0  # bytes of a DATA frame that are still to come
    offset = 0
    while True:
        if begin:
            buffer[:end - begin] = bytes(view[begin:end])
            begin, end = 0, end - begin
        with view[end:] as room:
            count = reader.read(room)
        if count == 0:
            break
        end += count
        while begin < end:
            if left:
                piece = min(left, end - begin)
                with view[begin:begin + piece] as memory:
                    handle_data(memory, offset)
                begin, left, offset, data = begin + piece, left - piece, offset + piece, data + piece
                continue
            if end - begin < HEAD.size:
                break
            kind, length, offset = HEAD.unpack_from(buffer, begin)
            if ended or kind not in (FILE, DATA, END) or (kind == FILE and length > 4096):
                raise Tool_Error("[GAUSS-53205] : The object %s is damaged." % name)
            if kind == FILE:
                if end - begin < HEAD.size + length:
                    break
                start = begin + HEAD.size
                handle_file(bytes(view[start:start + length]).decode("utf-8", "surrogateescape"))
                begin = start + length
            else:
                begin += HEAD.size
                if kind == DATA:
                    left = length
                else:
                    ended = True
                    if offset != data:
                        raise Tool_Error("[GAUSS-53205] : The object %s is damaged." % name)
    if not ended or left or begin != end:
        raise Tool_Error("[GAUSS-53205] : The object %s is not whole." % name)
