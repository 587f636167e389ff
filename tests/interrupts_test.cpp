#include "support/allocation_failure.hpp"
#include "support/manual_tick.hpp"
#include "support/test.hpp"

#include <zelkernel/simulated_platform.h>

#include <cinttypes>

// In front of the simulated platform.
ZEL_INTERPOSE(int, openLinuxInterruptPulseFd, (), ())
ZEL_INTERPOSE(void*, waitForLinuxInterruptPulse, (int fd), (fd))
ZEL_INTERPOSE(void*, attachLinuxInterruptSource, (int v, int c, void* s), (v, c, s))
ZEL_INTERPOSE(int, detachLinuxInterruptSource, (int v), (v))
ZEL_INTERPOSE(int, enableLinuxInterruptSource, (int v), (v))
ZEL_INTERPOSE(int, disableLinuxInterruptSource, (int v), (v))

namespace {

using namespace zel::test;
using Drivers::Api::InterruptProcessing::DeferredServiceRoutine;
using Drivers::Api::InterruptProcessing::InterruptServiceRoutine;
using Drivers::Devices::InterruptProcessing::LinuxDeferredServiceController;
using testing::ElementsAre;
using testing::IsEmpty;

struct CountingIsr : InterruptServiceRoutine {
    void isr() override { ++count; }
    std::atomic<int> count{0};
};

// The objects as the application's framework knows them.
struct DefaultIsrFields {
    void** vtable;
    int32_t interruptVector;
    uint32_t count;
};
struct SourceFields {
    void** vtable;
    void* isr;
    DefaultIsrFields* defaultIsr;
    int32_t interruptVector;
    void* interruptId;
    int32_t connectionId, ChannelId, pulseCode, pulsePriority;
    bool flag;
};
static_assert(sizeof(SourceFields) == sizeof(Linux::LinuxInterruptSource));
static_assert(sizeof(DefaultIsrFields) == sizeof(Linux::DefaultIsr));

const SourceFields& fields(const Linux::LinuxInterruptSource* source) {
    return *reinterpret_cast<const SourceFields*>(source);
}

void call_slot(void* object, int slot, void* argument = nullptr) {
    using Function = void (*)(void*, void*);
    reinterpret_cast<Function>((*static_cast<void***>(object))[slot])(object, argument);
}

// A source whose calls into the platform are written down and go no further.
struct Source : testing::Test {
    Source() {
        interposed::attachLinuxInterruptSource = [this](int vector, int code, void* to) {
            calls.push_back("attach " + std::to_string(vector) + " " + std::to_string(code));
            EXPECT_EQ(to, source);
            return block = std::malloc(64);
        };
        const auto record = [this](const char* name) {
            return [this, name](int vector) {
                calls.push_back(name + std::to_string(vector));
                return -1;
            };
        };
        interposed::detachLinuxInterruptSource = record("detach ");
        interposed::enableLinuxInterruptSource = record("enable ");
        interposed::disableLinuxInterruptSource = record("disable ");
    }

    std::vector<std::string> calls;
    void* block = nullptr;
    CountingIsr routine;
    Linux::LinuxInterruptSource* source = new Linux::LinuxInterruptSource{3, 5, 60, 2, true};
};

TEST_F(Source, HasItsFieldsAndOperationsInTheAgreedPlaces) {
    enum Slot { Connect, Disconnect, Enable, Disable, Clear, EnableControl, IgnoreControl, D1, D0 };
    const SourceFields& f = fields(source);
    EXPECT_EQ(f.isr, f.defaultIsr);
    EXPECT_EQ(f.interruptId, nullptr);
    EXPECT_EQ(f.flag, true);
    EXPECT_THAT((std::vector{f.interruptVector, f.connectionId, f.ChannelId, f.pulseCode,
                             f.pulsePriority, f.defaultIsr->interruptVector}),
                ElementsAre(5, -1, 3, 2, 60, 5));
    call_slot(source, Connect, &routine);
    EXPECT_EQ(f.isr, &routine);
    EXPECT_EQ(f.interruptId, block);
    source->process();
    EXPECT_EQ(routine.count, 1);
    call_slot(source, Disable);
    for (int slot : {Clear, EnableControl, IgnoreControl})
        call_slot(source, slot);
    call_slot(source, Disconnect, nullptr); // whatever the argument
    EXPECT_EQ(f.isr, f.defaultIsr);
    EXPECT_EQ(f.interruptId, block);
    call_slot(source, Enable);
    call_slot(f.defaultIsr, 0);
    source->process();
    EXPECT_EQ(f.defaultIsr->count, 2u);
    call_slot(source, D0);
    EXPECT_THAT(calls, ElementsAre("attach 5 2", "enable 5", "disable 5", "detach 5", "enable 5",
                                   "enable 5", "disable 5", "detach 5"));
}

TEST_F(Source, IsEnabledByTheMostDerivedClassAndReleasesTheEarlierBlockWhenConnectedAgain) {
    struct Derived : Linux::LinuxInterruptSource {
        using LinuxInterruptSource::LinuxInterruptSource;
        void enable() override { ++enabled; }
        int enabled = 0;
    } derived{0, 6, 0, 1, false};
    derived.process();
    EXPECT_EQ(derived.enabled, 1);
    EXPECT_THAT(calls, IsEmpty());

    calls.reserve(10);
    source->connect(&routine);
    const long alive = allocations_alive; // a sanitizer sees a leak at the end
    source->connect(&routine);
    EXPECT_EQ(allocations_alive, alive);
    // A platform may keep to one block for a vector.
    interposed::attachLinuxInterruptSource = [this](auto...) { return block; };
    source->connect(&routine);
    EXPECT_EQ(fields(source).interruptId, block);
    delete source;
}

TEST_F(Source, StopsTheProcessWhenThePlatformRefuses) {
    interposed::attachLinuxInterruptSource = [](auto...) {
        errno = EBUSY;
        return nullptr;
    };
    EXPECT_EXIT(
        on_kernel_thread([&] { source->connect(&routine); }), testing::KilledBySignal(SIGABRT),
        prints_only(
            "LinuxInterruptSource::connect::InterruptAttachEvent : Device or resource busy\n"
            "src/LinuxInterruptSource:121 "
            "LinuxInterruptSource::connect::InterruptAttachEvent \n"));
    delete source;
}

TEST_F(Source, PrintsItsFields) {
    char expected[400];
    std::snprintf(expected, sizeof expected,
                  "\nthis ptr = 0x%" PRIxPTR ".\nChannelId = 0x3.\ninterruptVector = 0x5.\n"
                  "pulseCode = 0x2.\npulsePriority = 0x3c.\ninterruptId = 0x0.\n"
                  "connectionId = 0xffffffff.\nisr = 0x%" PRIxPTR ".\n",
                  reinterpret_cast<uintptr_t>(source),
                  reinterpret_cast<uintptr_t>(fields(source).defaultIsr));
    EXPECT_EQ(printed_on(1, [&] { source->printObjectInfo(); }), expected);
    delete source;
}

struct Manager : testing::Test {
    Manager() { kernel_priorities = {0, 25, 0, 0, 0, 0, 0, 0, 20}; }
};

TEST_F(Manager, StartsOneThreadAndHandsOutOneSourceForEachVector) {
    EXPECT_EQ(interruptChannelId, -1);
    const Linux::LinuxInterruptMgr manager;
    EXPECT_EQ(interruptChannelId, 0);
    const ThreadInfo info = thread_named("InterruptThread");
    EXPECT_EQ(info.policy, SCHED_FIFO);
    EXPECT_EQ(info.priority, 45);
    EXPECT_EQ(info.status.at("Cpus_allowed_list"), all_cpus());
    EXPECT_EQ(manager.getPriority(), 45);
    Linux::LinuxInterruptMgr second;
    EXPECT_EQ(registered_threads(), 1u);
    pthread_t thread{};
    unsigned int count = 0;
    getCopyOfCurrentPthreadIds(&thread, 1, &count);
    EXPECT_EQ(manager.getPthreadId(), thread);
    EXPECT_EQ(second.getPthreadId(), thread);
    EXPECT_EQ(zel_get_interrupt_mgr(), nullptr);

    EXPECT_EQ(manager.getNumberOfVectors(), 0u);
    for (unsigned int vector : {7u, 0xffffffffu, 0u}) {
        const Linux::LinuxInterruptSource* source = second.get(vector);
        EXPECT_EQ(Linux::LinuxInterruptMgr{}.get(vector), source);
        const SourceFields& f = fields(source);
        EXPECT_THAT((std::vector{f.interruptVector, f.ChannelId, f.pulseCode, f.pulsePriority}),
                    ElementsAre(static_cast<int>(vector), 0, 1, 45));
        EXPECT_TRUE(f.flag);
    }
    EXPECT_EQ(manager.getNumberOfVectors(), 3u);
}

TEST_F(Manager, StopsTheProcessWhenItsThreadCannotBeMade) {
    kernel_priorities.interrupt_thread_priority = 100;
    EXPECT_EXIT(Linux::LinuxInterruptMgr{}, testing::KilledBySignal(SIGABRT),
                prints_only("LinuxInterruptMgr::initialize: Invalid argument\n"
                            "src/LinuxInterruptMgr:[0-9]+ Could not create the interrupt "
                            "thread\\.\n"));
}

// From the pulse through the service routine to the deferred routine, each in its own thread.
TEST_F(Manager, ServesEveryPulseAndItsDeferredRoutine) {
    struct Device : InterruptServiceRoutine, DeferredServiceRoutine {
        void isr() override {
            isr_thread = pthread_self();
            LinuxDeferredServiceController::getInstance()->defer(this);
            ++isrs;
        }
        void dsr() override {
            dsr_context = zel_get_current_context();
            ++dsrs;
        }
        std::atomic<int> isrs{0}, dsrs{0}, dsr_context{-1};
        std::atomic<pthread_t> isr_thread{};
    } device;
    LinuxDeferredServiceController::getInstance();
    static std::atomic<int> nulls{0}; // the thread waits on when the case is over
    interposed::waitForLinuxInterruptPulse = [](int fd) {
        return ++nulls % 2 == 0 ? nullptr : real::waitForLinuxInterruptPulse(fd);
    };
    const ManualTick ticks;
    kernel_priorities.linux_base_priority = 20;
    Linux::LinuxInterruptMgr manager;
    Linux::LinuxInterruptSource* source = manager.get(4);
    source->connect(&device);
    constexpr int pulses = 200, raisers = 4; // their deferrals fit into the queue
    const auto raise = [] {
        for (int i = 0; i < pulses; ++i)
            EXPECT_EQ(zel_simulated_raise(4), 0);
    };
    raise();
    EXPECT_EQ(device.isrs, 0); // held back
    source->enable();
    std::list<std::thread> others;
    for (int i = 1; i < raisers; ++i)
        others.emplace_back(raise);
    EXPECT_TRUE(eventually([&] { return device.isrs == raisers * pulses; }));
    for (std::thread& other : others)
        other.join();
    EXPECT_EQ(device.isr_thread, manager.getPthreadId());
    EXPECT_EQ(device.dsrs, 0);
    EXPECT_TRUE(ticks.tick());
    EXPECT_EQ(device.dsrs, raisers * pulses);
    EXPECT_EQ(device.dsr_context, 1);
}

std::string ran; // names of the deferred routines
struct Named : DeferredServiceRoutine {
    explicit Named(char c) : name(c) {}
    void dsr() override { ran += name; }
    char name;
};

TEST(DeferredService, RunsAtOnceOrAtTheTickUnlessReleased) {
    LinuxDeferredServiceController* controller = LinuxDeferredServiceController::getInstance();
    EXPECT_EQ(LinuxDeferredServiceController::instance, controller);
    EXPECT_EQ(LinuxDeferredServiceController::getInstance(), controller);
    const ManualTick ticks;
    Named a{'a'}, b{'b'};
    enum Slot { Now, Defer, Release };
    call_slot(controller, Now, &a);
    EXPECT_EQ(ran, "a");
    EXPECT_EQ(KCallIn, KCallOut);
    for (DeferredServiceRoutine* routine : {&a, &b, &a, &b})
        call_slot(controller, Defer, routine);
    call_slot(controller, Release, &a);
    EXPECT_TRUE(ticks.tick());
    EXPECT_EQ(ran, "abb");
    controller->release(&b); // is over
    controller->defer(&a);
    EXPECT_TRUE(ticks.tick());
    EXPECT_EQ(ran, "abba");
}

} // namespace
