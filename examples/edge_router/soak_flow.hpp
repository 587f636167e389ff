// A peer in an instance's namespace that exchanges messages with the IP stack.
#pragma once

#include "network_plan.hpp"

#include <cstdint>

namespace soak {

// By one interface and in one family; the same thread throughout.
class Flow {
public:
    // `to` is reached through `through`. The instance's set-up must be complete.
    Flow(const char* instance, const Interface& through, int family, const char* to, int port);
    ~Flow();
    Flow(const Flow&) = delete;
    Flow& operator=(const Flow&) = delete;

    // Sends messages of many sizes and waits for the echo of each, which must come whole, in order
    // and from the right interface. False when that failed, which has been reported.
    bool exchange(unsigned messages);

    // Only sends: the echoes come when they come, if at all.
    void send(unsigned messages);

private:
    bool receive(std::uint32_t sequence);

    const char* instance_;
    int index_;
    std::uint32_t flow_;
    int socket_;
    std::uint32_t sequence_ = 0;
};

// The two interfaces of an instance and the ports that lead through them.
template<typename Action>
void for_each_interface(const Instance& instance, bool is_v4, Action action) {
    action(instance.inside, is_v4 ? plan::stack_ipv4 : plan::stack_ipv6, plan::ordinary_port);
    action(instance.external, is_v4 ? plan::external_ipv4 : plan::external_ipv6,
           plan::external_port);
}

} // namespace soak
