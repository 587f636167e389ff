// Elements that any thread adds, and any takes away, all at once; neither ever waits. The latest is
// the head of a chain through their members `next`. Who takes the chain has it alone: no element is
// touched by two threads.
#pragma once

#include <atomic>

namespace zel::network {

template<typename Element>
class Chain {
public:
    void add(Element* element) {
        element->next = latest_.load(std::memory_order_relaxed);
        while (!latest_.compare_exchange_weak(element->next, element, std::memory_order_release,
                                              std::memory_order_relaxed)) {
        }
    }

    // The latest of them; null, without writing anything, when there is none.
    Element* take_all() {
        if (latest_.load(std::memory_order_relaxed) == nullptr)
            return nullptr;
        return latest_.exchange(nullptr, std::memory_order_acquire);
    }

private:
    std::atomic<Element*> latest_{nullptr};
};

} // namespace zel::network
