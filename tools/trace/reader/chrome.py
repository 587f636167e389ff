"""The recording as trace-event JSON, which the viewers of Perfetto and of Chrome open."""

import json

from accounts import doing, pieces

THREADS, PROCESSORS = 1, 2
STATES = {"run": ("running", "thread_state_running"), "wait": ("could run", "thread_state_runnable"),
          "wake": ("woken", "thread_state_runnable")}


class Export:
    def __init__(self, recording, timeline):
        self.recording, self.timeline = recording, timeline
        self.events = []

    def us(self, time):
        return (time - self.timeline.begin) / 1000

    def slice(self, process, tid, start, end, name, **more):
        self.events.append({"ph": "X", "pid": process, "tid": tid, "ts": self.us(start),
                            "dur": (end - start) / 1000, "name": name, **more})

    def name(self, what, process, tid, name):
        self.events.append({"ph": "M", "pid": process, "tid": tid, "name": what + "_name",
                            "args": {"name": name}})

    def tracks(self):
        timeline = self.timeline
        self.name("process", THREADS, 0, f"application {self.recording.process}")
        self.name("process", PROCESSORS, 0, "processors")
        for tid in timeline.own:
            self.name("thread", THREADS, tid, timeline.label(tid))
            self.events.append({"ph": "M", "pid": THREADS, "tid": tid, "name": "thread_sort_index",
                                "args": {"sort_index": -timeline.linux_priority(tid)}})
            self.states(tid)
        for cpu, runs in timeline.processors.items():
            self.name("thread", PROCESSORS, cpu, f"processor {cpu}")
            for run in runs:
                if run.tid:
                    self.slice(PROCESSORS, cpu, run.start, run.end, timeline.label(run.tid))
            for span in timeline.interrupts[cpu].pieces:
                self.slice(PROCESSORS, cpu, span.start, span.end, f"{span.kind} {span.name}")

    def states(self, tid):
        """Cut where the library's spans begin and end: slices of a track have to nest."""
        activities = self.timeline.activities[tid].pieces
        for state in self.timeline.states[tid]:
            if state.state in STATES:
                name, colour = STATES[state.state]
                for start, end, _ in pieces(activities, state.start, state.end):
                    self.slice(THREADS, tid, start, end, name, cname=colour,
                               args={"processor": state.cpu})

    def library(self):
        for span in self.timeline.spans:
            self.slice(THREADS, span.tid, span.start, span.end, doing(span), cat="library")
        for locks in self.timeline.locks.values():
            for lock in locks:
                self.slice(THREADS, lock.tid, lock.start, lock.end, f"waits for lock {lock.name}",
                           cat="library", args={"held by": self.timeline.label(lock.owner)})
        deferred = {}
        for time, tid, name, fields in self.timeline.marks:
            if name.startswith(("service_", "deferred_")):
                if name == "deferred_begin" and fields.get("routine") in deferred:
                    self.arrow(*deferred.pop(fields["routine"]), time, tid)
                continue
            if name == "defer":
                deferred.setdefault(fields.get("routine"), (time, tid))
            shown = {key: value for key, value in fields.items()
                     if key[:2] != "__" and key[:7] != "common_"}
            self.events.append({"ph": "i", "s": "t", "pid": THREADS, "tid": tid,
                                "ts": self.us(time), "name": name, "cat": "library", "args": shown})

    def arrow(self, start, from_tid, end, to_tid):
        common = {"pid": THREADS, "id": len(self.events), "name": "deferred", "cat": "library"}
        self.events.append({"ph": "s", "tid": from_tid, "ts": self.us(start), **common})
        self.events.append({"ph": "f", "bp": "e", "tid": to_tid, "ts": self.us(end), **common})


def trace_events(recording, timeline):
    export = Export(recording, timeline)
    export.tracks()
    export.library()
    return json.dumps({"traceEvents": export.events, "displayTimeUnit": "ns",
                       "otherData": {"cost": recording.cost, "events lost": recording.lost}})
