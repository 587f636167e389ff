#pragma once

#include <chrono>
#include <thread>

namespace zel::test {

// Waits for a condition that other threads or processes bring about; false when it does not come.
template<typename Condition>
bool eventually(Condition condition, std::chrono::seconds limit = std::chrono::seconds{20}) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    return true;
}

} // namespace zel::test
