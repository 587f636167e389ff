// What nearly every test needs: the library's interface, the test framework, the helpers here that
// put nothing in front of the system's functions, and the usual headers of the system.
#pragma once

#include "capture.hpp"
#include "emulation.hpp"
#include "interpose.hpp"
#include "kernel_thread.hpp"
#include "left_behind.hpp"
#include "private_namespaces.hpp"
#include "sanitizers.hpp"
#include "thread_info.hpp"
#include "wait.hpp"

#include <zelkernel/affinity.h>
#include <zelkernel/clock.h>
#include <zelkernel/conditions.h>
#include <zelkernel/deferred_service.hpp>
#include <zelkernel/interrupt_manager.hpp>
#include <zelkernel/interrupt_pulse.h>
#include <zelkernel/kcall.h>
#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/routing.h>
#include <zelkernel/signals.hpp>
#include <zelkernel/system.h>
#include <zelkernel/tun.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <list>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>
