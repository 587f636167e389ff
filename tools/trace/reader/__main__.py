"""What zelkernel-trace runs for report and export."""

import argparse
import os
import signal
import sys

from recording import NotARecording, Recording
from text import Report, as_json, text
from timeline import Timeline


def arguments():
    parser = argparse.ArgumentParser(prog="zelkernel-trace", allow_abbrev=False)
    commands = parser.add_subparsers(dest="command", required=True)
    report = commands.add_parser("report", help="why ticks, interrupts and threads were late")
    report.add_argument("--json", action="store_true")
    report.add_argument("--latest", type=int, default=5, metavar="N", help="cases of each kind (5)")
    report.add_argument("file")
    return parser.parse_args()


def main():
    options = arguments()
    try:
        recording = Recording(options.file)
    except (OSError, NotARecording) as error:
        reason = error.strerror if isinstance(error, OSError) else error
        sys.exit(f"zelkernel-trace: {options.file}: {reason}")
    timeline = Timeline(recording)
    report = Report(recording, timeline, options.latest)
    print(as_json(report) if options.json else "\n".join(text(report)))


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    main()
    sys.stdout.flush()
    os._exit(0)  # millions of small objects take long to go one by one
