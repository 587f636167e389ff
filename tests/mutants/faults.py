"""The faults that tests/mutants/run makes: in FILE under src/, OLD becomes NEW, and one of the
PROGRAMS has to fail. To add one, break what a test should watch over."""
from typing import NamedTuple


class Fault(NamedTuple):
    name: str
    file: str
    old: str
    new: str
    programs: list


def of(file, *programs):
    """A maker of faults in one file."""
    return lambda name, old, new, by=None: Fault(name, "src/" + file, old, new,
                                                 by.split() if by else list(programs))


threads = of("Threads.cpp", "threads_test")
scheduling = of("Scheduling.cpp", "threads_test")
affinity = of("Affinity.cpp", "threads_test")
locks = of("Locks.cpp", "locks_test")
conditions = of("Conditions.cpp", "conditions_test")
clock = of("Clock.cpp", "clock_test")
uptime = of("Uptime.hpp", "clock_test")
kcall = of("LinuxKcallQueue.cpp", "kcall_test")
start_up = of("KernelStartUp.cpp", "kernel_test")
state = of("KernelState.cpp", "kernel_test")
signals = of("ReservedSignals.cpp", "kernel_test")
system = of("SystemInformation.cpp", "kernel_test")
command = of("ShellCommand.cpp", "kernel_test")
closing = of("CloseOnExec.hpp", "kernel_test")
source = of("LinuxInterruptSource.cpp", "interrupts_test")
manager = of("LinuxInterruptMgr.cpp", "interrupts_test")
deferred = of("LinuxDeferredServiceController.cpp", "interrupts_test")
link = of("zel_tun/TunLink.cpp", "routing_test")
routes = of("zel_tun/Routes.cpp", "routing_test")
traffic = of("zel_tun/ExternalTraffic.cpp", "routing_test")
instances = of("zel_tun/RoutingInstances.cpp", "routing_test")
clean_up = of("zel_tun/NamespaceCleanUp.cpp", "routing_test")
text = of("zel_tun/OutputText.cpp", "routing_test", "texts_test")
devices = of("zel_tun/TunDevices.cpp", "tun_test")
receive = of("zel_tun/PacketReceive.cpp", "packets_test")
packet_send = of("zel_tun/PacketSend.cpp", "packets_test")
wait = of("zel_tun/ReceiveWait.cpp", "packets_test")
pending = of("zel_tun/PendingDeletes.cpp", "tun_test")
wakeup = of("zel_tun/ReceiveWakeup.cpp", "tun_test")
descriptors = of("zel_tun/TunDescriptor.cpp", "descriptors_test")
checksum = of("IpAccelerators.cpp", "checksum_test")
wide = of("OnesComplementSumWide.hpp", "checksum_test")
fold = of("OnesComplement.hpp", "checksum_test")
statistics = of("Statistics.cpp", "statistics_test")

FAULTS = [
    threads("the registry has no lock at removal",
            "    const zel::PosixLock lock{current_pthread_ids_mutex};\n    current_pthread_ids->erase",
            "    current_pthread_ids->erase", "threads_test locks_test races_test"),
    threads("an id is entered after its lock is gone",
            "        node.value() = id;\n        current_pthread_ids->insert(std::move(node));\n    }\n",
            "        node.value() = id;\n    }\n    current_pthread_ids->insert(std::move(node));\n"),
    threads("a refused creation keeps its start block",
            "    if (result != 0)\n        std::free(block);", ""),
    threads("threads are joinable", "PTHREAD_CREATE_DETACHED", "PTHREAD_CREATE_JOINABLE"),
    threads("the creator's scheduling is inherited", "PTHREAD_EXPLICIT_SCHED",
            "PTHREAD_INHERIT_SCHED"),
    threads("threads do not start on the first processor", "    setThreadAffinityCPU0();\n", ""),
    threads("a cancelled thread stays registered",
            "    pthread_setspecific(end_of_thread_key, &end_of_thread_key);\n", ""),
    threads("cancellation may hit the end of a thread",
            "    start.start_routine(start.arg);\n    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, "
            "nullptr);\n", "    start.start_routine(start.arg);\n", "races_test"),
    threads("the id is stored though creation is refused",
            "            errno = result;\n            return result;",
            "            errno = result;\n            *thread = 0;\n            return result;"),
    threads("a stack of exactly the caller's address is not taken",
            "size > zel::minimum_stack_size || address != nullptr", "size > 20 * 4096"),
    scheduling("a name is cut one letter too early", "strnlen(name, limit + 1) <= limit",
               "strnlen(name, limit) < limit"),
    scheduling("a priority is read back unshifted",
               "zel::to_application_priority(local.sched_priority)", "local.sched_priority"),
    scheduling("a stack below the minimum is taken",
               "const size_t size = std::max(stacksize, zel::minimum_stack_size);",
               "const size_t size = stacksize;"),
    affinity("the first line printed counts as the number of processors",
             "number = std::strtol(line, nullptr, 10);",
             "number = number != 0 ? number : std::strtol(line, nullptr, 10);"),
    affinity("bits of processors beyond 32 are shifted in", "std::min(cached_count(), 32)",
             "cached_count()"),
    affinity("a signal ends the count", "errno != EINTR", "true"),

    locks("a lock is not retried after a timeout", "if (result != ETIMEDOUT)",
          "if (result != EAGAIN)"),
    locks("mutexes do not inherit priority", "(attr, PTHREAD_PRIO_INHERIT)",
          "(attr, PTHREAD_PRIO_NONE)"),
    locks("inheritance is asked for once", "    pthread_mutexattr_setprotocol(&inheriting, "
          "PTHREAD_PRIO_INHERIT);\n", ""),
    locks("the library's lock is taken with the switch off",
          "held_ = posix_locks_are_on() && ::lock(&mutex_) == 0", "held_ = ::lock(&mutex_) == 0"),
    locks("the library's lock is not released once the switch is off",
          "    if (!held_)\n        return 0;",
          "    if (!held_ || !posix_locks_are_on())\n        return 0;"),
    locks("an unlock ignores the switch",
          "return posix_locks_are_on() ? pthread_mutex_unlock(mutex) : 0",
          "return pthread_mutex_unlock(mutex)", "wrapping_test"),
    locks("a semaphore is shared", "return sem_init(sem, 0, value);",
          "return sem_init(sem, 1, value);"),
    locks("a signal ends a timed semaphore wait",
          "if (result != -1 || errno != EINTR)\n", "if (true)\n"),
    locks("the old ceiling is not shifted back", "    *where = zel::to_application_priority(*where);\n",
          ""),

    conditions("a timed wait keeps the lock of the clocks",
               "    if (known_clock(cond) != CLOCK_MONOTONIC)\n",
               "    const clockid_t known = known_clock(cond);\n"
               "    const zel::PosixLock kept{cond_clock_map_mutex};\n"
               "    if (known != CLOCK_MONOTONIC)\n",
               "conditions_test locks_test"),
    conditions("the clocks have no lock at destruction",
               "    const zel::PosixLock lock{cond_clock_map_mutex};\n"
               "    const int result = pthread_cond_destroy(cond);",
               "    const int result = pthread_cond_destroy(cond);", "conditions_test locks_test"),
    conditions("a known condition variable changes its clock",
               "cond_clock_map->try_emplace(key_of(cond), CondClockEntry{cond, clock_of(attr)})",
               "cond_clock_map->insert_or_assign(key_of(cond), CondClockEntry{cond, clock_of(attr)})"),
    uptime("a deadline loses its carry", "        result.tv_sec = add_seconds(result.tv_sec, 1);\n", "",
           "conditions_test"),
    uptime("the uptime loses its borrow", "        --ts->tv_sec;\n", ""),
    uptime("a split start time is not checked", "    if (!starttime_is_split()) [[unlikely]] {",
           "    if (false) {"),
    clock("the time before a change is the kernel's",
          "    clock_gettime(clock, &before);\n", "    __wrap_clock_gettime(clock, &before);\n"),
    clock("every clock but CLOCK_REALTIME is moved",
          "clock == CLOCK_MONOTONIC ? zel", "clock != CLOCK_REALTIME ? zel"),
    clock("the callback comes before the change",
          "    const int result = clock_settime(clock, tp);\n    const int error = errno;\n"
          "    if (updateRTCFunc != nullptr)\n        updateRTCFunc(clock, &before);\n",
          "    if (updateRTCFunc != nullptr)\n        updateRTCFunc(clock, &before);\n"
          "    const int result = clock_settime(clock, tp);\n    const int error = errno;\n"),
    clock("the callback's errno is the caller's", "    errno = error;", "    (void)error;"),
    clock("a sleep starts again after a signal", "nanosleep(&request, &request)",
          "nanosleep(&request, nullptr)"),
    clock("milliseconds are microseconds", "split(ms, 1000)", "split(ms, 1'000'000)"),
    clock("a guard's release leaves it unset",
          "__atomic_store_n(static_cast<unsigned char*>(guard), 1,",
          "__atomic_store_n(static_cast<unsigned char*>(guard), 0,", "clock_test wrapping_test"),

    kcall("the queue takes 1024 calls", "    if (entry == KCallOut) {", "    if (false) {"),
    kcall("a cancellation compares three words",
          " &&\n           entry.arguments[1] == call.arguments[1] && entry.arguments[2] == "
          "call.arguments[2]", " && entry.arguments[1] == call.arguments[1]"),
    kcall("a cancellation acts during a pass",
          "    const QueueLock lock;\n    if (KCallLevel != 0)\n        return 0;\n",
          "    const QueueLock lock;\n"),
    kcall("a cancellation looks for a pass before it has the lock",
          "    const QueueLock lock;\n    if (KCallLevel != 0)\n        return 0;\n",
          "    if (KCallLevel != 0)\n        return 0;\n    const QueueLock lock;\n"),
    kcall("a caller chooses its entry before it has the lock",
          "    const QueueLock lock;\n    KernelCall* const entry = next(KCallIn);\n",
          "    KernelCall* const entry = next(KCallIn);\n    const QueueLock lock;\n"),
    kcall("the poller runs without the queue's lock", "        KCallRunPoller();\n",
          "        const QueueUnlock unlocked;\n        KCallRunPoller();\n"),
    kcall("a call runs under the queue's lock", "    const QueueUnlock unlocked;\n", ""),
    kcall("the poller runs after the calls",
          "    if (KCallRunPoller != nullptr) {\n",
          "    if (KCallIn != KCallOut)\n        run_pending_calls();\n"
          "    if (KCallRunPoller != nullptr) {\n"),
    kcall("an entry is given up before its call runs",
          "        run_call(*entry);\n        KCallOut = entry;\n",
          "        KCallOut = entry;\n        run_call(*entry);\n"),
    kcall("the first tick comes at once", "const itimerspec period{tick_period, tick_period}",
          "const itimerspec period{tick_period, {0, 1}}"),
    kcall("the tick signal is not blocked", "    block_tick_signal();\n    start_tick();",
          "    start_tick();\n    block_tick_signal();", "kcall_test kernel_test"),
    kcall("the longest period is too long by one", "tick_period_us > longest",
          "tick_period_us > longest + 1"),

    start_up("the callback is stored after the kernel-call thread runs",
             "    updateRTCFunc = update_rtc_func;\n    initialize_interrupts_disabled_mutex();\n"
             "    zel::publish_statistics();\n    start_kernel_calls(run_poller, tick_period_us);\n",
             "    initialize_interrupts_disabled_mutex();\n    zel::publish_statistics();\n"
             "    start_kernel_calls(run_poller, tick_period_us);\n"
             "    updateRTCFunc = update_rtc_func;\n"),
    start_up("initialized is set before start-up has finished", "    kernel_priorities = priorities;\n",
             "    kernel_priorities = priorities;\n    initialized = 1;\n"),
    start_up("the ceiling is not rebased",
             "zel::linux_priority(kernel_priorities.interrupt_lock_priority)",
             "kernel_priorities.interrupt_lock_priority"),
    start_up("shut-down signals stay blocked",
             "    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);\n", ""),
    start_up("any DEBUGGER counts", "std::strcmp(debugger, \"TRUE\") == 0", "*debugger != '\\0'"),
    start_up("namespaces of an earlier run stay", "    remove_all_network_namespaces();\n", ""),
    state("the kernel-call thread's context is the application's",
          "return pthread_equal(pthread_self(), zel::kcall_thread_id) != 0", "return 0",
          "kernel_test kcall_test"),
    state("the timer's priority is not rebased",
          "return zel::linux_priority(kernel_priorities.timer_priority)",
          "return kernel_priorities.timer_priority"),
    signals("one signal too few shuts down", "shutdown_end = 10", "shutdown_end = 9"),
    signals("two signals change places", "SIGTERM, SIGHUP, ", "SIGHUP, SIGTERM, "),
    signals("a role has an entry too few", "exception_report_end = 8", "exception_report_end = 7"),
    signals("the last signal is not listed", "range(0, std::size(signal_table), count)",
            "range(0, std::size(signal_table) - 1, count)"),
    signals("the second real-time signal is another", "SIGRTMIN + 1", "SIGRTMIN + 2"),
    signals("the table is given without its count",
            "    if (count == nullptr)\n        return nullptr;\n    *count = end - begin;\n",
            "    if (count != nullptr)\n        *count = end - begin;\n"),
    signals("threads are suspended by another signal", "return SIGUSR2", "return SIGUSR1"),
    system("any line with Inactive counts", "std::strstr(line, \"Inactive:\")",
           "std::strstr(line, \"Inactive\")"),
    system("a number loses its first digit", "colon + 2", "colon + 3"),
    system("kilobytes have 1000 bytes", "* 1024;", "* 1000;"),
    system("the first colon counts", "(bytes_of(key))", "(bytes_of(line))"),
    system("the first colon of free memory counts", "+= bytes_of(key)", "+= bytes_of(line)"),
    system("memory that is free twice counts twice", "found < 2", "found < 3"),
    system("the file is read with a flag of the C library's own", "\"/proc/meminfo\", \"r\"",
           "\"/proc/meminfo\", \"re\""),
    system("nobody is told that there is no file",
           "        std::printf(\"Failed to open file /proc/meminfo\\n\");\n", "        ;\n"),
    command("the last character is not terminated", "capture(running.stream(), output, output_size - 1)",
            "capture(running.stream(), output, output_size)"),
    command("a command stays on its caller's processor", "CPU_COUNT(&own_) != 1",
            "CPU_COUNT(&own_) != 0"),
    command("a caller is not brought back to its processor",
            "            sched_setaffinity(0, sizeof own_, &own_);\n", "            {}\n"),
    command("a signal cuts the text", "errno != EINTR", "true"),
    closing("commands inherit a command's descriptor", "F_SETFD, FD_CLOEXEC", "F_SETFD, 0"),

    source("a source is not enabled after its pulse",
           "    zel::count_interrupt(static_cast<uint32_t>(interruptVector));\n    enable();\n",
           "    zel::count_interrupt(static_cast<uint32_t>(interruptVector));\n"),
    source("an earlier block is kept", "    if (earlier != interruptId)\n        std::free(earlier);\n",
           "    (void)earlier;\n"),
    source("a disconnected source keeps its routine", "    isr = defaultIsr;\n}\n\nvoid "
           "LinuxInterruptSource::enable", "}\n\nvoid LinuxInterruptSource::enable"),
    manager("a second manager starts a second thread", "    isInitialized = true;\n", ""),
    manager("the interrupt thread is not rebased",
            "zel::linux_priority(kernel_priorities.interrupt_thread_priority)",
            "kernel_priorities.interrupt_thread_priority"),
    manager("a pulse of nobody is served", "        if (source != nullptr) {", "        {"),
    deferred("a release withdraws nothing", "    kcall_dequeue(run_routine, word(routine), 0, 0);",
             "    kcall_dequeue(run_routine, 0, word(routine), 0);"),

    link("a blank is missing", "\" nodad 2>&1\"", "\"nodad 2>&1\""),
    link("the MTU is not limited", "std::min(mtu, largest_mtu)", "mtu"),
    link("an MTU of 0 becomes the size of a read", "if (mtu < 1)", "if (mtu < 0)", "packets_test"),
    link("the scopes are exchanged", "\" scope link\" : \" scope global\"",
         "\" scope global\" : \" scope link\""),
    link("up and down are exchanged", "up ? \" up\" : \" down\"", "up ? \" down\" : \" up\""),
    link("an address is deleted with the other family's prefix", "\"/32\" : \"/128\"",
         "\"/128\" : \"/32\""),
    link("the MTU is recorded after its command",
         "        record_mtu(index, applied, family);\n        text.run(command);\n",
         "        text.run(command);\n        record_mtu(index, applied, family);\n",
         "packets_test tun_test"),
    link("the MTU is recorded for the other family", "state->tun_fds(family).find(index)",
         "state->tun_fds(AF_INET).find(index)", "packets_test"),
    link("the MTU is recorded without the lock",
         "    const PosixLock lock{state->fd_map_mutex};\n", "", "locks_test"),
    routes("addition and removal are exchanged", "remove ? \"del \" : \"append \"",
           "remove ? \"append \" : \"del \""),
    routes("a long prefix is negative", "decimal(prefix_length)",
           "decimal(static_cast<int>(prefix_length))"),
    routes("a gateway that cannot be written is left out",
           "            if (!via)\n                return;\n            command += composed({\" via \", *via});",
           "            if (via)\n                command += composed({\" via \", *via});"),
    routes("a gateway's family is the other one", "address_text(family, gateway)",
           "address_text(AF_INET, gateway)"),
    traffic("a criterion is added to one tool alone",
            "        for (const int family : {AF_INET, AF_INET6})\n            commands.push_back("
            "marking_command(name, family, action, criterion));",
            "        for (const int family : {AF_INET})\n            commands.push_back("
            "marking_command(name, family, action, criterion));"),
    traffic("a criterion's instances are chosen before it has the lock",
            "        const PosixLock lock{state->fd_map_mutex};\n        const auto commands = "
            "commands_for_all_instances(remove ? \"-D\" : \"-A\", criterion.front());\n",
            "        const auto commands = commands_for_all_instances(remove ? \"-D\" : \"-A\", "
            "criterion.front());\n        const PosixLock lock{state->fd_map_mutex};\n"),
    traffic("all equal criteria are removed",
            "    const auto found = std::find(criteria.begin(), criteria.end(), criterion);\n"
            "    if (found != criteria.end())\n        criteria.erase(found);\n",
            "    criteria.remove(criterion);\n"),
    traffic("commands run without the lock",
            "        const PosixLock lock{state->fd_map_mutex};\n        const auto commands = "
            "commands_for_all",
            "        PosixLock lock{state->fd_map_mutex};\n        lock.release();\n"
            "        const auto commands = commands_for_all", "locks_test races_test"),
    instances("an instance is registered before it has the lock",
              "    const PosixLock lock{state->fd_map_mutex};\n"
              "    const auto commands = replay_commands(name);\n"
              "    state->vrf_map.merge(instance);\n",
              "    state->vrf_map.merge(instance);\n"
              "    const PosixLock lock{state->fd_map_mutex};\n"
              "    const auto commands = replay_commands(name);\n"),
    instances("an instance's criteria are chosen before it has the lock",
              "    const PosixLock lock{state->fd_map_mutex};\n"
              "    const auto commands = replay_commands(name);\n",
              "    const auto commands = replay_commands(name);\n"
              "    const PosixLock lock{state->fd_map_mutex};\n"),
    instances("the table external comes after local", "mark_preference = \"100\"",
              "mark_preference = \"120\""),
    instances("a destroyed instance keeps its devices in use",
              "    state->fd_map.at(device.fd).keep_open();\n", "", "tun_test"),
    clean_up("hidden entries are deleted, too", "if (entry->d_name[0] != '.')",
             "if (entry->d_name[1] != '.' && entry->d_name[1] != '\\0')"),
    text("a later command overwrites an earlier one's text", "    length_ += strnlen(",
         "    length_ = strnlen("),
    devices("a refused device keeps its descriptor's number unchecked", ">= FD_SETSIZE",
            "> FD_SETSIZE"),
    devices("a device is left in another instance's list",
            "    forget_in_its_instance(fd);\n    tun_fds", "    tun_fds"),
    receive("a buffer is not given back when a read fails", "        callbacks_.free_buffer(handle);\n",
            "", "packets_test faults_test"),
    receive("the pipe is read before the packets",
            "    receive_packets();\n    if (wait_.is_woken() && !drain_wakeup_pipe())\n        return;\n",
            "    if (wait_.is_woken() && !drain_wakeup_pipe())\n        return;\n    receive_packets();\n",
            "packets_test faults_test"),
    receive("deletions are run before the packets", "    receive_packets();\n    if",
            "    run_pending_tun_deletes();\n    receive_packets();\n    if",
            "packets_test faults_test"),
    receive("deletions are run although the pipe could not be read",
            "    if (wait_.is_woken() && !drain_wakeup_pipe())\n        return;\n",
            "    if (wait_.is_woken())\n        drain_wakeup_pipe();\n", "packets_test faults_test"),
    receive("a packet without a buffer is read whole", "read(fd, scratch_, 1)",
            "read(fd, scratch_, sizeof scratch_)"),
    receive("more than the MTU is read", "static_cast<size_t>(device.mtu)",
            "static_cast<size_t>(device.mtu) + 1", "packets_test faults_test"),
    receive("a device gets two packets in a pass",
            "        const int error = receive_packet(device);\n",
            "        receive_packet(device);\n        const int error = receive_packet(device);\n"),
    receive("a gone device is waited for", "if (error == EBADFD)", "if (false)"),
    receive("nobody pauses for a device that is going", "        usleep(1000);\n", "        ;\n"),
    receive("what senders leave is not closed", "    state->fd_map.close_left();\n", ""),
    packet_send("the IPv6 index is looked for among those of IPv4",
                "zel_tun_packet_send(index, packet, length, state->tun6_fds)",
                "zel_tun_packet_send(index, packet, length, state->tun4_fds)"),
    packet_send("a sender closes", "    state->fd_map.leave(device);\n", ""),
    packet_send("a short write is repeated",
                "    [[maybe_unused]] const ssize_t written = write(device->number(), packet, length);\n",
                "    if (write(device->number(), packet, length) != static_cast<ssize_t>(length))\n"
                "        static_cast<void>(!write(device->number(), packet, length));\n",
                "packets_test faults_test"),
    devices("a read may wait", "        read_without_waiting(fd);\n", "", "packets_test"),
    devices("nobody is told of a new device",
            "        enter(std::move(descriptor), name, vrf_tun);\n        wakeup_zel_tun_packet_receive();\n",
            "        enter(std::move(descriptor), name, vrf_tun);\n", "packets_test"),
    devices("a device ends with its descriptor though nobody runs deletions",
            "if (state->has_receive_thread || descriptor.is_shared())", "if (true)"),
    devices("a device stays though the deletion is refused",
            "if (state->has_receive_thread || descriptor.is_shared())", "if (false)"),
    pending("deletions are run in the reverse order", "        oldest = latest;\n        latest = before;\n",
            "        oldest = latest;\n        latest = before;\n    }\n    for (latest = oldest, oldest = "
            "nullptr; latest != nullptr;) {\n        PendingTunDelete* const before = latest->next;\n"
            "        latest->next = oldest;\n        oldest = latest;\n        latest = before;\n"),
    wakeup("a full pipe stops the process", "written == -1 && errno == EAGAIN", "false"),
    packet_send("a send takes the lock of the configuration",
                "    TunReference device = tun_fds.acquire(index);\n",
                "    pthread_mutex_lock(&state->fd_map_mutex);\n"
                "    pthread_mutex_unlock(&state->fd_map_mutex);\n"
                "    TunReference device = tun_fds.acquire(index);\n"),
    wait("the receive thread takes the lock of the configuration", "    generation_ = generation;\n",
         "    generation_ = generation;\n    pthread_mutex_lock(&state->fd_map_mutex);\n"
         "    pthread_mutex_unlock(&state->fd_map_mutex);\n"),
    wait("the event set outlives its devices", "        drop_event_set();\n", "        ;\n"),
    wait("a device that the event set refuses is lost", "        FD_SET(fd, &refused_);\n        return;\n",
         "        FD_SET(fd, &refused_);\n"),
    wait("no event set is taken for one", "    if (made == -1)\n        return false;\n", ""),
    wait("packets are read from the highest descriptor down", "    ready_count_ = count;\n",
         "    ready_count_ = count;\n    std::reverse(ready_devices_.begin(), ready_devices_.begin() + count);\n"),
    wait("a device destroyed during the wait is read", "if (held && state->fd_map.is_registered(fd))",
         "if (held)"),
    wait("a gone device stays in the event set", "        move_out_of_event_set(fd);\n    if (FD_ISSET",
         "        ;\n    if (FD_ISSET"),
    wait("an idle device is no longer waited for", "    FD_SET(fd, &in_event_set_);\n",
         "    FD_SET(fd, &in_event_set_);\n    epoll_ctl(event_set_, EPOLL_CTL_DEL, fd, nullptr);\n"),
    descriptors("a lookup does not look again",
                "if (entries_[position].load(std::memory_order_acquire) == entry && found->index()",
                "if (found->index()"),
    descriptors("a lookup gives up at a number that stands for another device",
                "            !descriptor(entry).try_acquire())\n            continue;",
                "            !descriptor(entry).try_acquire())\n            return {};"),
    descriptors("a lookup gives up at a device that came in between",
                "        fd_map_.leave(found);\n", "        return {};\n"),
    descriptors("what senders leave stays open", "    left_.add(descriptor);\n", "", "packets_test"),
    descriptors("nobody is told what a sender leaves", "    wakeup_zel_tun_packet_receive();\n", "",
                "packets_test"),
    descriptors("a reference is taken to what is gone", "while (count != 0) {", "for (;;) {"),
    descriptors("a removed entry ends a lookup", "        if (entry == unused)\n            return {};",
                "        if (entry <= removed)\n            return {};"),

    checksum("the initial value is not complemented", "zel::swap_bytes(complement(initial))",
             "zel::swap_bytes(initial)"),
    checksum("a 32-bit update loses the upper half", " + (new_value >> 16) +", " +"),
    wide("a carry is lost", "return sum + (sum < word ? 1 : 0);", "return sum;"),
    wide("an odd last byte is not added",
         "    if ((length & 1) != 0)\n        sum += *at;\n", ""),
    wide("the odd lanes' upper halves are lost", "    even.upper_halves += odd.upper_halves;\n", ""),
    fold("a fold loses its carry", "(sum + std::rotl(sum, 16)) >> 16", "(sum & 0xffff) + (sum >> 16)"),

    statistics("a device's slot is not given back",
               "    __atomic_store_n(&counters.family, 0, __ATOMIC_RELEASE);\n",
               "    (void)counters;\n"),
    statistics("interrupts of other vectors are counted as the first's",
               "if (slot.vector == vector) {", "if (true) {"),
]
