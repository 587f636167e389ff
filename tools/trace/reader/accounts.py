"""What was late, and where its time went: parts that add up to the whole."""

import bisect
import itertools
from collections import namedtuple

from timeline import clip

# kind: what late thing; `tid` waited from `start` (when it was due) to `end`.
Case = namedtuple("Case", "kind name tid start end")
# One part of an account. `lock` is the (name, owner) of the lock that was waited for meanwhile.
Cause = namedtuple("Cause", "kind tid doing lock")

DOING = {"poller": "poller", "call": "kernel call {}", "service": "service routine of {}",
         "deferred": "deferred routine {}", "command": "command {}",
         "lock": "taking lock {}"}
DEEPEST = 4  # owners of locks that wait for locks


def doing(span):
    return DOING[span.kind].format(span.name)


def pieces(items, start, end):
    """The whole time from start to end, as (start, end, item or nothing)."""
    at = start
    for item in clip(items, start, end):
        if item.start > at:
            yield at, item.start, None
        yield item.start, item.end, item
        at = item.end
    if end > at:
        yield at, end, None


class Accountant:
    def __init__(self, timeline):
        self.timeline = timeline

    def account(self, case):
        """{Cause: ns}, the greatest first."""
        parts = {}
        for cause, time in self.walk(case.tid, case.start, case.end, None, 0):
            parts[cause] = parts.get(cause, 0) + time
        return dict(sorted(parts.items(), key=lambda part: -part[1]))

    def walk(self, tid, start, end, lock, depth):
        for begin, stop, state in pieces(self.timeline.states[tid], start, end):
            kind = state.state if state is not None else "unknown"
            if kind == "run":
                own = "itself" if lock is None else "ran"
                yield from self.running(own, tid, state.cpu, begin, stop, lock)
            elif kind == "wait":
                yield from self.waiting(state.cpu, begin, stop, lock)
            elif kind == "wake":
                yield from self.waking(state, begin, stop, lock)
            elif kind == "sleep":
                yield from self.sleeping(tid, begin, stop, lock, depth)
            else:
                yield Cause("unknown", None, "", lock), stop - begin

    def running(self, kind, tid, cpu, start, end, lock):
        """A thread had the processor; interrupts took some of it."""
        interrupts = self.timeline.interrupts[cpu].pieces
        activities = self.timeline.activities[tid].pieces
        for begin, stop, interrupt in pieces(interrupts, start, end):
            if interrupt is not None:
                yield Cause("interrupt", None, f"{interrupt.kind} {interrupt.name}".strip(),
                            lock), \
                    stop - begin
                continue
            for first, last, activity in pieces(activities, begin, stop):
                what = doing(activity) if activity is not None else ""
                yield Cause(kind, tid, what, lock), last - first

    def waiting(self, cpu, start, end, lock):
        for begin, stop, run in pieces(self.timeline.processors[cpu], start, end):
            if run is None:
                yield Cause("unknown", None, "", lock), stop - begin
            elif run.tid == 0:
                yield from self.running("idle", 0, cpu, begin, stop, lock)
            else:
                yield from self.running("ran", run.tid, cpu, begin, stop, lock)

    def waking(self, state, start, end, lock):
        if state.waker is not None and state.waker != state.cpu:
            yield Cause("moved", None, f"from processor {state.waker} to {state.cpu}", lock), \
                end - start
        else:
            yield from self.waiting(state.cpu, start, end, lock)

    def sleeping(self, tid, start, end, lock, depth):
        """For a lock, what its owner did counts."""
        held = self.timeline.lock_at(tid, start)
        if held is not None and depth < DEEPEST and held.owner not in (0, tid):
            lock = lock or (held.name, held.owner)
            yield from self.walk(held.owner, start, end, lock, depth + 1)
            return
        woken, expiry = self.timeline.wake_before(tid, end)
        if expiry is None or woken < start:
            yield Cause("asleep", tid, "", lock), end - start
            return
        for cause, until in ((Cause("asleep", tid, "", lock), expiry.due),
                             (Cause("timer", None, "", lock), expiry.entry),
                             (Cause("interrupt", None, "timer interrupt", lock), end)):
            if min(until, end) > start:
                yield cause, min(until, end) - start
                start = min(until, end)


def ticks(timeline):
    used = None
    expiries = timeline.expiries.get(timeline.tick_timer, [])
    for time, tid, name, _ in timeline.marks:
        if name != "tick":
            continue
        at = bisect.bisect_right(expiries, time, key=lambda expiry: expiry.entry) - 1
        due = expiries[at].due if at >= 0 else timeline.wake_before(tid, time)[0]
        if due is not None and due != used:
            yield Case("tick", "tick", tid, due, time)
        used = due


def interrupts(timeline):
    """From the interrupt thread's wake-up, or from when it came to the pulse while awake."""
    since, last = {}, {}
    deferred = {}
    for time, tid, name, fields in timeline.marks:
        if name == "pulse":
            woken = timeline.wake_before(tid, time)[0]
            since[tid] = woken if woken is not None and woken > last.get(tid, 0) else time
        elif name == "service_begin" and tid in since:
            yield Case("interrupt", f"interrupt {fields.get('vector')}", tid, since.pop(tid), time)
        elif name == "service_end":
            last[tid] = time
        elif name == "defer":
            deferred.setdefault(fields.get("routine"), time)
        elif name == "deferred_begin" and fields.get("routine") in deferred:
            routine = timeline.recording.name_of(fields["routine"])
            yield Case("interrupt", f"deferred routine {routine}", tid,
                       deferred.pop(fields["routine"]), time)


def wakeups(timeline):
    """Of the application's own threads; a wait for a lock is one, however often it was woken."""
    for lock in itertools.chain.from_iterable(timeline.locks.values()):
        yield Case("wakeup", f"had lock {lock.name}", lock.tid, lock.start, lock.end)
    system = {tid for _, tid, name, _ in timeline.marks if name in ("tick", "pulse")}
    for tid in timeline.own - system:
        runs = [state for state in timeline.states[tid] if state.state == "run"]
        for woken, expiry in timeline.wakes[tid]:
            at = bisect.bisect_left(runs, woken, key=lambda run: run.start)
            if at < len(runs) and timeline.lock_at(tid, woken) is None:
                due = expiry.due if expiry is not None else woken
                yield Case("wakeup", "ran", tid, due, runs[at].start)


KINDS = {"tick": ticks, "interrupt": interrupts, "wakeup": wakeups}


def cases(timeline, number):
    """{kind: (how many there were, the latest)}."""
    found = {}
    for kind, find in KINDS.items():
        everything = list(find(timeline))
        everything.sort(key=lambda case: case.start - case.end)
        found[kind] = (len(everything), everything[:number])
    return found
