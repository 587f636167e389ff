"""The report: as text of at most 100 columns, and as JSON."""

import json
import textwrap
from collections import defaultdict, namedtuple

from accounts import Accountant, cases

WIDTH = 100
TITLES = {"tick": "Ticks, from the timer's expiry to when they were taken",
          "interrupt": "Interrupts, from the pulse or wake-up to their routine",
          "wakeup": "Wake-ups of application threads, from when they were due"}
Times = namedtuple("Times", "name count total longest")


def us(time):
    return f"{time / 1000:.0f}"


def describe_cause(timeline, cause):
    doing = f": {cause.doing}" if cause.doing else ""
    text = {"itself": lambda: "it ran itself" + doing,
            "ran": lambda: timeline.label(cause.tid) + " ran" + doing,
            "interrupt": lambda: "in the kernel" + doing,
            "idle": lambda: "the idle processor did not run it yet",
            "moved": lambda: "on the way " + cause.doing,
            "timer": lambda: "the timer's interrupt was late",
            "asleep": lambda: timeline.label(cause.tid) + " slept",
            "unknown": lambda: "not in the recording"}[cause.kind]()
    if cause.lock is None:
        return text
    name, owner = cause.lock
    return f"lock {name} held by {timeline.name(owner)}, meanwhile {text}"


class Report:
    def __init__(self, recording, timeline, number):
        self.recording, self.timeline = recording, timeline
        self.accountant = Accountant(timeline)
        self.cases = cases(timeline, number)
        self.number = number

    def described(self, case):
        """The account as (ns, text); what hardly counts is one part."""
        parts = self.accountant.account(case)
        least = max(1000, (case.end - case.start) / 200)
        shown = {cause: time for cause, time in parts.items() if time >= least}
        if len(parts) == len(shown) + 1:
            shown = parts
        for cause, time in shown.items():
            yield time, describe_cause(self.timeline, cause)
        rest = sum(parts.values()) - sum(shown.values())
        if rest >= 500:
            yield rest, f"{len(parts) - len(shown)} shorter parts"

    def of_threads(self):
        """(tid, ns run, number of runs, longest run, longest wait while runnable)."""
        rows = []
        for tid in self.timeline.own:
            runs, waits = [], []
            for state in self.timeline.states[tid]:
                if state.state == "run":
                    runs.append(state.end - state.start)
                elif state.state in ("wait", "wake"):
                    waits.append(state.end - state.start)
            rows.append((tid, sum(runs), len(runs), max(runs, default=0), max(waits, default=0)))
        return sorted(rows, key=lambda row: -row[1])

    def of_spans(self, kind):
        spans = defaultdict(list)
        for span in self.timeline.spans:
            if span.kind == kind:
                spans[span.name].append(span.end - span.start)
        rows = [Times(name, len(all), sum(all), max(all)) for name, all in spans.items()]
        return sorted(rows, key=lambda row: -row.total)

    def packets(self):
        counts = defaultdict(lambda: [0, 0])
        for _, _, name, fields in self.timeline.marks:
            if name in ("packet_read", "packet_sent"):
                count = counts[name[7:], fields.get("index")]
                count[0] += 1
                count[1] += fields.get("bytes", 0)
        return sorted((way, index, *count) for (way, index), count in counts.items())


def line(text, indent=0, hang=0):
    return textwrap.fill(text, WIDTH, initial_indent=" " * indent,
                         subsequent_indent=" " * (indent + hang), break_on_hyphens=False)


def head(report):
    recording, timeline = report.recording, report.timeline
    seconds = (timeline.end - timeline.begin) / 1e9
    yield line(f"Process {recording.process}: {seconds:.1f} s, {timeline.count} events on "
               f"{recording.processors} processors, {recording.lost} lost. Times are in us.")
    if recording.lost:
        yield line("Lost are the oldest events: a greater --buffer of record keeps more.")
    if recording.cost:
        yield line("Recording cost " + recording.cost + ".")
    if timeline.inferred:
        yield line("Switches between threads that the kernel did not record, and that are inferred: "
                   f"{timeline.inferred}.")
    for lack in recording.lacks:
        yield line("missing " + lack, hang=2)


def account(report, number, case):
    timeline = report.timeline
    at = (case.start - timeline.begin) / 1e9
    what = case.name if case.kind == "interrupt" else f"{timeline.label(case.tid)} {case.name}"
    yield line(f"#{number}  {us(case.end - case.start)} late, due at {at:.6f} s: {what}", 2, 4)
    for time, description in report.described(case):
        yield line(f"{us(time):>9}  {description}", 2, 11)


def table(title, columns, rows):
    """The first column takes what the others leave."""
    if not rows:
        return
    room = WIDTH - 11 * (len(columns) - 1) - 2
    yield ""
    yield title
    yield "  " + columns[0].ljust(room) + "".join(f"{column:>11}" for column in columns[1:])
    for name, *values in rows:
        if len(name) > room:  # a function's own name is at its end
            name = name[:room // 2] + "..." + name[room // 2 + 3 - room:]
        yield "  " + name.ljust(room) + "".join(f"{value:>11}" for value in values)


def text(report):
    timeline = report.timeline
    yield from head(report)
    for kind, (count, latest) in report.cases.items():
        yield ""
        yield f"{TITLES[kind]}: the latest {len(latest)} of {count}"
        for number, case in enumerate(latest, 1):
            yield from account(report, number, case)
    yield from tables(report)


def tables(report):
    timeline = report.timeline
    yield from table("Threads", ("name", "run", "runs", "longest", "waited"),
                     [(timeline.label(tid), us(run), runs, us(longest), us(waited))
                      for tid, run, runs, longest, waited in report.of_threads()])
    for kind, title in (("poller", "Poller"), ("call", "Kernel calls"),
                        ("service", "Service routines"), ("deferred", "Deferred routines"),
                        ("command", "Commands")):
        yield from table(title, ("", "count", "total", "mean", "longest"),
                         [(row.name, row.count, us(row.total), us(row.total / row.count),
                           us(row.longest)) for row in report.of_spans(kind)])
    yield from table("Packets", ("interface", "way", "count", "bytes"),
                     [(str(index), way, count, size)
                      for way, index, count, size in report.packets()])


def thread_as_json(timeline, tid):
    if tid not in timeline.threads:
        return {"tid": tid}
    thread = timeline.threads[tid]
    return {"tid": tid, "name": thread.name, "linux_priority": thread.linux,
            "application_priority": timeline.application_priority(thread.linux)
            if tid in timeline.own else None}


def case_as_json(report, case):
    timeline = report.timeline
    parts = []
    for cause, time in report.accountant.account(case).items():
        part = {"us": time / 1000, "kind": cause.kind}
        if cause.tid is not None:
            part["thread"] = thread_as_json(timeline, cause.tid)
        if cause.doing:
            part["doing"] = cause.doing
        if cause.lock is not None:
            part["lock"] = {"name": cause.lock[0], "held_by": thread_as_json(timeline, cause.lock[1])}
        parts.append(part)
    return {"what": case.name, "thread": thread_as_json(timeline, case.tid),
            "due_us": (case.start - timeline.begin) / 1000,
            "late_us": (case.end - case.start) / 1000, "parts": parts}


def as_json(report):
    recording, timeline = report.recording, report.timeline
    result = {"process": recording.process, "events": timeline.count,
              "lost": recording.lost, "cost": recording.cost, "missing": recording.lacks,
              "us": (timeline.end - timeline.begin) / 1000}
    for kind, (count, latest) in report.cases.items():
        result[kind + "s"] = {"count": count,
                              "latest": [case_as_json(report, case) for case in latest]}
    result["threads"] = [
        {**thread_as_json(timeline, tid), "run_us": run / 1000, "runs": runs,
         "longest_run_us": longest / 1000, "longest_wait_us": waited / 1000}
        for tid, run, runs, longest, waited in report.of_threads()]
    for kind in ("poller", "call", "service", "deferred", "command"):
        result[kind] = [{"name": row.name, "count": row.count, "total_us": row.total / 1000,
                         "longest_us": row.longest / 1000} for row in report.of_spans(kind)]
    result["packets"] = [{"interface": index, "way": way, "count": count, "bytes": size}
                         for way, index, count, size in report.packets()]
    return json.dumps(result, indent=1)
