#include <zelkernel/interrupt_pulse.h>
#include <zelkernel/simulated_platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <new>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

namespace {

// Raisers and the interrupt thread run at different real-time priorities: without inheritance a
// raiser that was preempted while it held the lock would hold up the interrupt thread.
class InheritingMutex {
public:
    InheritingMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    void lock() { pthread_mutex_lock(&mutex_); }
    void unlock() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_;
};

class Guard {
public:
    explicit Guard(InheritingMutex& mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Guard() { mutex_.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    InheritingMutex& mutex_;
};

struct Line {
    void* source;
    bool masked = true;
    std::uint64_t held = 0;
};

// Under `mutex`: a vector is in `deliverable`, once, exactly when its line is unmasked and holds a
// pulse. `tokens` counts a permit to look into `deliverable` for each vector that was ever put
// there; withdrawing a vector leaves its permit behind, and who draws that one finds nothing.
struct Controller {
    InheritingMutex mutex;
    std::map<int, Line> lines;
    std::vector<int> deliverable;
    const int tokens = eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE);

    Line* find(int vector);
    void makeDeliverable(int vector);
    void withdraw(int vector);
    void* takeDeliverable();

    // After makeDeliverable and without the lock: the interrupt thread preempts whoever wakes it
    // and would then wait for the lock at once.
    void permit() const;
};

// Built on first use and never destroyed: the process may exit while the interrupt thread waits.
Controller& controller() {
    static Controller& instance = *new Controller;
    return instance;
}

Line* Controller::find(int vector) {
    const auto line = lines.find(vector);
    if (line != lines.end()) {
        return &line->second;
    }
    errno = ENXIO;
    return nullptr;
}

void Controller::makeDeliverable(int vector) {
    deliverable.push_back(vector); // attaching has made room for every line
}

void Controller::permit() const {
    eventfd_write(tokens, 1);
}

void Controller::withdraw(int vector) {
    deliverable.erase(std::remove(deliverable.begin(), deliverable.end(), vector),
                      deliverable.end());
}

void* Controller::takeDeliverable() {
    if (deliverable.empty()) {
        return nullptr;
    }
    Line& line = lines.at(deliverable.front());
    deliverable.erase(deliverable.begin());
    line.masked = true;
    --line.held;
    return line.source;
}

struct InterruptId {
    int vector;
    int code;
};

} // namespace

ZEL_EXPORT int openLinuxInterruptPulseFd() {
    return fcntl(controller().tokens, F_DUPFD_CLOEXEC, 0);
}

ZEL_EXPORT void* waitForLinuxInterruptPulse(int fd) {
    eventfd_t token;
    if (eventfd_read(fd, &token) != 0) {
        return nullptr;
    }
    Controller& platform = controller();
    const Guard guard(platform.mutex);
    return platform.takeDeliverable();
}

ZEL_EXPORT void* attachLinuxInterruptSource(int vector, int code, void* source) {
    if (vector < 0 || source == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto* id = static_cast<InterruptId*>(std::malloc(sizeof(InterruptId)));
    if (id == nullptr) {
        return nullptr;
    }
    *id = {vector, code};
    try {
        Controller& platform = controller();
        const Guard guard(platform.mutex);
        platform.deliverable.reserve(platform.lines.size() + 1);
        platform.lines.try_emplace(vector, Line{source}).first->second.source = source;
    } catch (const std::bad_alloc&) {
        std::free(id);
        errno = ENOMEM;
        return nullptr;
    }
    return id;
}

ZEL_EXPORT int detachLinuxInterruptSource(int vector) {
    Controller& platform = controller();
    const Guard guard(platform.mutex);
    if (platform.find(vector) == nullptr) {
        return -1;
    }
    platform.withdraw(vector);
    platform.lines.erase(vector);
    return 0;
}

ZEL_EXPORT int enableLinuxInterruptSource(int vector) {
    Controller& platform = controller();
    {
        const Guard guard(platform.mutex);
        Line* line = platform.find(vector);
        if (line == nullptr) {
            return -1;
        }
        const bool becomesDeliverable = line->masked && line->held > 0;
        line->masked = false;
        if (!becomesDeliverable) {
            return 0;
        }
        platform.makeDeliverable(vector);
    }
    platform.permit();
    return 0;
}

ZEL_EXPORT int disableLinuxInterruptSource(int vector) {
    Controller& platform = controller();
    const Guard guard(platform.mutex);
    Line* line = platform.find(vector);
    if (line == nullptr) {
        return -1;
    }
    line->masked = true;
    platform.withdraw(vector);
    return 0;
}

ZEL_EXPORT int zel_simulated_raise(int vector) {
    Controller& platform = controller();
    {
        const Guard guard(platform.mutex);
        Line* line = platform.find(vector);
        if (line == nullptr) {
            return -1;
        }
        if (line->held++ != 0 || line->masked) {
            return 0;
        }
        platform.makeDeliverable(vector);
    }
    platform.permit();
    return 0;
}
