// Interrupt sources: one per vector of the emulated interrupt hardware.
//
// A pulse of the platform (interrupt_pulse.h) makes the interrupt thread call process(): the
// connected routine's isr() runs, then the source is enabled again. No lock is taken: do not
// connect, disconnect or destroy a source while an interrupt of it may be served. The order of the
// virtual functions is part of the interface.
#pragma once

#if __cplusplus < 201103L
#error "libzelkernel's classes need C++11"
#endif

#include <zelkernel/config.h>

#include <cstdint>

namespace Drivers {
namespace Api {
namespace InterruptProcessing {

// What a driver implements. isr() runs in the interrupt thread and should be short.
class ZEL_EXPORT InterruptServiceRoutine {
public:
    // Serves one interrupt.
    virtual void isr() = 0;

protected:
    ~InterruptServiceRoutine() = default;
};

} // namespace InterruptProcessing
} // namespace Api
} // namespace Drivers

namespace Linux {

// Serves a source that has no routine of the application's: counts the interrupts it absorbs.
class ZEL_EXPORT DefaultIsr : public Drivers::Api::InterruptProcessing::InterruptServiceRoutine {
public:
    explicit DefaultIsr(int interruptVector);

    // Counts one more.
    void isr() override;
    virtual ~DefaultIsr();

private:
    friend struct InterruptLayout;

    std::int32_t interruptVector;
    std::uint32_t count = 0;
};

// The source of one vector, with the routine that serves it.
class ZEL_EXPORT LinuxInterruptSource {
public:
    // Not attached to the platform and served by a DefaultIsr of its own. Sources come from
    // LinuxInterruptMgr::get. pulsePriority is for display only, flag is kept and never read.
    LinuxInterruptSource(int channelId, int interruptVector, int pulsePriority, int pulseCode,
                         bool flag);

    LinuxInterruptSource(const LinuxInterruptSource&) = delete;
    LinuxInterruptSource& operator=(const LinuxInterruptSource&) = delete;

    // Sets the routine and attaches the source to the platform; does not enable it. Connecting
    // again attaches again and releases the platform's earlier block. A platform that refuses stops
    // the process (a perror line, then zel_fatal).
    virtual void connect(Drivers::Api::InterruptProcessing::InterruptServiceRoutine* routine);

    // Detaches the source and puts the default routine back; the argument is ignored.
    virtual void disconnect(Drivers::Api::InterruptProcessing::InterruptServiceRoutine* routine);

    // Let the platform's interrupts of this vector through, or hold them back.
    virtual void enable();
    virtual void disable();

    // Nothing to do on this platform.
    virtual void clear();
    virtual void enableControl();
    virtual void ignoreControl();

    // Disables, detaches, releases the platform's block and the default routine.
    virtual ~LinuxInterruptSource();

    // Serves one pulse: the routine's isr(), then enable() of the most derived class.
    void process();

    // perror(message), then zel_fatal.
    [[noreturn]] void handleError(const char* message);

    // Prints the fields on standard output, in hexadecimal.
    void printObjectInfo();

private:
    friend struct InterruptLayout;

    Drivers::Api::InterruptProcessing::InterruptServiceRoutine* isr;
    DefaultIsr* defaultIsr;
    std::int32_t interruptVector;
    void* interruptId = nullptr;
    std::int32_t connectionId = -1;
    std::int32_t ChannelId;
    std::int32_t pulseCode;
    std::int32_t pulsePriority;
    bool flag;
};

} // namespace Linux
