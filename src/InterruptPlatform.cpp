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

#include <cstdio>

namespace {

template<typename Function>
Function* required(Function* function, const char* name) {
    if (function != nullptr)
        return function;
    char message[128];
    std::snprintf(message, sizeof message,
                  "%s is missing: link the application with its interrupt platform's library.",
                  name);
    zel_fatal(message, "src/InterruptPlatform", __LINE__);
}

} // namespace

namespace zel::platform {

int open_pulse_fd() {
    return required(openLinuxInterruptPulseFd, "openLinuxInterruptPulseFd")();
}

void* wait_for_pulse(int fd) {
    return required(waitForLinuxInterruptPulse, "waitForLinuxInterruptPulse")(fd);
}

void* attach(int vector, int code, void* source) {
    return required(attachLinuxInterruptSource, "attachLinuxInterruptSource")(vector, code, source);
}

void enable(int vector) {
    required(enableLinuxInterruptSource, "enableLinuxInterruptSource")(vector);
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
