// Interrupt sources and the default routine. A source belongs to the application's set-up threads;
// the interrupt thread reads `isr` once per pulse.
#include "ErrorLine.hpp"
#include "InterruptPlatform.hpp"
#include "Probes.hpp"
#include "Statistics.hpp"

#include <zelkernel/interrupt_source.hpp>
#include <zelkernel/kernel.h>

#include <cerrno>
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using Drivers::Api::InterruptProcessing::InterruptServiceRoutine;

namespace Linux {

#if UINTPTR_MAX == 0xffffffffu
// The application's debugger macros and its framework know these offsets.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
struct InterruptLayout {
    static_assert(offsetof(LinuxInterruptSource, isr) == 4);
    static_assert(offsetof(LinuxInterruptSource, defaultIsr) == 8);
    static_assert(offsetof(LinuxInterruptSource, interruptVector) == 12);
    static_assert(offsetof(LinuxInterruptSource, interruptId) == 16);
    static_assert(offsetof(LinuxInterruptSource, connectionId) == 20);
    static_assert(offsetof(LinuxInterruptSource, ChannelId) == 24);
    static_assert(offsetof(LinuxInterruptSource, pulseCode) == 28);
    static_assert(offsetof(LinuxInterruptSource, pulsePriority) == 32);
    static_assert(offsetof(LinuxInterruptSource, flag) == 36);
    static_assert(sizeof(LinuxInterruptSource) == 40);
    static_assert(offsetof(DefaultIsr, interruptVector) == 4);
    static_assert(offsetof(DefaultIsr, count) == 8);
    static_assert(sizeof(DefaultIsr) == 12);
};
#pragma GCC diagnostic pop
#endif

DefaultIsr::DefaultIsr(int vector) : interruptVector(vector) {}

void DefaultIsr::isr() {
    ++count;
}

DefaultIsr::~DefaultIsr() = default;

LinuxInterruptSource::LinuxInterruptSource(int channelId, int vector, int priority, int code,
                                           bool keptFlag)
    : defaultIsr(new DefaultIsr(vector)), interruptVector(vector), ChannelId(channelId),
      pulseCode(code), pulsePriority(priority), flag(keptFlag) {
    isr = defaultIsr;
}

LinuxInterruptSource::~LinuxInterruptSource() {
    LinuxInterruptSource::disable();
    LinuxInterruptSource::disconnect(isr);
    std::free(interruptId);
    delete defaultIsr;
}

void LinuxInterruptSource::connect(InterruptServiceRoutine* routine) {
    isr = routine;
    void* const earlier = interruptId;
    interruptId = zel::platform::attach(interruptVector, pulseCode, this);
    if (interruptId == nullptr)
        handleError("LinuxInterruptSource::connect::InterruptAttachEvent ");
    if (earlier != interruptId)
        std::free(earlier);
}

void LinuxInterruptSource::disconnect(InterruptServiceRoutine*) {
    zel::platform::detach(interruptVector);
    isr = defaultIsr;
}

void LinuxInterruptSource::enable() {
    zel::platform::enable(interruptVector);
}

void LinuxInterruptSource::disable() {
    zel::platform::disable(interruptVector);
}

void LinuxInterruptSource::clear() {}

void LinuxInterruptSource::enableControl() {}

void LinuxInterruptSource::ignoreControl() {}

void LinuxInterruptSource::process() {
    ZEL_PROBE(service_begin, interruptVector);
    isr->isr();
    ZEL_PROBE(service_end, interruptVector);
    zel::count_interrupt(static_cast<uint32_t>(interruptVector));
    enable();
}

void LinuxInterruptSource::handleError(const char* message) {
    zel::write_error_line(message, errno);
    zel_fatal(message, "src/LinuxInterruptSource", 121);
}

void LinuxInterruptSource::printObjectInfo() {
    std::printf("\n");
    std::printf("this ptr = 0x%" PRIxPTR ".\n", reinterpret_cast<uintptr_t>(this));
    std::printf("ChannelId = 0x%" PRIx32 ".\n", static_cast<uint32_t>(ChannelId));
    std::printf("interruptVector = 0x%" PRIx32 ".\n", static_cast<uint32_t>(interruptVector));
    std::printf("pulseCode = 0x%" PRIx32 ".\n", static_cast<uint32_t>(pulseCode));
    std::printf("pulsePriority = 0x%" PRIx32 ".\n", static_cast<uint32_t>(pulsePriority));
    std::printf("interruptId = 0x%" PRIxPTR ".\n", reinterpret_cast<uintptr_t>(interruptId));
    std::printf("connectionId = 0x%" PRIx32 ".\n", static_cast<uint32_t>(connectionId));
    std::printf("isr = 0x%" PRIxPTR ".\n", reinterpret_cast<uintptr_t>(isr));
}

} // namespace Linux
