"""zelkernel-check-wraps, zelkernel-doctor and zelkernel-top, run as a user runs them."""

import concurrent.futures
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

CC = os.environ["CC"]
FUNCTIONS = os.environ["FUNCTIONS"]


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def check_wraps(*arguments):
    """Exit status, and the symbols found by file and rule."""
    result = run(os.environ["CHECK_WRAPS"], "--json", *arguments)
    found = {}
    for entry in json.loads(result.stdout or '{"findings": []}')["findings"]:
        assert entry["reason"] and entry["remedy"], entry
        found[os.path.basename(entry["file"]), entry["rule"]] = entry["symbols"]
    return result.returncode, found


class CheckWraps(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)

    def path(self, name):
        return os.path.join(self.directory.name, name)

    def build(self, output, source, *options, compiler=CC, language="c"):
        built = run(compiler, "-x", language, "-", "-x", "none", "-w", "-o", self.path(output), *options,
                    input=source)
        self.assertEqual(built.returncode, 0, built.stderr)
        return self.path(output)

    def calls(self, output, *names, options=(), compiler=CC):
        body = "".join(f"int {n}(); int call_{n}(void) {{ return {n}(); }}\n" for n in names)
        main = "" if "-c" in options or "-shared" in options else "int main(void) { return 0; }\n"
        return self.build(output, body + main, "-fPIC", "-fno-builtin", *options, compiler=compiler)

    def test_standard_library(self):
        # What cpp-applications.md promises, and that the tool says the same.
        if run("chrt", "-f", "1", "true").returncode != 0:
            print("test_standard_library: Skipped\nno right to real-time priorities", flush=True)
            self.skipTest("no right to real-time priorities")
        programs = ["SHARED_ZELKERNEL", "STATIC_ZELKERNEL", "SHARED_CXX", "STATIC_CXX"]
        facts = {
            "thread": "system's kernel's-16K kernel's kernel's", "jthread": "system's kernel's-16K kernel's kernel's",
            "join-throws": "no yes no no", "detach-throws": "no yes no no",
            "jthread-join-throws": "no yes no no", "jthread-detach-throws": "no yes no no",
            "mutex-redirected": "yes yes yes yes", "recursive-mutex-redirected": "yes yes yes yes",
            "steady-clock-from": "boot kernel-start boot boot",
            "wait-for-waits": "yes no yes yes", "wait-until-steady-clock-waits": "yes no yes yes",
            "try-lock-for-waits": "yes no yes yes", "future-waits": "yes no yes yes",
            "semaphore-waits": "yes yes yes yes", "wait-until-system-clock-waits": "yes yes yes yes",
            "wait-until-system-clock-leaves-entry": "yes no no no",
            "derived-leaves-entry": "yes no no no",
            "shared-try-lock-for-waits": "yes no yes yes", "any-wait-for-waits": "yes no yes yes",
            "others-right": "yes yes yes yes",
            "waits-are-notified": "yes yes yes yes", "system-clock-right": "yes yes yes yes",
            "sleep-for-sleeps": "yes yes yes yes", "sleep-until-sleeps": "yes yes yes yes",
            "static-guarded-by-library": "yes yes yes yes",
            "libstdc++-static-guarded-by-library": "no yes no yes",
        }
        outcomes = {
            "destructor-after-join": "returns aborts returns returns",
            "jthread-destructor": "returns aborts returns returns", "async": "system's aborts kernel's kernel's",
        }
        if "arm-linux-gnueabi-" in CC:  # see cpp_wrapping.cpp
            del facts["future-waits"], outcomes["async"]
        rules = [{"libstdc++-thread", "libstdc++-clock", "libstdc++-condition"}, {"detached-thread"}, set(), set()]
        for column, program in enumerate(programs):
            path = os.environ["CPP_WRAPPING_" + program]
            command = [*os.environ["EMULATOR"].split(), path]
            with self.subTest(program):
                result = run(*command)
                self.assertEqual(result.returncode, 0, result.stderr)
                seen = dict(line.split() for line in result.stdout.splitlines())
                for action in outcomes:
                    result = run(*command, action)
                    aborts = result.returncode == -signal.SIGABRT
                    seen[action] = "aborts" if aborts else result.stdout.strip()
                self.assertEqual(seen, {f: states.split()[column] for f, states in (facts | outcomes).items()})
                found = {rule for _, rule in check_wraps(path)[1]}
                self.assertEqual(found, rules[column] | {"explicit-clock"})

    def test_objects_archives_and_executables(self):
        unit = self.calls("unit.o", "usleep", "sem_clockwait", "mtx_lock", "pthread_setschedprio",
                          "own_function", "write", options=["-c"])
        own = self.build("own.o", "int mtx_lock(void) { return 0; } int usleep(void) { return 0; }", "-c")
        findings = {("unit.o", "explicit-clock"): ["sem_clockwait"], ("unit.o", "c11-threads"): ["mtx_lock"],
                    ("unit.o", "linux-priority"): ["pthread_setschedprio"]}
        self.assertEqual(check_wraps(unit), (1, findings))
        self.assertEqual(check_wraps("--all", unit),
                         (1, findings | {("unit.o", "left-unwrapped"): ["usleep"]}))
        archive = self.path("libunit.a")
        subprocess.run(["ar", "rcs", archive, unit], check=True)
        self.assertEqual(set(check_wraps(archive)[1]), {(f"libunit.a({f})", r) for f, r in findings})
        del findings["unit.o", "c11-threads"]
        findings["own.o", "own-definition"] = ["usleep"]
        self.assertEqual(check_wraps(unit, own), (1, findings))
        lto = self.calls("lto.o", "usleep", options=["-c", "-flto"])
        self.assertEqual(check_wraps(lto), (1, {("lto.o", "not-judged"): []}))
        self.assertEqual(check_wraps("--allow", "not-judged:lto.o", lto), (0, {}))

        joins = self.calls("joins.o", "pthread_join", "pthread_detach", "pthread_tryjoin_np", options=["-c"])
        self.assertEqual(check_wraps(joins)[1], {("joins.o", "detached-thread"):
                         ["pthread_detach", "pthread_join", "pthread_tryjoin_np"]})
        self.assertEqual(check_wraps(self.calls("good.o", "usleep", "write", options=["-c"])), (0, {}))
        self.assertEqual(check_wraps(self.calls("program", "usleep", "pthread_create")),
                         (1, {("program", "left-unwrapped"): ["pthread_create", "usleep"]}))

    def test_names_that_the_library_takes(self):
        own = "static int sev; __attribute__((visibility(\"hidden\"))) int its;"
        use = "extern int timer_id[], num_processors; "
        main = f"int mask[2]; void process(void) {{}} {own} int main(void) {{ return 0; }}"
        unit = self.build("unit.o", main, "-c")
        self.assertEqual(check_wraps(unit), (1, {("unit.o", "taken-name"): ["mask", "process"]}))
        library = ["-no-pie", "-fno-pie", "-Wl,--no-as-needed", os.environ["LIBRARY"]]
        for output, source, found in [
                ("taking", main, ["mask", "process"]),
                ("copying", own + use + "int main(void) { return timer_id[0] + num_processors; }", None)]:
            program = self.build(output, source, *library)
            self.assertEqual(check_wraps(program)[1].get((output, "taken-name")), found)
        shared = self.build("libtaking.so", "int mask;", "-shared")
        found = check_wraps(self.calls("with_library", options=library + [shared, "-Wl,-rpath,$ORIGIN"]))[1]
        self.assertEqual(found, {("libtaking.so", "taken-name"): ["mask"]})
        # Classes of the headers leave weak symbols of the library's in every object that uses them.
        driver = self.build("driver.o", "#include <zelkernel/interrupt_source.hpp>\n"
                            "struct D : Drivers::Api::InterruptProcessing::InterruptServiceRoutine"
                            "{ void isr() override; };\nvoid D::isr() {}", "-c", "-std=c++20",
                            "-I" + os.environ["INCLUDE"], language="c++")
        self.assertEqual(check_wraps(driver), (0, {}))

    def test_what_is_accepted(self):
        unit = self.calls("unit.o", "sem_clockwait", "clock_nanosleep", "thrd_create", options=["-c"])
        clocks, threads = ("unit.o", "explicit-clock"), ("unit.o", "c11-threads")
        self.assertEqual(check_wraps(unit, "--allow", "explicit-clock:sem_clockwait"),
                         (1, {clocks: ["clock_nanosleep"], threads: ["thrd_create"]}))
        with open(self.path("allowed"), "w", encoding="ascii") as allowed:
            allowed.write("explicit-clock # both of them\n\n# C11\nc11-threads:unit.o\n")
        self.assertEqual(check_wraps(unit, "--allow-file", allowed.name), (0, {}))
        gone = check_wraps(unit, "--allow-file", allowed.name, "--allow", "c11-threads:mtx_lock")
        self.assertEqual(gone, (1, {("--allow", "stale-allow"): ["c11-threads:mtx_lock"]}))
        self.assertEqual(check_wraps(unit, "--allow-file", "/nowhere")[0], 2)

    def test_link_time_optimization_by_llvm(self):
        if not shutil.which("clang") or not shutil.which("ld.lld"):
            print("test_link_time_optimization_by_llvm: Skipped\nneeds clang and lld", flush=True)
            self.skipTest("needs clang and lld")
        target = "--target=" + run(CC, "-dumpmachine").stdout.strip()
        source = "int usleep(); int sem_wait(void* s) { return usleep(s); } int main() { return sem_wait(0); }"
        unit = self.build("bitcode.o", source, target, "-flto", "-c", compiler="clang")
        archive = self.path("libbitcode.a")
        subprocess.run(["ar", "rc", archive, unit, self.build("elf.o", "int usleep();", "-c")], check=True)
        self.assertEqual(check_wraps(unit)[1], {("bitcode.o", "not-judged"): []})
        self.assertEqual(check_wraps(archive)[1], {("libbitcode.a(bitcode.o)", "not-judged"): []})
        source = "#include <unistd.h>\nint main(void) { return usleep(1); }"
        # Some versions of the linker leave the names that it has redirected undefined.
        program = self.build("program", source, target, "-flto", "-fuse-ld=lld", "-Wl,--wrap=usleep",
                             "-Wl,--wrap=sleep", "-Wl,--no-as-needed", os.environ["LIBRARY"], compiler="clang")
        self.assertEqual(check_wraps(program)[1], {})

    def test_needed_libraries(self):
        self.calls("libdeep.so", "sleep", options=["-shared"])
        library = self.calls("libneeded.so", "usleep", options=["-shared", "-Wl,--no-as-needed",
                             self.path("libdeep.so"), "-Wl,-soname,libneeded.so"])
        platform = self.build("libplatform.so", "int sleep(); void waitForLinuxInterruptPulse(void)"
                              "{ sleep(); }", "-shared", "-fPIC")
        link = ["-Wl,--no-as-needed", "-L" + self.directory.name, library, platform,
                "-Wl,-rpath-link," + self.directory.name]
        plain, with_path = self.calls("plain", options=link), self.calls("with_path", options=link + [
            "-Wl,-rpath,$ORIGIN", "-Wl,--disable-new-dtags"])
        deep = {("libneeded.so", "library"): ["usleep"]}
        self.assertEqual(check_wraps("-L", self.directory.name, plain)[1],
                         check_wraps(with_path)[1] | deep)
        self.assertEqual(check_wraps(with_path)[1], deep | {("libdeep.so", "library"): ["sleep"]})
        self.assertEqual(check_wraps(plain)[1][("plain", "not-judged")], ["libneeded.so"])

    def test_both_widths_of_time_on_32_bits(self):
        compiler = "arm-linux-gnueabi-gcc"
        if not shutil.which(compiler):
            self.skipTest(f"needs {compiler}")
        source = "#include <time.h>\nvoid f(struct timespec* t) { clock_gettime(1, t); nanosleep(t, t); }"
        wide = self.build("wide.o", source, "-c", "-D_TIME_BITS=64", "-D_FILE_OFFSET_BITS=64",
                          compiler=compiler)
        narrow = self.build("narrow.o", source, "-c", compiler=compiler)
        for unit, call in ((wide, "__clock_gettime64"), (narrow, "clock_gettime")):
            self.assertEqual(check_wraps(unit), (0, {}))
            program = self.build("program", "int main(void) { }", unit, compiler=compiler)
            self.assertEqual(check_wraps(program), (1, {("program", "left-unwrapped"): [call]}))
        # Whatever the system's headers call a wrapped function, it is one of the list.
        with open(FUNCTIONS, encoding="ascii") as lines:
            functions = re.findall(r"^[a-z]\w+$", lines.read(), re.M)
        source = "#define _GNU_SOURCE\n#include <pthread.h>\n#include <semaphore.h>\n#include <time.h>\n" \
                 "#include <unistd.h>\n" + "".join(f"void* f_{f}() {{ return {f}; }}\n" for f in functions)
        for bits in ("-D_TIME_BITS=64", "-D_FILE_OFFSET_BITS=64"), ("-U_TIME_BITS", "-U_FILE_OFFSET_BITS"):
            unit = self.build("calls.o", source, "-c", *bits, compiler=compiler)
            called = check_wraps("--all", unit)[1]["calls.o", "left-unwrapped"]
            self.assertEqual(len(called), len(functions), called)

        names = self.calls("names.o", "__lseek64", "__fixunsdfdi64", "__pthread_cond_timedwait64",
                           "__pthread_cond_clockwait64", "__clock_nanosleep_time64", "__mtx_timedlock64",
                           options=["-c"], compiler=compiler)
        self.assertEqual(check_wraps(names)[1], {
            ("names.o", "explicit-clock"): ["__clock_nanosleep_time64", "__pthread_cond_clockwait64"],
            ("names.o", "c11-threads"): ["__mtx_timedlock64"]})

    def test_what_cannot_be_read(self):
        static = self.calls("static", "usleep", options=["-static"])
        for arguments in ([], ["/nowhere"], [__file__], [static], ["--functions", "/nowhere", static]):
            with self.subTest(arguments):
                result = run(os.environ["CHECK_WRAPS"], *arguments)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("zelkernel-check-wraps", result.stderr)


# A machine of its own: no named namespaces, no rules; `external` is known to ip. The doctor has to
# leave it as it was.
MACHINE = """set -e
mount --make-rprivate / && mount -t tmpfs -o mode=755 none /run && mkdir /run/netns
# An emulator opens the program with its user's rights, who may have none where this tree is.
[ -z "$EMULATOR" ] || {{ mount --bind "${{DOCTOR%/tests/*}}" /srv && DOCTOR=/srv/tests${{DOCTOR##*/tests}}; }}
names=/etc/iproute2; [ -d $names ] || names=/usr/share/iproute2
cp -r $names /run/names && mkdir -p /run/names/rt_tables.d
echo 100 external >/run/names/rt_tables.d/test.conf
mount --bind /run/names $names
{script}
state() {{
    ip -o link; ip rule; ip -6 rule; iptables-save -t mangle | grep -v ^#; ls -R /run; cat /proc/mounts
}}
before=$(PATH=/sbin:/bin state)
{prefix} "$DOCTOR" --json {arguments} && status=0 || status=$?
[ "$before" = "$(PATH=/sbin:/bin state)" ] || status=9
exit $status
"""


def diagnose(arguments="", script="true", prefix=""):
    """Exit status, and status, finding and remedy by what was looked at; in private namespaces."""
    command = MACHINE.format(script=script, prefix=prefix, arguments=arguments)
    result = run("unshare", "--net", "--mount", "sh", "-c", command)
    report = json.loads(result.stdout)
    assert report["good"] == (result.returncode == 0), (result.returncode, report)
    return result.returncode, {c["what"]: (c["status"], c["found"], c["remedy"])
                               for c in report["checks"]}


def diagnose_each(cases):
    """Side by side: each spends its time waiting for ticks, and has a machine of its own."""
    with concurrent.futures.ThreadPoolExecutor() as pool:
        return list(pool.map(lambda case: diagnose(**case), cases))


TUN = "mount -t tmpfs none /dev/net; mknod -m {} /dev/net/tun c 10 200;"


def as_user(capabilities):
    """The prefix that runs a command as another user with these ambient capabilities alone."""
    names = ",".join("+" + name for name in capabilities.split())
    return ("setpriv --reuid 65534 --regid 65534 --clear-groups "
            f"--inh-caps -all,{names} --ambient-caps -all,{names}")


class Service(unittest.TestCase):
    """The example of a systemd unit."""

    def test_is_understood(self):
        if not shutil.which("systemd-analyze"):
            print("test_is_understood: Skipped\nno systemd-analyze", flush=True)
            self.skipTest("no systemd-analyze")
        with tempfile.TemporaryDirectory() as directory:
            copy = os.path.join(directory, "app.service")
            with open(os.environ["UNIT"]) as unit, open(copy, "w") as changed:
                changed.write(re.sub("(?m)^ExecStart=.*", "ExecStart=/bin/true", unit.read()))
            result = run("systemd-analyze", "verify", "--man=no", copy)
        # What it does not know it ignores, and says so.
        self.assertEqual((result.returncode, result.stdout + result.stderr), (0, ""))

    @unittest.skipIf(os.geteuid() != 0, "needs root, to become a user with capabilities")
    def test_gives_rights_that_suffice(self):
        with open(os.environ["UNIT"]) as unit:
            settings = dict(re.findall("(?m)^([A-Za-z]+)=(.*)", unit.read()))
        capabilities = settings["AmbientCapabilities"].lower().replace("cap_", "")
        own = " ".join(f"/run/{name}" for name in settings["RuntimeDirectory"].split())
        self.assertEqual(settings["CapabilityBoundingSet"], settings["AmbientCapabilities"])
        status, found = diagnose(prefix=as_user(capabilities),
                                 script=f"{TUN.format(666)} mkdir -p {own} && chown 65534 {own}")
        self.assertEqual(status, 0, found)


@unittest.skipIf(os.geteuid() != 0, "needs root, for namespaces and real-time priorities")
class Doctor(unittest.TestCase):
    def test_a_good_machine(self):
        status, found = diagnose(script="mkdir /run/netns/red /run/netns/blue /run/netns/.hidden")
        self.assertEqual(status, 0, found)
        self.assertEqual(found["named namespaces"][:2], ("note", "start-up would delete: blue, red"))
        self.assertEqual(found["real-time rights"][:2], ("ok", "SCHED_FIFO up to priority 99"))
        self.assertRegex(found["1 ms tick, lateness"][1], r"^median \d+ us, .* of 1\d{3} ticks lost$")
        for what in ("TUN driver", "table name external", "mark target, IPv4", "mark target, IPv6",
                     "policy routing, IPv4", "policy routing, IPv6"):
            self.assertEqual(found[what][:2], ("ok", "works"), what)

    def test_what_is_missing(self):
        only = "mount -t tmpfs none /mnt; ln -s $(which sh grep true {}) /mnt; export PATH=/mnt; "
        legacy = ("mount -t tmpfs none /mnt; export PATH=/mnt:$PATH; touch /run/xtables.lock;"
                  "chmod 600 /run/xtables.lock; for t in iptables ip6tables; do ln -s $(which xtables-legacy-multi) /mnt/$t; done;")
        nobody = "setpriv --bounding-set -all --inh-caps -all --reuid 65534 --clear-groups"
        marks = {"mark target, IPv4", "mark target, IPv6"}
        in_instance = marks | {"TUN driver", "policy routing, IPv4", "policy routing, IPv6",
                               "table name external"}
        namespaces = {"network namespaces"}
        directory = {"namespace directory"}
        # A file's capabilities are those of the doctor alone.
        filed = ("cp $DOCTOR /run; DOCTOR=/run/zelkernel-doctor; chown 65534 /run/netns;"
                 "setcap cap_sys_nice,cap_net_admin,cap_sys_admin,cap_dac_override+ep $DOCTOR;")
        # As a filter of system calls would: who makes the call, the trial's process, is killed.
        killed = ("mount -t tmpfs none /mnt; export PATH=/mnt:$PATH; echo '[ $1 = -V ] || kill -SYS $("
                  "sed -n s/PPid:.//p /proc/$PPID/status)' >/mnt/ip; sed -i '1i #!/bin/sh' /mnt/ip; chmod +x /mnt/ip;")
        cases = [  # what is missing, what is not tried for that, which remedy is another kernel
            (namespaces, in_instance, set(), {"script": killed}),
            ({"table name external"}, set(), set(), {"script": "rm $names/rt_tables.d/*.conf"}),
            ({"TUN driver"}, set(), {"TUN driver"}, {"script": "mount -t tmpfs none /dev/net"}),
            ({"iptables", "ip6tables"}, marks | {"iptables lock"}, set(), {"script": only.format("ip")}),
            ({"ip"}, in_instance | namespaces, set(), {"script": only.format("iptables ip6tables")}),
            ({"real-time rights"} | directory | namespaces, in_instance, set(), {"prefix": nobody},
             "net_admin, sys_admin"),
            ({"TUN driver"} | directory, set(), set(), {
                "script": TUN.format(600), "prefix": as_user("sys_nice net_admin sys_admin")}),
            (namespaces, in_instance, set(), {"script": filed, "prefix": as_user("setpcap")},
             "net_admin, sys_admin"),
            ({"iptables lock"} | marks, set(), set(), {
                "script": legacy + TUN.format(666) + "chown 65534 /run/netns",
                "prefix": as_user("sys_nice net_admin sys_admin")}, "net_raw"),
            (set(), set(), set(), {
                "script": legacy + TUN.format(666) + "chown 65534 /run/netns; >/run/my.lock;"
                          "chown 65534 /run/my.lock; export XTABLES_LOCKFILE=/run/my.lock",
                "prefix": as_user("sys_nice net_admin sys_admin net_raw")}),
            (set(), set(), set(), {
                "script": legacy + TUN.format(600),
                "prefix": as_user("sys_nice net_admin sys_admin dac_override net_raw")}),
        ]
        if os.environ["EMULATOR"]:  # whose file's capabilities count
            cases = [case for case in cases if "setcap" not in case[3].get("script", "")]
        results = diagnose_each([case[3] for case in cases])
        for (missing, not_tried, kernel, where, *lacking), (status, found) in zip(cases, results):
            with self.subTest(where):
                self.assertEqual(status, 1 if missing else 0)
                self.assertEqual({w for w, (s, _, _) in found.items() if s == "missing"}, missing, found)
                self.assertEqual({w for w, (s, _, _) in found.items() if s == "unknown"}, not_tried)
                self.assertEqual({w for w, (_, _, remedy) in found.items()
                                  if w in missing | not_tried and "CONFIG" in remedy}, kernel, found)
                named = re.findall(r"they lack: (.*?) \(", str(found))
                self.assertEqual(set(named), set(lacking), found)

    def test_priorities(self):
        good = "30,25,20,0,22,100,90,115,10"  # base 10 + 1: 41, 36, 31, 33; application 1..26
        linux = {"interrupt lock ceiling": 41, "interrupt thread": 36, "kernel-call thread": 31,
                 "timer priority": 33, "highest application priority": 26, "lowest application priority": 1}
        _, found = diagnose(f"--priorities {good}")
        for what, priority in linux.items():
            self.assertEqual(found[what][0], "ok")
            self.assertTrue(found[what][1].endswith(f"becomes Linux priority {priority}"), found[what])
        self.assertIn("application priority 90", found["caller of zel_kernel_init"][1])

        order = "order of priorities"
        cases = [  # words, caller's priority, what is missing
            (good, 59, set()), (good, 60, {"interrupt lock ceiling"}),
            ("30,25,20,0,22,100,89,115,10", 1, {"lowest application priority"}),
            ("30,25,20,0,22,100,90,119,10", 1, set()), ("30,25,20,0,22,100,90,120,10", 1, {order}),
            ("30,20,20,0,22,100,90,115,10", 1, {order}), ("24,25,20,0,22,100,90,115,10", 1, {order}),
            ("30,25,20,0,22,100,115,90,10", 1, {order}),
            ("30,25,20,0,22,2147483647,90,115,-2147483648", 1, set(linux)),
        ]
        results = diagnose_each([{"arguments": f"--priorities '{words}' --caller-priority {caller}"}
                                 for words, caller, _ in cases])
        for (words, caller, missing), (status, found) in zip(cases, results):
            with self.subTest((words, caller)):
                self.assertEqual({w for w, (s, _, _) in found.items() if s == "missing"},
                                 missing, found)
                self.assertEqual(status, 1 if missing else 0)

    def test_usage(self):
        for arguments in (["--nonsense"], ["file"], ["--priorities", "1,2,3"], ["--caller-priority", "x"],
                          ["--priorities", "1,2,3,4,5,6,7,8,9,10"], ["--priorities", "1,2,3,4,5,6,7,8,9 "]):
            with self.subTest(arguments):
                result = run(os.environ["DOCTOR"], *arguments)
                self.assertEqual((result.returncode, result.stdout), (2, ""))


@unittest.skipIf(os.geteuid() != 0, "needs root, for a kernel in private namespaces")
class Top(unittest.TestCase):
    def start(self, before):
        """A kernel, in the process whose number is known before it publishes its counters."""
        command = f"mount -t tmpfs none /run && mkdir /run/netns && {before}; exec $LATE_APPLICATION stay"
        process = subprocess.Popen(["unshare", "--net", "--mount", "sh", "-c", command],
                                   env=os.environ | {"ZELKERNEL_STATS": "1"})
        self.addCleanup(lambda: (process.kill(), process.wait()))
        return process

    def test_waits_for_a_process_that_has_just_been_started(self):
        process = self.start("sleep 0.5")
        for _ in range(3):  # each time its whole patience, should the machine be that slow
            result = run(os.environ["TOP"], "--json", str(process.pid))
            if result.returncode == 0:
                break
        self.assertEqual(result.returncode, 0, result.stderr)
        first = json.loads(result.stdout)
        self.assertEqual((first["process"], first["tick"]["period_ns"]), (process.pid, 20000000))

        # The counters are there before the kernel-call thread runs.
        looks = subprocess.Popen([os.environ["TOP"], "--json", "--count", "60", str(process.pid)],
                                 stdout=subprocess.PIPE, text=True)
        with looks:
            for line in looks.stdout:
                now = json.loads(line)
                kcall = [t for t in now["threads"] if t["name"] == "KCall"]
                if kcall and now["tick"]["ticks"] > first["tick"]["ticks"]:
                    break
            else:
                self.fail(f"no KCall that ticks within 60 looks: {line}")
            looks.kill()
        self.assertGreater(now["seconds"], first["seconds"])
        self.assertEqual((kcall[0]["policy"], kcall[0]["linux_priority"],
                          kcall[0]["application_priority"]), ("FIFO", 46, 36))

    def test_a_process_that_has_ended_does_not_run(self):
        process = self.start("exit 0")
        os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOWAIT)
        for number in process.pid, 1 << 29:
            result = run(os.environ["TOP"], str(number))
            self.assertEqual((result.returncode, result.stderr),
                             (1, f"zelkernel-top: process {number} does not run\n"))


class Output(unittest.TestCase):
    def test_that_cannot_be_written(self):
        for name, status in (("CHECK_WRAPS", 2), ("DOCTOR", 2), ("TOP", 1), ("TRACE", 1)):
            reports = name == "TRACE" and not os.environ["EMULATOR"]
            for arguments in ["--version"], ["--help"], *([["report", "--help"]] if reports else []):
                command = [os.environ[name], *arguments]
                with self.subTest(command), open("/dev/full", "w", encoding="ascii") as full:
                    result = subprocess.run(command, stdout=full, check=False, stderr=subprocess.PIPE, text=True)
                    self.assertEqual(result.returncode, status)
                    self.assertRegex(result.stderr, "^zelkernel-.*: .* No space left on device\n$")

                    result = run("sh", "-c", 'exec "$@" >&-', "sh", *command)
                    self.assertEqual(result.returncode, status)
                    self.assertRegex(result.stderr, "^zelkernel-.*: .* Bad file descriptor\n$")

                    # As under a service manager, where the signal is ignored.
                    reading, writing = os.pipe()
                    os.close(reading)
                    result = subprocess.run(["env", "--ignore-signal=PIPE", *command],
                                            stdout=writing, stderr=subprocess.PIPE, check=False)
                    os.close(writing)
                    self.assertEqual((result.returncode, result.stderr), (-signal.SIGPIPE, b""))
            printed = run(os.environ[name], "--version").stdout
            self.assertRegex(printed, f"^zelkernel-[a-z-]+ {os.environ['VERSION']}\n$")


if __name__ == "__main__":
    unittest.main()
