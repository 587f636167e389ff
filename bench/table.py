#!/usr/bin/env python3
"""Runs the measuring programs, ours and reference by turns, and prints one table of medians.

    table.py HOST_BUILD TARGET_BUILD [--once | --probes HOST_BUILD TARGET_BUILD]

HOST_BUILD/table.md and HOST_BUILD/table.json get the table. A goal that is missed is marked and is
no failure; a program that fails is. With --once everything runs as briefly as it can, to see that
it runs: the table is made and not shown. With --probes the library runs by turns with that of two
builds without probe points, and what is printed is each row with : without them.
"""

import collections
import datetime
import json
import os
import re
import statistics
import subprocess
import sys
import time

HOST, TARGET = sys.argv[1:3]
ONCE = sys.argv[3:] == ["--once"]
BUILDS = [(HOST, TARGET), *([sys.argv[4:6]] if sys.argv[3:4] == ["--probes"] else [])]
ROUNDS = 7 if len(BUILDS) > 1 else 1
TIMES = 3 if len(BUILDS) > 1 else 10  # how often in a round what is brief is measured

samples = None  # path -> side -> values; the sides are "ours" and, where there is one, "reference"

progress = ""  # what is being measured, and how much is left


def run(*command):
    done = subprocess.run(command, check=False, stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit(f"bench: failed (exit status {done.returncode}): {' '.join(command)}")
    return done.stdout


def measured(*command):
    """The output of a measuring program, which is ended and named when it takes far too long."""
    return run("scripts/lib/step", "--keep", "--limit", "240", f"bench: {progress}", *command)


def program(name, *arguments):
    """A program's samples: lines of path, side, value."""
    for line in measured(f"{HOST}/bench/{name}", *arguments).splitlines():
        path, side, value = line.split("\t")
        samples[path][side].append(float(value))


def harness(name, repetitions):
    """Google Benchmark's samples: processor time, so that other work on the machine counts less."""
    repetitions = 1 if ONCE else repetitions * TIMES
    output = measured(f"{HOST}/bench/{name}", "--benchmark_enable_random_interleaving=true",
                      f"--benchmark_repetitions={repetitions}", "--benchmark_min_time=0.003",
                      "--benchmark_format=json")
    for each in json.loads(output)["benchmarks"]:
        if each["run_type"] == "iteration":
            path, side = each["name"].rsplit("/", 1)
            samples[path][side].append(each["cpu_time"])


def cyclictest(side, seconds, *options):
    """Every lateness in ns, of a thread with the priority and the period of the kernel's tick."""
    output = measured("cyclictest", "-v", "-N", "-m", "-p", "46", "-i", "1000", "-t", "1",
                      "-D", str(seconds), *options)
    samples["tick"][side] += map(float, re.findall(r"^ *0: *\d+: *(\d+)$", output, re.M))


def target_functions(library):
    """The target library's functions: name to lines of disassembly."""
    text = run("arm-linux-gnueabi-objdump", "-d", "--no-show-raw-insn", library)
    return {name: body.splitlines()
            for name, body in re.findall(r"^[0-9a-f]+ <(.+)>:\n((?:.+\n)+)", text, re.M)}


def called(functions, start):
    """`start` and all that it calls, directly or not."""
    reached, to_do = set(), [start]
    while to_do:
        name = to_do.pop()
        if name not in reached:
            reached.add(name)
            to_do += re.findall(r"\tb\w*\s+[0-9a-f]+ <([^+>]+)>", "\n".join(functions[name]))
    return reached


def inner_loop(lines):
    """Instructions and bytes of the loop that loads the most registers a turn."""
    addresses = [int(line.split(":")[0], 16) for line in lines]
    best = (0, 0)
    for end, line in enumerate(lines):
        branch = re.search(r"\tb\w*\s+([0-9a-f]+) ", line)
        if not branch or int(branch[1], 16) not in addresses[:end]:
            continue
        loop = lines[addresses.index(int(branch[1], 16)):end + 1]
        lists = re.findall(r"\tldm.*\{(.*)\}", "\n".join(loop))
        best = max(best, (4 * sum(len(each.split(",")) for each in lists), len(loop)))
    return best


def examine_target(target):
    library = f"{target}/src/libzelkernel.so"
    functions = target_functions(library)
    path = called(functions, "__wrap_clock_gettime")
    samples["clock_gettime, target: division routines called"]["ours"] = [
        sum("div" in name for name in path)]
    loaded, instructions = max((inner_loop(functions[name]) for name in functions
                                if "sum_blocks" in name), default=(0, 0))
    if loaded == 0:
        sys.exit(f"bench: {library} has no function sum_blocks with a loop to count in")
    samples["checksum, target: instructions per byte"]["ours"] = [instructions / loaded]
    stripped = f"{target}/libzelkernel.stripped.so"
    run("arm-linux-gnueabi-strip", "-o", stripped, library)
    text, data = run("arm-linux-gnueabi-size", stripped).splitlines()[1].split()[:2]
    samples["size of the target's library, text and data"]["ours"] = [(int(text) + int(data)) / 1024]


# What is run, and the seconds that it takes on the machine of docs/benchmarks.md.
STEPS = [
    (harness, 2 * TIMES, "calls_bench", 30),
    (harness, 3 * TIMES, "checksum_bench", 10),
    (program, 1, "kcall_pass_bench"),
    (program, 1, "thread_creation_bench"),
    *[(program, 0.5, "interrupt_bench", "ours", "300"),
      (program, 0.5, "interrupt_bench", "reference", "300")] * TIMES,
    (program, 33, "packets_bench"),
    (program, 15, "data_path_bench"),
    (program, 10, "instances_bench"),
    (program, 0.5, "startup_bench"),
    *[(program, 3, "tick_bench", "3"),
      (cyclictest, 3, "cyclictest", 3),
      (cyclictest, 2, "cyclictest, signals", 2, "--posix_timers")] * TIMES,
]


def new_samples():
    return collections.defaultdict(lambda: collections.defaultdict(list))


def measure():
    """The rows of each round and build; the builds take turns at every step."""
    global progress, rows, samples
    steps = [(step[0], 1, *step[2:]) for step in dict.fromkeys(STEPS)] if ONCE else STEPS
    turns = len(steps) * ROUNDS * len(BUILDS)
    begin, done = time.monotonic(), 0
    expected = sum(step[1] for step in steps) * ROUNDS * len(BUILDS)
    number, results = 0, []
    for _ in range(ROUNDS):
        tables = [new_samples() for _ in BUILDS]
        for (_, target), samples in zip(BUILDS, tables):
            examine_target(target)
        for method, seconds, name, *arguments in steps:
            for (host, _), samples in zip(BUILDS, tables):
                number += 1
                pace = (time.monotonic() - begin) / done if done else 1
                progress = (f"{number} of {turns}, {name}, in all about "
                            f"{(expected - done) * pace:.0f} s left")
                if len(BUILDS) > 1:  # commands that a program runs look there, too
                    os.environ["LD_LIBRARY_PATH"] = f"{host}/src"
                method(name, *arguments)
                done += seconds
        results.append([])
        for samples in tables:
            rows = []
            make_rows()
            results[-1].append(rows)
    return results


Goal = collections.namedtuple("Goal", "text is_met")
NO_GOAL = Goal("", lambda *_: None)


def at_most_times(limit):
    return Goal(f"≤ {limit:.2f}", lambda ours, reference: ours <= reference * limit)


def at_least_times(limit):
    return Goal(f"≥ {limit:.2f}", lambda ours, reference: ours >= reference * limit)


def at_most_more(limit):
    return Goal(f"≤ +{limit} ns", lambda ours, reference: ours <= reference + limit)


def at_most(limit, unit=""):
    return Goal(f"≤ {limit}{unit}", lambda ours, _: ours <= limit)


def percentile(values, share):
    return sorted(values)[min(len(values) - 1, int(len(values) * share))]


rows = []  # of the table that is being made


def row(path, unit, goal, ours, reference=None, against=""):
    rows.append({"path": path, "unit": unit, "ours": ours, "reference": reference,
                 "against": against, "ratio": ours / reference if reference else None,
                 "goal": goal.text, "met": goal.is_met(ours, reference)})


def fastest(values, unit):
    """The fastest tenth: other work on the machine, and on what it shares, only makes slower."""
    return percentile(values, 0.9 if unit == "k/s" else 0.1)


def side_by_side(path, unit, goal, against="", scale=1.0, other="reference"):
    ours, reference = (samples[path].get(side) for side in ("ours", other))
    row(path, unit, goal, fastest(ours, unit) * scale,
        fastest(reference, unit) * scale if reference else None, against)


def matching(prefix, *arguments):
    for path in [path for path in samples if path.startswith(prefix)]:
        side_by_side(path, *arguments)


def tick_rows():
    """Beside cyclictest as it is, and beside its way to be woken as the kernel-call thread is."""
    for name, share in (("median", 0.5), ("99 %", 0.99), ("maximum", 1)):
        ours = percentile(samples["tick"]["ours"], share) / 1000
        for side in ("cyclictest", "cyclictest, signals"):
            row(f"tick lateness, 1 ms, {name}", "us", at_most_times(1.1) if share < 1 else NO_GOAL,
                ours, percentile(samples["tick"][side], share) / 1000, side)


def data_path_rows():
    """What configuration by another thread costs a packet: nothing but what it costs a write()."""
    def us(path, side, share):
        return percentile(samples[path][side], share) / 1000

    for path, system in ("send", "write()"), ("gap of reception", "gap between packets"):
        for name, share in (("99.9 %", 0.999), ("longest", 1)):
            quiet, loaded = us(path, "quiet", share), us(path, "configuration", share)
            goal = at_most_times(2) if share < 1 else Goal(
                "no wait over 5 ms", lambda ours, quiet: ours <= max(quiet, 5000))
            text = f"{path}, {name}, beside configuration"
            row(text, "us", goal, loaded, quiet, "quiet")
            row(text, "us", NO_GOAL, loaded, us(system, "configuration", share),
                system if path == "send" else "as they came")


def busy_among_many_rows():
    for size in (64, 1500):
        side_by_side(f"receive, {size} bytes, 256 devices, one busy", "k/s", at_least_times(0.8),
                     "select() + read(), that one alone", 1e-3, "alone")


def checksum_rows():
    """Beside the fastest of the references, or beside the 16-bit loop for short blocks."""
    names = {"words16": "16-bit loop", "words32": "32-bit loads", "carry_chain": "carry chain"}
    paths = [path.split("/") for path in samples if path.startswith("checksum/")]
    for _, length, place in sorted(paths, key=lambda parts: (int(parts[1]), parts[2])):
        path = f"checksum/{length}/{place}"
        times = {side: fastest(values, "ns") for side, values in samples[path].items()}
        ours = times.pop("ours")
        best = min(times, key=times.get) if int(length) >= 576 else "words16"
        row(f"checksum, {int(length):,} bytes, {place}", "ns",
            Goal("< 1", lambda ours, reference: ours < reference), ours, times[best],
            names[best])


def make_rows():
    side_by_side("mutex lock + unlock", "ns", at_most_more(2), "system's")
    side_by_side("semaphore post + wait", "ns", at_most_more(2), "system's")
    side_by_side("clock_gettime, monotonic", "ns", at_most_more(3), "system's")
    side_by_side("clock_gettime, target: division routines called", "", at_most(0))
    side_by_side("cond_timedwait, expired, 1,000 known", "ns", at_most_times(1.25), "system's")
    side_by_side("kcall_enqueue", "ns", at_most_times(1.1), "lock, store, unlock", 1e-3)
    side_by_side("1,000 queued calls in one pass", "ns", at_most_times(1.1), "unlock, call, lock")
    side_by_side("thread creation until its routine runs", "us", at_most_times(1.2), "system's", 1e-3)
    tick_rows()
    side_by_side("interrupt pulse to service routine", "us", at_most_times(1.1), "bare read()", 1e-3)
    matching("receive, ", "k/s", at_least_times(0.95), "select() + read()", 1e-3)
    row("heap allocations while receiving", "", at_most(0),
        sum(samples["heap allocations while receiving"]["ours"]))
    busy_among_many_rows()
    matching("processor time, 256", "ms", at_most_times(0.5), "select() + read()", 1e-6)
    matching("send, ", "k/s", at_least_times(0.97), "write()", 1e-3)
    data_path_rows()
    checksum_rows()
    side_by_side("checksum, target: instructions per byte", "", at_most(0.5))
    side_by_side("zel_vrf_create", "ms", at_most_times(1.05), "shell script", 1e-6)
    side_by_side("size of the target's library, text and data", "KiB", at_most(64, " KiB"))
    side_by_side("resident memory added by start-up", "KiB", at_most(400, " KiB"))


def number(value, unit):
    if value is None:
        return ""
    digits = 0 if value == int(value) or value >= 1000 else 2 if value < 10 else 1
    return f"{value:,.{digits}f} {unit}".strip()


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        cpuinfo = file.read()
    model = re.search(r"^model name\s*: (.*)$", cpuinfo, re.M)
    virtual = ", virtual machine" if "hypervisor" in cpuinfo else ""
    return (f"{os.cpu_count()} x {model[1] if model else os.uname().machine}{virtual}; Linux "
            f"{os.uname().release}; {os.confstr('CS_GNU_LIBC_VERSION')}; "
            f"{run('c++', '--version').splitlines()[0]}; load at the start {load:.1f}; "
            f"{datetime.date.today()}")


def markdown():
    lines = [f"Machine: {machine()}", "",
             "| path | ours | reference | | ratio | goal | met |", "|---|--:|--:|---|--:|---|---|"]
    for each in rows:
        ratio = "" if each["ratio"] is None else f"{each['ratio']:.3f}"
        met = {True: "yes", False: "**no**", None: ""}[each["met"]]
        lines.append(f"| {each['path']} | {number(each['ours'], each['unit'])} | "
                     f"{number(each['reference'], each['unit'])} | {each['against']} | {ratio} | "
                     f"{each['goal']} | {met} |")
    return "\n".join(lines) + "\n"


def with_to_without(first, second):
    """First : second, each of them as the ratio to its reference where it has one."""
    first, second = (each["ratio"] or each["ours"] for each in (first, second))
    return 1 if first == second else first / second


def comparison(results):
    lines = [f"Machine: {machine()}; {ROUNDS} rounds", "",
             "| path | with | without | with : without | least to greatest |",
             "|---|--:|--:|--:|--:|"]
    for each in zip(*(zip(*builds) for builds in results)):
        ratios = [with_to_without(*pair) for pair in each]
        ours = (number(statistics.median(row["ours"] for row in side), side[0]["unit"])
                for side in zip(*each))
        path = each[0][0]["path"] + (", to " + each[0][0]["against"] if each[0][0]["against"] else "")
        lines.append(f"| {path} | {' | '.join(ours)} | {statistics.median(ratios):.3f} | "
                     f"{min(ratios):.3f} to {max(ratios):.3f} |")
    return "\n".join(lines) + "\n"


load = os.getloadavg()[0]
if ONCE:
    os.environ["ZEL_BENCH_ONCE"] = "1"
all_rows = measure()
if len(BUILDS) > 1:
    print(comparison(all_rows), end="")
    sys.exit()
table = markdown()
with open(f"{HOST}/table.md", "w", encoding="utf-8") as output_file:
    output_file.write(table)
with open(f"{HOST}/table.json", "w", encoding="utf-8") as output_file:
    json.dump({"machine": machine(), "rows": rows}, output_file, indent=1, ensure_ascii=False)
if not ONCE:
    print(table, end="")
