"""Report and timeline as one page that needs nothing else, for where there is no network."""

import os
from html import escape

from picture import STYLE, Picture, cases_by_name
from text import TITLES, head, tables, us


def beside(name):
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), name),
              encoding="utf-8") as file:
        return file.read()


def row(report, name, case):
    timeline = report.timeline
    shown = [f"<li>{us(time)}: {escape(description)}</li>"
             for time, description in report.described(case)]
    what = f"{timeline.label(case.tid)} {case.name}" if case.kind != "interrupt" else case.name
    return (f'<tr id="row-{name}"><td><a href="#{name}">{name}</a></td>'
            f'<td class="n">{us(case.end - case.start)}</td>'
            f'<td class="n">{(case.start - timeline.begin) / 1e6:.3f}</td>'
            f'<td>{escape(what)}</td><td><ul>{"".join(shown)}</ul></td></tr>')


def page(report):
    named = cases_by_name(report)
    picture = Picture(report.timeline, named)
    title = f"Why process {report.recording.process} was late"
    yield (f'<!DOCTYPE html><html lang="en" class="zt"><head><meta charset="utf-8">'
           f'<meta name="viewport" content="width=device-width"><title>{title}</title>'
           f'<style>{STYLE}{beside("page.css")}</style></head><body><main><h1>{title}</h1>')
    yield "<p>" + escape(" ".join(head(report))) + "</p>"
    yield ('<figure><p><button value="+">Zoom in</button> <button value="-">Zoom out</button> '
           '<button value="0">Whole</button> Drag to move, turn the wheel or '
           "pinch to zoom; keys + - 0 and the arrows do it, too. Blue runs, orange could run; below it, green is the "
           "library's, violet the kernel's, red a wait for a lock.</p>")
    if picture.is_thinned:
        yield "<p>Only 50 ms around the cases of the table are shown: there is too much else.</p>"
    yield from picture.svg()
    yield "</figure>"
    for kind, (count, latest) in report.cases.items():
        yield (f"<h2>{escape(TITLES[kind])}</h2><table><caption>The latest {len(latest)} of {count}"
               '</caption><tr><th></th><th class="n">late, us</th><th class="n">due at, ms</th>'
               "<th>what</th><th>where the time went, us</th></tr>")
        for name, case in named.items():
            if case.kind == kind:
                yield row(report, name, case)
        yield "</table>"
    yield "<h2>Totals</h2><pre>" + escape("\n".join(tables(report))) + "</pre>"
    yield f"</main><script>{beside('page.js')}</script></body></html>"
