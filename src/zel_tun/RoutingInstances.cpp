// Routing instances.
#include "Commands.hpp"
#include "ExternalTraffic.hpp"
#include "OutputText.hpp"
#include "PosixLock.hpp"
#include "State.hpp"

#include <zelkernel/routing.h>

#include <netinet/in.h>
#include <utility>
#include <vector>

namespace zel::network {
namespace {

constexpr const char* mark_preference = "100";
constexpr const char* local_preference = "110";

// Marked packets go to the table `external` before the table `local` gets to see them.
std::vector<std::string> policy_commands(const char* name) {
    std::vector<std::string> commands;
    for (const char* ip : {"ip", "ip -6"}) {
        const std::string rule = composed({in_instance(name), ip, " rule "});
        commands.push_back(composed({rule, "add fwmark ", external_mark, " pref ", mark_preference,
                                     " table external 2>&1"}));
        commands.push_back(composed({rule, "del pref 0 2>&1"}));
        commands.push_back(composed({rule, "add pref ", local_preference, " table local 2>&1"}));
    }
    return commands;
}

std::vector<std::string> replay_commands(const char* name) {
    std::vector<std::string> commands;
    for (const std::string& criterion : state->external_traffic_criteria) {
        for (const int family : {AF_INET, AF_INET6})
            commands.push_back(marking_command(name, family, "-A", criterion));
    }
    return commands;
}

void run_all(OutputText& text, const std::vector<std::string>& commands) {
    for (const std::string& command : commands)
        text.run(command);
}

// The lock covers the registration and the replay: see the criteria's update. An instance that is
// registered already keeps its devices.
void register_with_criteria(OutputText& text, const char* name) {
    decltype(State::vrf_map) instance;
    instance.try_emplace(name);
    const PosixLock lock{state->fd_map_mutex};
    const auto commands = replay_commands(name);
    state->vrf_map.merge(instance);
    run_all(text, commands);
}

void forget_device(const VrfTun& device) {
    state->tun_fds(device.family).erase(device.index);
    if (!state->fd_map.is_registered(device.fd))
        return;
    state->fd_map.at(device.fd).keep_open();
    state->fd_map.erase(device.fd);
    state->changed();
}

void unregister(const char* name) {
    const PosixLock lock{state->fd_map_mutex};
    const auto instance = state->vrf_map.find(name);
    if (instance == state->vrf_map.end())
        return;
    for (const VrfTun& device : instance->second)
        forget_device(device);
    state->vrf_map.erase(instance);
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_vrf_create(char* output, size_t output_size, const char* name) {
    report_into(output, output_size, [=](OutputText& text) {
        const auto policy = policy_commands(name);
        text.run(composed({"ip netns add \"", name, "\" 2>&1"}));
        register_with_criteria(text, name);
        run_all(text, policy);
    });
}

void zel_vrf_destroy(char* output, size_t output_size, const char* name) {
    report_into(output, output_size, [=](OutputText& text) {
        text.run(composed({"ip netns del \"", name, "\" 2>&1"}));
        unregister(name);
    });
}
