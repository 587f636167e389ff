"""What zelkernel-trace runs for report and export."""

import argparse
import errno
import gc
import os
import signal
import sys

from chrome import trace_events
from page import page
from picture import cases_by_name, picture_of
from recording import NotARecording, Recording
from text import Report, as_json, text
from timeline import Timeline


class Parser(argparse.ArgumentParser):
    # Python's own keeps quiet about what cannot be written.
    def _print_message(self, message, file=None):
        (file or sys.stderr).write(message or "")


def arguments():
    parser = Parser(prog="zelkernel-trace", allow_abbrev=False)
    commands = parser.add_subparsers(dest="command", required=True)
    report = commands.add_parser("report", help="why ticks, interrupts and threads were late")
    report.add_argument("--json", action="store_true")
    report.add_argument("--latest", type=int, default=5, metavar="N", help="cases of each kind (5)")
    report.add_argument("file")
    export = commands.add_parser("export", help="for a viewer: trace-event JSON, or a page")
    form = export.add_mutually_exclusive_group()
    form.add_argument("--html", action="store_true", help="one page that needs nothing else")
    form.add_argument("--svg", metavar="CASE", help="a picture of one case of the page: tick-1")
    export.add_argument("--latest", type=int, default=5, metavar="N", help="cases of each kind (5)")
    export.add_argument("-o", dest="output", metavar="OUTPUT", help="(standard output)")
    export.add_argument("file")
    return parser.parse_args()


def export_as(options, report):
    if options.html:
        return (line + "\n" for line in page(report))
    if options.svg is None:
        return trace_events(report.recording, report.timeline)
    if options.svg not in cases_by_name(report):
        sys.exit(f"zelkernel-trace: {options.file} has no {options.svg}: "
                 f"{', '.join(cases_by_name(report))}")
    return [picture_of(report, options.svg)]


def write(output, content):
    if output is None:
        sys.stdout.writelines(content)
        return
    try:
        with open(output, "w", encoding="utf-8") as file:
            file.writelines(content)
    except OSError as error:
        sys.exit(f"zelkernel-trace: {output}: {error.strerror}")


def main():
    options = arguments()
    try:
        recording = Recording(options.file)
        timeline = Timeline(recording)
    except (OSError, NotARecording) as error:
        reason = error.strerror if isinstance(error, OSError) else error
        sys.exit(f"zelkernel-trace: {options.file}: {reason}")
    report = Report(recording, timeline, options.latest)
    if options.command == "export":
        write(options.output, export_as(options, report))
    else:
        print(as_json(report) if options.json else "\n".join(text(report)))


def run():
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    gc.disable()  # it would look through millions of objects again and again, and find no cycle
    try:
        if sys.stdout is None:  # closed by the caller
            raise OSError(errno.EBADF, os.strerror(errno.EBADF))
        try:
            main()
        finally:
            sys.stdout.flush()
    except OSError as error:
        print(f"zelkernel-trace: the output cannot be written: {error.strerror}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    os._exit(run())  # millions of small objects take long to go one by one
