// Static probe points: places that a tracer (zelkernel-trace, perf, bpftrace) can stop by from
// outside, in the format of SystemTap's sys/sdt.h, provider `zelkernel`. Each is one no-operation
// instruction and a note that is not loaded. Built without that header there are none.
//
// Arguments are values at hand: one that had to be computed would cost time with nobody looking.
//
//   tick                            the kernel-call thread has taken a tick
//   poller_begin, poller_end
//   call_begin, call_end            function, first argument
//   pulse                           source: the interrupt thread has one to serve
//   service_begin, service_end      vector
//   defer, deferred_begin, deferred_end   the deferred routine
//   thread_created                  start routine, argument: in the creator
//   thread_begin, thread_end        start routine, argument: in the thread
//   thread_named                    pthread_t, text
//   packet_read, packet_sent        IP version, interface index, bytes
//   lock_wait, lock_taken           mutex: only of a lock that is held (src/TracedLock.hpp)
//   command_begin, command_end      text
#pragma once

#if !defined(ZEL_HAVE_SDT) && __has_include(<sys/sdt.h>)
#define ZEL_HAVE_SDT 1
#elif !defined(ZEL_HAVE_SDT)
#define ZEL_HAVE_SDT 0
#endif

#if ZEL_HAVE_SDT
#define SDT_USE_VARIADIC 1
#include <sys/sdt.h>
#ifdef __thumb__
// The kernel's uprobes write ARM instructions, which in Thumb code would be others: there the point
// is in a function of its own.
#define ZEL_PROBE(...)                                                                             \
    [&]() __attribute__((noinline, target("arm"))) {                                               \
        STAP_PROBEV(zelkernel, __VA_ARGS__);                                                       \
    }                                                                                              \
    ()
#else
#define ZEL_PROBE(...) STAP_PROBEV(zelkernel, __VA_ARGS__)
#endif
#else
#define ZEL_PROBE(...) static_cast<void>(0)
#endif
