"""The recording as trace-event JSON, which the viewers of Perfetto and of Chrome open."""

import json

from accounts import doing, pieces

THREADS, PROCESSORS = 1, 2
STATES = {"run": ("running", "thread_state_running"), "wait": ("could run", "thread_state_runnable"),
          "wake": ("woken", "thread_state_runnable")}


class Export:
    def __init__(self, recording, timeline):
        self.recording, self.timeline = recording, timeline
        self.arrows = 0

    def all(self):
        yield from self.tracks()
        yield from self.library()

    def us(self, time):
        return (time - self.timeline.begin) / 1000

    def slice(self, process, tid, start, end, name, **more):
        return {"ph": "X", "pid": process, "tid": tid, "ts": self.us(start),
                "dur": (end - start) / 1000, "name": name, **more}

    @staticmethod
    def about(what, process, tid, **args):
        return {"ph": "M", "pid": process, "tid": tid, "name": what, "args": args}

    def tracks(self):
        timeline = self.timeline
        yield self.about("process_name", THREADS, 0, name=f"application {self.recording.process}")
        yield self.about("process_name", PROCESSORS, 0, name="processors")
        for tid in timeline.own:
            yield self.about("thread_name", THREADS, tid, name=timeline.label(tid))
            yield self.about("thread_sort_index", THREADS, tid,
                             sort_index=-timeline.linux_priority(tid))
            yield from self.states(tid)
        for cpu, runs in timeline.processors.items():
            yield self.about("thread_name", PROCESSORS, cpu, name=f"processor {cpu}")
            for run in runs:
                if run.tid:
                    yield self.slice(PROCESSORS, cpu, run.start, run.end, timeline.label(run.tid))
            for span in timeline.interrupts[cpu].pieces:
                yield self.slice(PROCESSORS, cpu, span.start, span.end, f"{span.kind} {span.name}")

    def states(self, tid):
        """Cut where the library's spans begin and end: slices of a track have to nest."""
        activities = self.timeline.activities[tid].pieces
        for state in self.timeline.states[tid]:
            if state.state in STATES:
                name, colour = STATES[state.state]
                for start, end, _ in pieces(activities, state.start, state.end):
                    yield self.slice(THREADS, tid, start, end, name, cname=colour,
                                     args={"processor": state.cpu})

    def library(self):
        for span in self.timeline.spans:
            yield self.slice(THREADS, span.tid, span.start, span.end, doing(span), cat="library")
        for locks in self.timeline.locks.values():
            for lock in locks:
                yield self.slice(THREADS, lock.tid, lock.start, lock.end,
                                 f"waits for lock {lock.name}", cat="library",
                                 args={"held by": self.timeline.label(lock.owner)})
        deferred = {}
        for time, tid, name, fields in self.timeline.marks:
            if name.startswith(("service_", "deferred_")):
                if name == "deferred_begin" and fields.get("routine") in deferred:
                    yield from self.arrow(*deferred.pop(fields["routine"]), time, tid)
                continue
            if name == "defer":
                deferred.setdefault(fields.get("routine"), (time, tid))
            yield {"ph": "i", "s": "t", "pid": THREADS, "tid": tid, "ts": self.us(time),
                   "name": name, "cat": "library", "args": fields}

    def arrow(self, start, from_tid, end, to_tid):
        self.arrows += 1
        common = {"pid": THREADS, "id": self.arrows, "name": "deferred", "cat": "library"}
        yield {"ph": "s", "tid": from_tid, "ts": self.us(start), **common}
        yield {"ph": "f", "bp": "e", "tid": to_tid, "ts": self.us(end), **common}


def trace_events(recording, timeline):
    """In pieces: a long recording's whole text would be larger than all else."""
    export = Export(recording, timeline)
    yield '{"traceEvents": [\n'
    for number, event in enumerate(export.all()):
        yield (",\n" if number else "") + json.dumps(event)
    other = {"cost": recording.cost, "events lost": recording.lost}
    yield f'\n], "displayTimeUnit": "ns", "otherData": {json.dumps(other)}}}\n'
