"""A recording, read back: the kernel's binary pages as their own format descriptions say, and the
facts behind them. The machine that recorded may have other word sizes and byte order than this."""

import bisect
import re
import struct
from collections import namedtuple

Event = namedtuple("Event", "time cpu tid name fields")  # time in ns of the kernel's clock
Thread = namedtuple("Thread", "name linux")

OWN = "zelkernel"
PADDING, TIME_EXTEND, TIME_STAMP = 29, 30, 31  # kinds of entries that are not events
FIELD = re.compile(r"\s*field:(.*?)\s*(\w+)(\[\d*\])?;\s*offset:(\d+);\s*size:(\d+);\s*signed:(\d);")


class NotARecording(Exception):
    pass


class Reader:
    """Walks through bytes."""

    def __init__(self, data, order="<", at=0):
        self.data, self.order, self.at = data, order, at

    def take(self, size):
        if self.at + size > len(self.data):
            raise NotARecording("it ends too early")
        self.at += size
        return self.data[self.at - size:self.at]

    def number(self, size):
        return int.from_bytes(self.take(size), "little" if self.order == "<" else "big")

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
        self.order = order
        self.fields = [self.field(*match) for match in FIELD.findall(text)]

    def field(self, kind, name, array, offset, size, signed):
        offset, size = int(offset), int(size)
        if "__data_loc" in kind:
            return name, offset, None, self.located_text
        if array and "char" in kind:
            return name, offset, size, self.plain_text
        letter = {1: "b", 2: "h", 4: "i", 8: "q"}.get(size)
        if letter is None:
            return name, offset, size, lambda *_: None
        unpack = struct.Struct(self.order + (letter if signed == "1" else letter.upper()))
        return name, offset, size, lambda data, at, _: unpack.unpack_from(data, at)[0]

    def located_text(self, data, at, _):
        where = struct.unpack_from(self.order + "I", data, at)[0]
        return self.plain_text(data, where & 0xffff, where >> 16)

    @staticmethod
    def plain_text(data, at, size):
        return data[at:at + size].split(b"\0")[0].decode("utf-8", "replace")

    def read(self, data):
        return {name: value(data, offset, size) for name, offset, size, value in self.fields}


class Recording:
    def __init__(self, path):
        with open(path, "rb") as file:
            data = file.read()
        if not data.startswith(b"\x17\x08\x44tracing6\0"):
            raise NotARecording("it is none of zelkernel-trace's")
        self.read_facts(data)
        try:
            self.read_all(data)
        except struct.error as error:
            raise NotARecording("it is damaged: " + str(error)) from error
        # Another application with the same library hits the same probes.
        if self.maps:
            self.events = [event for event in self.events
                           if not event.name.startswith(OWN) or self.is_ours(event)]

    def read_facts(self, data):
        """Lines of text, see TraceFile.hpp."""
        self.process, self.threads, self.maps, self.symbols = 0, {}, [], []
        self.shift, self.cost, self.lost, self.lacks = None, "", 0, []
        if not data.endswith(b"zeltrace"):
            return
        size = int.from_bytes(data[-16:-8], "little")
        base = 0
        for line in data[-16 - size:-16].decode("utf-8", "replace").splitlines():
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

    def read_all(self, data):
        reader = Reader(data, "<", len(b"\x17\x08\x44tracing6\0"))
        reader.order = self.order = ">" if reader.number(1) else "<"
        self.word = reader.number(1)
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
        places = [(reader.number(8), reader.number(8)) for _ in range(self.processors)]
        self.events = []
        for cpu, (offset, size) in enumerate(places):
            for page in range(offset, offset + size, self.page_size):
                self.read_page(data[page:page + self.page_size], cpu)
        self.events.sort(key=lambda event: event.time)

    def read_formats(self, reader, system):
        for _ in range(reader.number(4)):
            form = Format(system, reader.sized(), self.order)
            self.formats[form.number] = form

    def read_page(self, page, cpu):
        reader = Reader(page, self.order)
        time = reader.number(8)
        end = self.page_data + (reader.number(self.word) & 0xfffff)
        reader.at = self.page_data
        while reader.at < min(end, len(page) - 3):
            head = reader.number(4)
            kind, delta = (head & 31, head >> 5) if self.order == "<" else \
                (head >> 27, head & 0x7ffffff)
            if kind in (TIME_EXTEND, TIME_STAMP):
                delta += reader.number(4) << 27
                time = delta if kind == TIME_STAMP else time + delta
                continue
            time += delta
            if kind == PADDING:
                if delta == 0:
                    return
                reader.take(reader.number(4) - 4)
                continue
            content = reader.take(kind * 4 if kind else reader.number(4) - 4)
            form = self.formats.get(struct.unpack_from(self.order + "H", content)[0])
            if form is not None:
                fields = form.read(content)
                self.events.append(Event(time, cpu, fields["common_pid"], form.name, fields))

    def is_ours(self, event):
        return any(start <= event.fields["__probe_ip"] < end for start, end, _, _ in self.maps)

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
