// Process-wide kernel state, the fatal stop and the context queries.
#include "KernelState.hpp"

#include "ErrorLine.hpp"
#include "PriorityShift.hpp"

#include <cstdlib>

extern "C" {
KernelPriorities kernel_priorities;
uint8_t priorities_initialized;
uint8_t initialized;
timespec starttime;
int64_t starttimeInNs;
zel_update_rtc_func updateRTCFunc;
pthread_mutex_t interrupts_disabled_mutex;
uint8_t useInterruptMutex;
}

static_assert(sizeof(KernelPriorities) == 36);

namespace zel {

std::atomic<pthread_t> kcall_thread_id = static_cast<pthread_t>(-1);

int linux_priority(int relative_priority) {
    return wrapping_add(relative_priority, kernel_priorities.linux_base_priority);
}

} // namespace zel

void zel_fatal(const char* message, const char* file, int line) {
    zel::write_error_line({file, ":", zel::Decimal{line}, " ", message, "\n"});
    std::abort();
}

int zel_initialized() {
    return __atomic_load_n(&initialized, __ATOMIC_ACQUIRE);
}

int zel_get_current_context() {
    return pthread_equal(pthread_self(), zel::kcall_thread_id) != 0;
}

int isItSafeToBlock() {
    return zel_get_current_context() == 0;
}

int AdAreInterruptsEnabled() {
    return 1;
}

int zel_timer_priority() {
    return zel::linux_priority(kernel_priorities.timer_priority);
}

void* zel_get_interrupt_mgr() {
    return nullptr;
}
