// Deferred service routines, by way of the kernel-call queue. The one controller is made at
// start-up and has no state.
#include "Probes.hpp"

#include <zelkernel/deferred_service.hpp>
#include <zelkernel/kcall.h>

using Drivers::Api::InterruptProcessing::DeferredServiceRoutine;

namespace Drivers::Devices::InterruptProcessing {

namespace {

// A kernel call; the routine is its first argument.
void runDeferredServiceRoutine(zel_word_t routine, zel_word_t, zel_word_t) {
    ZEL_PROBE(deferred_begin, routine);
    reinterpret_cast<DeferredServiceRoutine*>(routine)->dsr();
    ZEL_PROBE(deferred_end, routine);
}

zel_word_t word(DeferredServiceRoutine* routine) {
    return reinterpret_cast<zel_word_t>(routine);
}

const auto run_routine = reinterpret_cast<zel_word_t>(&runDeferredServiceRoutine);

} // namespace

static_assert(sizeof(LinuxDeferredServiceController) == sizeof(void*));

LinuxDeferredServiceController* LinuxDeferredServiceController::instance = nullptr;

LinuxDeferredServiceController* LinuxDeferredServiceController::getInstance() {
    if (instance == nullptr)
        instance = new LinuxDeferredServiceController;
    return instance;
}

LinuxDeferredServiceController::LinuxDeferredServiceController() = default;

LinuxDeferredServiceController::~LinuxDeferredServiceController() = default;

void LinuxDeferredServiceController::now(DeferredServiceRoutine* routine) {
    routine->dsr();
}

void LinuxDeferredServiceController::defer(DeferredServiceRoutine* routine) {
    ZEL_PROBE(defer, routine);
    kcall_enqueue(run_routine, word(routine), 0, 0);
}

void LinuxDeferredServiceController::release(DeferredServiceRoutine* routine) {
    kcall_dequeue(run_routine, word(routine), 0, 0);
}

} // namespace Drivers::Devices::InterruptProcessing
