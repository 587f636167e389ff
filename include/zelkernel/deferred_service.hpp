// Deferred service routines: the part of an interrupt's service that runs in the kernel's context.
#pragma once

#if __cplusplus < 201103L
#error "libzelkernel's classes need C++11"
#endif

#include <zelkernel/config.h>

namespace Drivers {
namespace Api {
namespace InterruptProcessing {

// What a driver implements. The first virtual function is the one that is run; a class of the
// application's own framework serves as well when dsr() is in its first slot.
class ZEL_EXPORT DeferredServiceRoutine {
public:
    // Runs in the kernel-call thread, once for each deferral; now() runs it in its caller.
    virtual void dsr() = 0;

protected:
    ~DeferredServiceRoutine() = default;
};

} // namespace InterruptProcessing
} // namespace Api
} // namespace Drivers

namespace Drivers {
namespace Devices {
namespace InterruptProcessing {

// The one controller of the process, made by zel_kernel_init. The order of the virtual functions is
// part of the interface.
class ZEL_EXPORT LinuxDeferredServiceController {
public:
    // The controller; made at the first call (by zel_kernel_init) and never deleted. Takes no lock.
    static LinuxDeferredServiceController* getInstance();

    LinuxDeferredServiceController();

    // Runs the routine at once, in the calling thread.
    virtual void now(Drivers::Api::InterruptProcessing::DeferredServiceRoutine* routine);

    // Queues the routine for the kernel-call thread; queued twice, it runs twice. Dropped without a
    // report when the queue is full (1023 pending calls). Any thread but the run poller (kcall.h).
    virtual void defer(Drivers::Api::InterruptProcessing::DeferredServiceRoutine* routine);

    // Withdraws every pending deferral of the routine. Has no effect while the kernel-call thread
    // runs queued calls: the routine may then still run once this returns, so do not delete it.
    virtual void release(Drivers::Api::InterruptProcessing::DeferredServiceRoutine* routine);

    virtual ~LinuxDeferredServiceController();

    // What getInstance() gives; null before its first call.
    static LinuxDeferredServiceController* instance;
};

} // namespace InterruptProcessing
} // namespace Devices
} // namespace Drivers
