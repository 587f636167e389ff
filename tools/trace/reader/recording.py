"""A recording, read back: the kernel's binary pages as their own format descriptions say, and the
facts behind them. The machine that recorded may have other word sizes and byte order than this."""

import bisect
import heapq
import mmap
import re
import struct
from collections import namedtuple
from zlib import crc32

Event = namedtuple("Event", "time cpu tid name fields")  # time in ns of the kernel's clock
Thread = namedtuple("Thread", "name linux")

OWN = "zelkernel"
MAGIC = b"\x17\x08\x44tracing6\0"
END = b"zeltrace"
PADDING, TIME_EXTEND, TIME_STAMP = 29, 30, 31  # kinds of entries that are not events
FIELD = re.compile(r"\s*field:(.*?)\s*(\w+)(\[\d*\])?;\s*offset:(\d+);\s*size:(\d+);\s*signed:(\d);")
DAMAGES = (struct.error, ValueError, TypeError, LookupError, AttributeError)  # by bytes of any kind


class NotARecording(Exception):
    pass


class Damaged(NotARecording):
    def __init__(self, error):
        super().__init__(f"it is damaged ({error})")


class Reader:
    """Walks through bytes."""

    def __init__(self, data, at):
        self.data, self.at, self.order = data, at, "little"

    def take(self, size):
        if self.at + size > len(self.data):
            raise NotARecording("it ends too early")
        self.at += size
        return self.data[self.at - size:self.at]

    def number(self, size):
        return int.from_bytes(self.take(size), self.order)

    def text(self):
        end = self.data.find(b"\0", self.at)
        if end == -1:
            raise NotARecording("it ends too early")
        return self.take(end + 1 - self.at)[:-1].decode("utf-8", "replace")

    def sized(self):
        return self.take(self.number(8)).decode("utf-8", "replace")


class Format:
    """How one kind of event lies in memory."""

    def __init__(self, system, text, order):
        self.number = int(re.search(r"^ID: (\d+)", text, re.M)[1])
        name = re.search(r"^name: (\S+)", text, re.M)[1]
        # A probe's further places carry a number; an event of the kernel keeps its name.
        self.name = OWN + ":" + name.split("__")[0] if system == OWN else name
        self.names, self.plain_texts, self.located_texts = [], [], []
        self.known = {}  # names of threads come again and again
        layout, end = order, 0
        for kind, name, array, offset, size, signed in sorted(
                FIELD.findall(text), key=lambda field: int(field[3])):
            letter = self.letter(kind, name, array, int(size), signed == "1")
            if letter is not None and int(offset) >= end:
                layout += f"{int(offset) - end}x{letter}"
                end = int(offset) + int(size)
                self.names.append(name)
        self.layout = struct.Struct(layout)

    def letter(self, kind, name, array, size, is_signed):
        """As struct has it; nothing for what nobody asks for."""
        if name.startswith("common_") and name != "common_pid":
            return None
        if "__data_loc" in kind:
            self.located_texts.append(name)
            return "I"
        if array and "char" in kind:
            self.plain_texts.append(name)
            return f"{size}s"
        letter = {1: "b", 2: "h", 4: "i", 8: "q"}.get(size)
        return letter if letter is None or is_signed else letter.upper()

    def text_of(self, data):
        if data not in self.known:
            self.known[data] = data.split(b"\0")[0].decode("utf-8", "replace")
        return self.known[data]

    def read(self, data, at):
        fields = dict(zip(self.names, self.layout.unpack_from(data, at)))
        for name in self.plain_texts:
            fields[name] = self.text_of(fields[name])
        for name in self.located_texts:
            start = at + (fields[name] & 0xffff)
            fields[name] = self.text_of(data[start:start + (fields[name] >> 16)])
        return fields


class Recording:
    def __init__(self, path):
        with open(path, "rb") as file:
            try:
                self.data = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)
            except (OSError, ValueError):  # a pipe; an empty file
                self.data = file.read()
        if self.data[:len(MAGIC)] != MAGIC:
            raise NotARecording("it is none of zelkernel-trace's")
        if self.data[-len(END):] != END:
            raise NotARecording("it ends too early, or is none of zelkernel-trace's")
        if crc32(memoryview(self.data)[:-12]) != int.from_bytes(self.data[-12:-8], "little"):
            raise Damaged("its checksum is another than when it was written")
        try:
            self.read_facts(self.data)
            self.read_head(Reader(self.data, len(MAGIC)))
        except DAMAGES as error:
            raise Damaged(error) from error

    def read_facts(self, data):
        """Lines of text, see TraceFile.hpp."""
        self.process, self.threads, self.maps, self.symbols = 0, {}, [], []
        self.shift, self.cost, self.lost, self.lacks = None, "", 0, []
        self.ours = {}
        size = int.from_bytes(data[-20:-12], "little")
        base = 0
        for line in data[-20 - size:-20].decode("utf-8", "replace").splitlines():
            kind, _, rest = line.partition(" ")
            if kind == "process":
                self.process = int(rest)
            elif kind == "thread":
                tid, priority, name = rest.split(" ", 2)
                self.threads[int(tid)] = Thread(name, int(priority))
            elif kind == "priorities":
                application, linux = rest.split()
                self.shift = int(application) - int(linux)
            elif kind == "map":
                start, end, offset, path = rest.split(" ", 3)
                self.maps.append((int(start), int(end), int(offset), path))
            elif kind == "symbols":
                base = int(rest.split()[0])
            elif kind == "symbol":
                value, length, name = rest.split(" ", 2)
                name = name.replace("(anonymous namespace)::", "")
                self.symbols.append((base + int(value), int(length), name))
            elif kind == "lost":
                self.lost += int(rest.split()[1])
            elif kind == "cost":
                self.cost = rest
            elif kind == "lacks":
                self.lacks.append(rest)
        self.symbols.sort()

    def read_head(self, reader):
        if reader.number(1):
            reader.order = "big"
        self.order = ">" if reader.order == "big" else "<"
        word = "I" if reader.number(1) == 4 else "Q"
        self.page_head = struct.Struct(self.order + "Q" + word)
        self.page_size = reader.number(4)
        reader.text()
        self.page_data = int(re.search(r"\bdata;\s*offset:(\d+)", reader.sized())[1])
        reader.text()
        reader.sized()
        self.formats = {}
        self.read_formats(reader, "ftrace")
        for _ in range(reader.number(4)):
            self.read_formats(reader, reader.text())
        for size in (4, 4, 8):  # symbols, formats of printk, names of processes
            reader.take(reader.number(size))
        self.processors = reader.number(4)
        reader.take(10 + 2 + 10)  # no options, and the buffers follow
        self.places = [(reader.number(8), reader.number(8)) for _ in range(self.processors)]
        if any(offset + size > len(self.data) for offset, size in self.places):
            raise NotARecording("it ends too early")

    def read_formats(self, reader, system):
        for _ in range(reader.number(4)):
            form = Format(system, reader.sized(), self.order)
            self.formats[form.number] = form

    def events(self):
        """All, in their order; one after the other, since there may be millions."""
        try:
            yield from heapq.merge(*map(self.events_of, range(self.processors)))
        except DAMAGES as error:
            raise Damaged(error) from error

    def events_of(self, cpu):
        offset, size = self.places[cpu]
        before = 0
        for page in range(offset, offset + size, self.page_size):
            for event in self.events_in(self.data[page:page + self.page_size], cpu):
                if event.time < before:
                    raise ValueError("an event earlier than the one before it")
                before = event.time
                yield event

    def events_in(self, page, cpu):
        time, end = self.page_head.unpack_from(page)
        at = self.page_data
        last = at + (end & 0xfffff)
        end = min(last, len(page) - 3)
        word, number = (struct.Struct(self.order + letter).unpack_from for letter in "IH")
        is_little = self.order == "<"
        while at < end:
            head, = word(page, at)
            at += 4
            kind, delta = (head & 31, head >> 5) if is_little else (head >> 27, head & 0x7ffffff)
            if kind in (TIME_EXTEND, TIME_STAMP):
                delta += word(page, at)[0] << 27
                at += 4
                time = delta if kind == TIME_STAMP else time + delta
                continue
            time += delta
            size = kind * 4
            if kind == 0 or kind == PADDING:
                if kind == PADDING and delta == 0:
                    return
                size = word(page, at)[0] - 4
                at += 4
                if size < 0:
                    raise ValueError("an event without a size")
            if kind != PADDING:
                form = self.formats.get(number(page, at)[0])
                if form is not None:
                    fields = form.read(page, at)
                    if self.is_ours(fields):
                        yield Event(time, cpu, fields.pop("common_pid"), form.name, fields)
            at += size
            if at > last:
                raise ValueError("an event longer than its page")

    def is_ours(self, fields):
        """Another application with the same library hits the same probes."""
        address = fields.pop("__probe_ip", None)
        if address is None or not self.maps:
            return True
        if address not in self.ours:
            self.ours[address] = any(start <= address < end for start, end, _, _ in self.maps)
        return self.ours[address]

    def name_of(self, address):
        """Of a function or a variable; of what has no name, the file and the place in it."""
        at = bisect.bisect_right(self.symbols, (address, 1 << 64, "")) - 1
        if at >= 0:
            start, size, name = self.symbols[at]
            if address < start + max(size, 1):
                return name
        for start, end, offset, path in self.maps:
            if start <= address < end:
                return f"{path.rsplit('/', 1)[-1]}+{address - start + offset:#x}"
        return f"{address:#x}"
