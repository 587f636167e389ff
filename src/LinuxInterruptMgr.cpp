// The interrupt manager. Its state is class-wide and has no lock: the application sets up its
// drivers from one thread at a time, and the interrupt thread touches only interruptChannelId.
#include "FifoAttributes.hpp"
#include "InterruptPlatform.hpp"
#include "KernelState.hpp"
#include "NeverDestroyed.hpp"
#include "Probes.hpp"
#include "SystemCallReport.hpp"

#include <zelkernel/affinity.h>
#include <zelkernel/clock.h>
#include <zelkernel/interrupt_manager.hpp>
#include <zelkernel/kernel.h>
#include <zelkernel/scheduling.h>
#include <zelkernel/threads.h>

#include <memory>

extern "C" {
std::int32_t interruptChannelId = -1;
}

namespace Linux {

namespace {

using VectorMap = std::map<std::uint32_t, LinuxInterruptSource*>;

constexpr std::int32_t channel_of_running_thread = 0;
constexpr int pulse_code = 1;

zel::NeverDestroyed<VectorMap> vector_map;

bool interrupt_thread_runs() {
    return __atomic_load_n(&interruptChannelId, __ATOMIC_ACQUIRE) != -1;
}

} // namespace

static_assert(sizeof(LinuxInterruptMgr) == sizeof(void*));

VectorMap& LinuxInterruptMgr::vectorMap = *vector_map;
std::int32_t LinuxInterruptMgr::priority = 0;
pthread_t LinuxInterruptMgr::pthreadId = 0;
bool LinuxInterruptMgr::isInitialized = false;

LinuxInterruptMgr::LinuxInterruptMgr() {
    if (!isInitialized)
        initialize();
}

LinuxInterruptMgr::~LinuxInterruptMgr() = default;

void LinuxInterruptMgr::initialize() {
    priority = zel::linux_priority(kernel_priorities.interrupt_thread_priority);
    zel::FifoAttributes attributes{priority};
    const int result =
        __zel_pure_pthread_create(&pthreadId, attributes.get(), InterruptThread, nullptr);
    if (zel::report_failure(result, "LinuxInterruptMgr::initialize") != 0)
        zel_fatal("Could not create the interrupt thread.", "src/LinuxInterruptMgr", __LINE__);
    waitOnInterruptThread();
    isInitialized = true;
}

void* LinuxInterruptMgr::InterruptThread(void*) {
    setThreadAffinityAllCpus();
    __atomic_store_n(&interruptChannelId, channel_of_running_thread, __ATOMIC_RELEASE);
    __wrap_pthread_setname_np(pthread_self(), "InterruptThread");
    const int fd = zel::platform::open_pulse_fd();
    for (;;) {
        auto* source = static_cast<LinuxInterruptSource*>(zel::platform::wait_for_pulse(fd));
        if (source != nullptr) {
            ZEL_PROBE(pulse, source);
            source->process();
        }
    }
}

void LinuxInterruptMgr::waitOnInterruptThread() {
    while (!interrupt_thread_runs())
        __wrap_usleep(10);
}

LinuxInterruptSource* LinuxInterruptMgr::get(unsigned int vector) {
    const auto known = vectorMap.find(vector);
    if (known != vectorMap.end())
        return known->second;
    auto source = std::make_unique<LinuxInterruptSource>(
        interruptChannelId, static_cast<int>(vector), priority, pulse_code, true);
    vectorMap.emplace(vector, source.get());
    return source.release();
}

unsigned int LinuxInterruptMgr::getNumberOfVectors() const {
    return static_cast<unsigned int>(vectorMap.size());
}

int LinuxInterruptMgr::getPriority() const {
    return priority;
}

pthread_t LinuxInterruptMgr::getPthreadId() const {
    return pthreadId;
}

} // namespace Linux
