#include <zelkernel/interrupt_pulse.h>

// Weak: an application without interrupts links and loads without a platform.
#pragma weak openLinuxInterruptPulseFd
#pragma weak waitForLinuxInterruptPulse
#pragma weak attachLinuxInterruptSource
#pragma weak detachLinuxInterruptSource
#pragma weak enableLinuxInterruptSource
#pragma weak disableLinuxInterruptSource

#include "InterruptPlatform.hpp"

#include <zelkernel/kernel.h>

namespace {

constexpr const char* module_file = "src/InterruptPlatform";

} // namespace

namespace zel::platform {

int open_pulse_fd() {
    if (openLinuxInterruptPulseFd == nullptr)
        zel_fatal("openLinuxInterruptPulseFd is missing: link the application with the library of "
                  "its interrupt platform.",
                  module_file, __LINE__);
    return openLinuxInterruptPulseFd();
}

void* wait_for_pulse(int fd) {
    if (waitForLinuxInterruptPulse == nullptr)
        zel_fatal("waitForLinuxInterruptPulse is missing: link the application with the library of "
                  "its interrupt platform.",
                  module_file, __LINE__);
    return waitForLinuxInterruptPulse(fd);
}

void* attach(int vector, int code, void* source) {
    if (attachLinuxInterruptSource == nullptr)
        zel_fatal("attachLinuxInterruptSource is missing: link the application with the library of "
                  "its interrupt platform.",
                  module_file, __LINE__);
    return attachLinuxInterruptSource(vector, code, source);
}

void enable(int vector) {
    if (enableLinuxInterruptSource == nullptr)
        zel_fatal("enableLinuxInterruptSource is missing: link the application with the library of "
                  "its interrupt platform.",
                  module_file, __LINE__);
    enableLinuxInterruptSource(vector);
}

void detach(int vector) {
    if (detachLinuxInterruptSource != nullptr)
        detachLinuxInterruptSource(vector);
}

void disable(int vector) {
    if (disableLinuxInterruptSource != nullptr)
        disableLinuxInterruptSource(vector);
}

} // namespace zel::platform
