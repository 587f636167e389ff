"""A stretch of the timeline as SVG: a track for each thread and each processor."""

import math
from collections import namedtuple
from html import escape

from accounts import doing
from text import us

# `row`: 0 the track's upper bar, 1 the thin one below it. Times are in ns.
Bar = namedtuple("Bar", "start end row style title")
Track = namedtuple("Track", "name bars")

WIDTH, NAMES, TOP, HEIGHT = 1200, 300, 26, 26
MOST_BARS = 60000  # what a browser still moves smoothly
SURROUNDINGS = 50_000_000
COLOURS = 6

STYLE = """
.zt { --paper: #fff; --ink: #1b1f24; --faint: #d8dee4; --run: #2f6fb5; --wait: #e9a23b;
  --other: #98a2ad; --kernel: #7a4fb0; --library: #2a8c5a; --mark: #d1242f;
  --c0: #2f6fb5; --c1: #2a8c5a; --c2: #b5652f; --c3: #8a4fb0; --c4: #24868f; --c5: #b03a78; }
@media (prefers-color-scheme: dark) { .zt { --paper: #14181d; --ink: #e3e8ee; --faint: #343c46;
  --run: #68a8ee; --wait: #e9a23b; --other: #6d7885; --kernel: #b18be0; --library: #5cc992;
  --mark: #ff6b74; --c0: #68a8ee; --c1: #5cc992; --c2: #e39a66; --c3: #bd8ee6; --c4: #5cc5cf;
  --c5: #ec82b4; } }
.zt text { fill: var(--ink); font: 11px system-ui, sans-serif; }
.zt .axis { fill: none; stroke: var(--faint); }
.zt .run { fill: var(--run); } .zt .wait, .zt .wake { fill: var(--wait); }
.zt .other { fill: var(--other); } .zt .kernel { fill: var(--kernel); }
.zt .library { fill: var(--library); } .zt .lock { fill: var(--mark); }
.zt .mark rect { fill: var(--mark); fill-opacity: .12; stroke: var(--mark); }
.zt .mark text { fill: var(--mark); font-weight: bold; paint-order: stroke;
  stroke: var(--paper); stroke-width: 3px; }
""" + "".join(f".zt .c{i} {{ fill: var(--c{i}); }}\n" for i in range(COLOURS))


def thread_bars(timeline, tid):
    words = {"run": "runs on", "wait": "could run on", "wake": "was woken for"}
    bars = [Bar(state.start, state.end, 0, state.state,
                f"{words[state.state]} processor {state.cpu}")
            for state in timeline.states[tid] if state.state in words]
    bars += [Bar(span.start, span.end, 1, "library", doing(span))
             for span in timeline.spans if span.tid == tid]
    bars += [Bar(lock.start, lock.end, 1, "lock",
                 f"waits for lock {lock.name} held by {timeline.label(lock.owner)}")
             for lock in timeline.locks[tid]]
    return bars


def processor_bars(timeline, cpu, colours):
    bars = [Bar(run.start, run.end, 0, colours.get(run.tid, "other"), timeline.label(run.tid))
            for run in timeline.processors[cpu] if run.tid]
    return bars + [Bar(span.start, span.end, 1, "kernel", f"{span.kind} {span.name}")
                   for span in timeline.interrupts[cpu].pieces]


class Picture:
    """Of the whole recording, or of `stretch`, a (start, end)."""

    def __init__(self, timeline, cases, stretch=None):
        self.timeline, self.cases = timeline, cases  # {id: Case}
        self.is_still = stretch is not None
        self.start, self.end = stretch or (timeline.begin, timeline.end)
        self.end = max(self.end, self.start + 1000)
        order = sorted(timeline.own, key=lambda tid: -timeline.linux_priority(tid))
        colours = {tid: f"c{i % COLOURS}" for i, tid in enumerate(order)}
        self.tids = order
        self.tracks = [Track(timeline.label(tid), thread_bars(timeline, tid)) for tid in order]
        self.tracks += [Track(f"processor {cpu}", processor_bars(timeline, cpu, colours))
                        for cpu in sorted(timeline.processors)]
        self.keep([(self.start, self.end)])
        self.is_thinned = sum(len(track.bars) for track in self.tracks) > MOST_BARS
        if self.is_thinned:
            self.keep([(case.start - SURROUNDINGS, case.end + SURROUNDINGS)
                       for case in cases.values()])
        if self.is_still:  # threads that do nothing in it have no place in a still picture
            shown = [(tid, track) for tid, track in zip(order, self.tracks) if track.bars]
            self.tids = [tid for tid, _ in shown]
            self.tracks = [track for _, track in shown] + self.tracks[len(order):]
        self.height = TOP + HEIGHT * len(self.tracks) + 4

    def keep(self, stretches):
        self.tracks = [Track(track.name, sorted(
            bar for bar in track.bars
            if any(bar.start < end and bar.end > start for start, end in stretches)))
            for track in self.tracks]

    def x(self, time):
        time = min(max(time, self.start), self.end)
        return NAMES + (time - self.start) / (self.end - self.start) * (WIDTH - NAMES)

    def us(self, time):
        return (time - self.timeline.begin) / 1000

    def bar(self, bar, top):
        left = self.x(bar.start)
        width = max(self.x(bar.end) - left, 0.5)
        y, height = (top + 4, 11) if bar.row == 0 else (top + 16, 6)
        shape = (f'<rect class="{bar.style}" x="{left:.1f}" width="{width:.1f}" y="{y}" '
                 f'height="{height}"')
        if self.is_still:
            return shape + "/>"
        title = f"{bar.title}, {us(bar.end - bar.start)} us"
        return (f'{shape} data-t="{self.us(bar.start):.1f}" '
                f'data-d="{(bar.end - bar.start) / 1000:.1f}"><title>{escape(title)}</title></rect>')

    def mark(self, name, case):
        if case.tid not in self.tids or case.end < self.start or case.start > self.end:
            return
        top = TOP + HEIGHT * self.tids.index(case.tid)
        left = self.x(case.start)
        width = max(self.x(case.end) - left, 1)
        yield (f'<a class="mark" id="{name}" href="#row-{name}" data-t="{self.us(case.start):.1f}" '
               f'data-d="{(case.end - case.start) / 1000:.1f}"><title>{name}: '
               f'{us(case.end - case.start)} us late</title><rect x="{left:.1f}" '
               f'width="{width:.1f}" y="{top + 1}" height="{HEIGHT - 2}"/>'
               f'<text x="{left + 2:.1f}" y="{top + 23}">{name}</text></a>')

    def axis(self):
        wanted = (self.end - self.start) / 1000 / 8
        power = 10 ** max(0, int(math.log10(wanted)))
        step = next(power * factor for factor in (1, 2, 5, 10) if power * factor >= wanted)
        at = -(-int(self.us(self.start)) // step) * step
        while at * 1000 + self.timeline.begin <= self.end:
            x = self.x(at * 1000 + self.timeline.begin)
            yield f'<path class="axis" d="M{x:.1f} 16V{self.height}"/>'
            yield f'<text x="{x:.1f}" y="12" text-anchor="middle">{at / 1000:g} ms</text>'
            at += step

    def names(self):
        """In a picture of their own, which cuts off what has no room."""
        yield f'<svg id="names" width="{NAMES - 4}" height="{self.height}">'
        for number, track in enumerate(self.tracks):
            yield (f'<text x="4" y="{TOP + HEIGHT * number + 17}">{escape(track.name)}'
                   f'<title>{escape(track.name)}</title></text>')
        yield "</svg>"

    def svg(self):
        yield (f'<svg xmlns="http://www.w3.org/2000/svg" class="zt" id="timeline" role="img" '
               f'viewBox="0 0 {WIDTH} {self.height}" aria-label="Timeline of threads and processors" '
               f'data-t="{self.us(self.start):.1f}" data-d="{(self.end - self.start) / 1000:.1f}">')
        yield f"<style>{STYLE}</style>"
        yield f'<rect width="{WIDTH}" height="{self.height}" style="fill: var(--paper)"/>'
        yield '<g id="axis">'
        yield from self.axis()
        yield "</g>"
        for number, track in enumerate(self.tracks):
            top = TOP + HEIGHT * number
            yield f'<path class="axis" d="M0 {top}H{WIDTH}"/>'
            yield '<g class="track">'
            for bar in track.bars:
                yield self.bar(bar, top)
            yield "</g>"
        yield from self.names()
        yield '<g id="marks">'
        for name, case in self.cases.items():
            yield from self.mark(name, case)
        yield "</g></svg>"


def cases_by_name(report):
    """tick-1 is the latest tick."""
    return {f"{kind}-{number}": case for kind, (_, latest) in report.cases.items()
            for number, case in enumerate(latest, 1)}


def picture_of(report, name):
    """One case and what surrounds it."""
    cases = cases_by_name(report)
    case = cases[name]
    room = (case.end - case.start) * 3 // 10
    return "\n".join(Picture(report.timeline, {name: case},
                             (case.start - room, case.end + room)).svg()) + "\n"
