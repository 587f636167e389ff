"""What each thread and each processor did, from the events in their order."""

import bisect
from collections import Counter, defaultdict, namedtuple

from recording import OWN, Thread

# state: "run", "wait" (could run), "wake" (its wake-up is on the way), "sleep"; of a wake-up
# `waker` is the processor that it came from.
State = namedtuple("State", "start end state cpu waker")
Run = namedtuple("Run", "start end tid")  # of a processor
Span = namedtuple("Span", "start end kind name tid")  # of the library, or an interrupt's
Lock = namedtuple("Lock", "start end name owner tid")
Expiry = namedtuple("Expiry", "due entry timer")

REALTIME_END = 100  # the kernel counts real-time priorities down from 99


def clip(items, start, end):
    """Those of the sorted items, which do not overlap, that reach into the time."""
    at = max(0, bisect.bisect_right(items, start, key=lambda item: item.start) - 1)
    for item in map(items.__getitem__, range(at, len(items))):  # without a copy: it may be long
        if item.start >= end:
            return
        if item.end > start:
            yield item._replace(start=max(item.start, start), end=min(item.end, end))


class Activities:
    """What is under way at one place, the innermost last, as pieces that do not overlap."""

    def __init__(self):
        self.open, self.pieces, self.since = [], [], 0

    def change(self, time):
        if self.open and time > self.since:
            kind, name = self.open[-1][:2]
            self.pieces.append(Span(self.since, time, kind, name, 0))
        self.since = time

    def begin(self, time, kind, name):
        self.change(time)
        self.open.append((kind, name, time))

    def end(self, time, kind):
        """Gives the name and the begin, or nothing when it began before the recording."""
        self.change(time)
        for at in reversed(range(len(self.open))):
            if self.open[at][0] == kind:
                _, name, start = self.open.pop(at)
                return name, start
        return None

    def replace(self, time, opened):
        """Others are under way from now on; gives those until now."""
        self.change(time)
        before, self.open = self.open, opened
        return before


class Timeline:
    """`spans` and the like are sorted by their ends."""

    def __init__(self, recording):
        self.recording = recording
        self.threads = dict(recording.threads)
        self.own = set(recording.threads)
        self.states, self.processors = defaultdict(list), defaultdict(list)
        self.activities, self.interrupts = defaultdict(Activities), defaultdict(Activities)
        self.spans, self.marks, self.inferred = [], [], 0
        self.locks, self.wakes = defaultdict(list), defaultdict(list)
        self.tick_timer = None
        self.expiries = defaultdict(list)
        self._now, self._on, self._expires, self._fired, self._waits = {}, {}, {}, {}, {}
        self._aside = {}
        self.begin = self.end = self.count = 0
        for event in recording.events():
            if self.count == 0:
                self.begin = event.time
            self.count += 1
            self.end = event.time
            self.take(event)
        self.finish()

    def notice(self, event):
        """Now and then a kernel leaves out a switch; whose event it is tells who runs."""
        before, since = self._on.setdefault(event.cpu, (event.tid, self.begin))
        if before == event.tid:
            return
        self.inferred += 1
        if event.time > since:
            self.processors[event.cpu].append(Run(since, event.time, before))
        self._on[event.cpu] = (event.tid, event.time)
        if self._now.get(before, (0, "", None))[1:3] == ("run", event.cpu):
            self.enter(before, event.time, "unknown", event.cpu)
        if event.tid:
            self.enter(event.tid, event.time, "run", event.cpu)

    def take(self, event):
        self.notice(event)
        name = event.name
        if name.startswith(OWN):
            self.own.add(event.tid)
            name = name[len(OWN) + 1:]
            what, _, how = name.rpartition("_")
            if what in ("call", "service", "deferred", "poller", "command"):
                self.take_span(event, what, how)
            elif what == "lock":
                self.take_lock(event, how)
            else:
                self.marks.append((event.time, event.tid, name, event.fields))
        elif name in HANDLERS:
            HANDLERS[name](self, event)

    def take_span(self, event, kind, how):
        if kind in ("deferred", "service"):
            self.marks.append((event.time, event.tid, f"{kind}_{how}", event.fields))
        if how == "end":
            begun = self.activities[event.tid].end(event.time, kind)
            if begun is not None:
                self.spans.append(Span(begun[1], event.time, kind, begun[0], event.tid))
            return
        self.activities[event.tid].begin(event.time, kind, self.name_of_span(kind, event.fields))

    def name_of_span(self, kind, fields):
        if kind == "service":
            return f"interrupt {fields.get('vector')}"
        if kind == "command":
            return fields.get("text", "")
        address = fields.get("function", fields.get("routine"))
        return "" if address is None else self.recording.name_of(address)

    def take_lock(self, event, how):
        activities = self.activities[event.tid]
        if how == "wait":
            self._waits[event.tid] = event
            activities.begin(event.time, "lock", self.recording.name_of(event.fields.get("mutex", 0)))
            return
        activities.end(event.time, "lock")
        wait = self._waits.pop(event.tid, None)
        if wait is not None:
            name = self.recording.name_of(wait.fields.get("mutex", 0))
            self.locks[event.tid].append(
                Lock(wait.time, event.time, name, wait.fields.get("owner", 0), event.tid))

    def know(self, tid, name, priority):
        linux = REALTIME_END - 1 - priority if priority < REALTIME_END else 0
        if tid not in self.threads or self.threads[tid] != (name, linux):
            self.threads[tid] = Thread(name, linux)

    def enter(self, tid, time, state, cpu, waker=None):
        start, old, old_cpu, old_waker = self._now.get(tid, (self.begin, "unknown", cpu, None))
        if time > start:
            self.states[tid].append(State(start, time, old, old_cpu, old_waker))
        self._now[tid] = (time, state, cpu, waker)

    def state_of(self, tid):
        return self._now.get(tid, (0, "unknown"))[1]

    def switch(self, event):
        fields, cpu, time = event.fields, event.cpu, event.time
        before, after = fields["prev_pid"], fields["next_pid"]
        since = self._on[cpu][1]
        if time > since:
            self.processors[cpu].append(Run(since, time, before))
        self._on[cpu] = (after, time)
        # A real-time kernel serves soft interrupts and most timers in threads, which may be left
        # amid it, and go on with it later.
        opened, fired = self._aside.pop(after or (0, cpu), ([], None))
        self._aside[before or (0, cpu)] = (self.interrupts[cpu].replace(time, opened),
                                           self._fired.pop(cpu, None))
        if fired is not None:
            self._fired[cpu] = fired
        if before:
            self.know(before, fields["prev_comm"], fields["prev_prio"])
            if before not in self._now:
                self._now[before] = (self.begin, "run", cpu, None)
            could_run = fields["prev_state"] & 0xff == 0
            self.enter(before, time, "wait" if could_run else "sleep", cpu)
        if after:
            self.know(after, fields["next_comm"], fields["next_prio"])
            self.enter(after, time, "run", cpu)

    def waking(self, event):
        tid = event.fields["pid"]
        if self.state_of(tid) not in ("sleep", "unknown"):
            return
        self.enter(tid, event.time, "wake", event.fields["target_cpu"], event.cpu)
        self.wakes[tid].append((event.time, self._fired.get(event.cpu)))

    def wakeup(self, event):
        tid = event.fields["pid"]
        if self.state_of(tid) in ("sleep", "wake", "unknown"):
            self.enter(tid, event.time, "wait", event.fields["target_cpu"])

    def migrate(self, event):
        tid = event.fields["pid"]
        if self.state_of(tid) in ("wait", "wake"):
            _, state, _, waker = self._now[tid]
            self.enter(tid, event.time, state, event.fields["dest_cpu"], waker)

    def timer_start(self, event):
        self._expires[event.fields["hrtimer"]] = event.fields["expires"]

    def timer_entry(self, event):
        timer = event.fields["hrtimer"]
        due = min(self._expires.pop(timer, event.time), event.time)
        self._fired[event.cpu] = Expiry(due, event.time, timer)
        self.expiries[timer].append(self._fired[event.cpu])
        self.interrupts[event.cpu].begin(event.time, "timer interrupt", "")

    def timer_exit(self, event):
        self._fired.pop(event.cpu, None)
        self.interrupts[event.cpu].end(event.time, "timer interrupt")

    def irq_entry(self, event):
        self.interrupts[event.cpu].begin(event.time, "interrupt", event.fields.get("name", ""))

    def irq_exit(self, event):
        self.interrupts[event.cpu].end(event.time, "interrupt")

    def softirq_entry(self, event):
        number = event.fields["vec"]
        name = SOFT_INTERRUPTS[number] if number < len(SOFT_INTERRUPTS) else str(number)
        self.interrupts[event.cpu].begin(event.time, "soft interrupt", name)

    def softirq_exit(self, event):
        self.interrupts[event.cpu].end(event.time, "soft interrupt")

    def finish(self):
        for tid, (_, state, cpu, waker) in list(self._now.items()):
            self.enter(tid, self.end, state, cpu, waker)
        for cpu, (tid, since) in self._on.items():
            if self.end > since:
                self.processors[cpu].append(Run(since, self.end, tid))
        for activities in list(self.activities.values()) + list(self.interrupts.values()):
            activities.change(self.end)
        self.own.discard(0)
        # The timer that most often woke the thread that then took a tick.
        timers = Counter()
        for time, tid, name, _ in self.marks:
            if name == "tick":
                expiry = self.wake_before(tid, time)[1]
                if expiry is not None:
                    timers[expiry.timer] += 1
        if timers:
            self.tick_timer = timers.most_common(1)[0][0]

    def wake_before(self, tid, time):
        """When it was last woken, and by which timer's expiry."""
        wakes = self.wakes[tid]
        at = bisect.bisect_right(wakes, time, key=lambda wake: wake[0]) - 1
        return wakes[at] if at >= 0 else (None, None)

    def lock_at(self, tid, time):
        return next(clip(self.locks[tid], time, time + 1), None)

    def application_priority(self, linux):
        shift = self.recording.shift
        return None if shift is None or linux == 0 else linux + shift

    def name(self, tid):
        return self.threads[tid].name if tid in self.threads else f"thread {tid}"

    def linux_priority(self, tid):
        return self.threads[tid].linux if tid in self.threads else 0

    def label(self, tid):
        """Name and priorities."""
        thread = self.threads.get(tid, Thread(self.name(tid), 0))
        if thread.linux == 0:
            return f"{thread.name} (no real-time priority)"
        application = self.application_priority(thread.linux) if tid in self.own else None
        if application is None:
            return f"{thread.name} (Linux {thread.linux})"
        return f"{thread.name} (application {application}, Linux {thread.linux})"


SOFT_INTERRUPTS = ("HI", "TIMER", "NET_TX", "NET_RX", "BLOCK", "IRQ_POLL", "TASKLET", "SCHED",
                   "HRTIMER", "RCU")
HANDLERS = {
    "sched_switch": Timeline.switch, "sched_waking": Timeline.waking,
    "sched_wakeup": Timeline.wakeup, "sched_migrate_task": Timeline.migrate,
    "hrtimer_start": Timeline.timer_start, "hrtimer_expire_entry": Timeline.timer_entry,
    "hrtimer_expire_exit": Timeline.timer_exit, "irq_handler_entry": Timeline.irq_entry,
    "irq_handler_exit": Timeline.irq_exit, "softirq_entry": Timeline.softirq_entry,
    "softirq_exit": Timeline.softirq_exit,
}
