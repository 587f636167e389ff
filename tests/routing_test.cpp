#include "support/commands.hpp"
#include "support/test.hpp"

#include <netinet/in.h>

ZEL_INTERPOSE(const char*, inet_ntop, (int f, const void* a, char* t, socklen_t size),
              (f, a, t, size))
ZEL_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
ZEL_INTERPOSE(int, pthread_mutex_unlock, (pthread_mutex_t * m), (m))

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using namespace zel::test;

char text[4096] = "old";
constexpr size_t size = sizeof text;

const in_addr host4{htonl(0x0a010203)}, net4{htonl(0x0a010000)}, gate4{htonl(0x0a010001)}, any4{};
const in6_addr host6{{{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
const in6_addr net6{{{0x20, 0x01, 0x0d, 0xb8}}};
const in6_addr local6{{{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
const int32_t three = 3, minus_one = -1;

const struct {
    void (*run)();
    const char* command; // after `ip netns exec "red" ip `, without ` 2>&1`
} single_commands[] = {
    {[] { zel_tun_ipv4_status(text, size, "red", 3, true); }, "link set dev tun4_3 up"},
    {[] { zel_tun_ipv6_status(text, size, "red", -3, false); }, "link set dev tun6_-3 down"},
    {[] { zel_tun_ipv4_mtu(text, size, "red", 3, 70000); }, "link set dev tun4_3 mtu 65535"},
    {[] { zel_tun_ipv6_mtu(text, size, "red", 3, -1); }, "link set dev tun6_3 mtu -1"},
    {[] { zel_tun_ipv4_address_add(text, size, "red", 3, &host4); },
     "addr add 10.1.2.3 dev tun4_3 nodad"},
    {[] { zel_tun_ipv4_address_del(text, size, "red", 3, &host4); },
     "addr del 10.1.2.3/32 dev tun4_3 nodad"},
    {[] { zel_tun_ipv6_address_add(text, size, "red", 3, &local6, 64, true); },
     "addr add fe80::1 scope link dev tun6_3 nodad"},
    {[] { zel_tun_ipv6_address_add(text, size, "red", 3, &host6, 64, false); },
     "addr add 2001:db8::1 scope global dev tun6_3 nodad"},
    {[] { zel_tun_ipv6_address_del(text, size, "red", 3, &host6); },
     "addr del 2001:db8::1/128 dev tun6_3 nodad"},
    {[] { zel_ipv4_route_add(text, size, "red", &net4, 7, 16, &three, &gate4, 9); },
     "route append 10.1.0.0/16 via 10.1.0.1 dev tun4_3 protocol static"},
    {[] { zel_ipv4_route_del(text, size, "red", &any4, 7, 0, nullptr, nullptr, 9); },
     "route del 0.0.0.0/0 protocol static"},
    {[] { zel_ipv6_route_add(text, size, "red", &net6, 7, 4294967295, &minus_one, nullptr, 9); },
     "route append 2001:db8::/4294967295 dev tun6_-1 protocol static"},
    {[] { zel_ipv6_route_del(text, size, "red", &net6, 7, 32, nullptr, &local6, 9); },
     "route del 2001:db8::/32 via fe80::1 protocol static"},
    {[] { zel_ipv4_external_route_add(text, size, "red", 3, &host4); },
     "route append 10.1.2.3 dev tun4_3 table external"},
    {[] { zel_ipv4_external_route_del(text, size, "red", 3, &host4); },
     "route del 10.1.2.3 dev tun4_3 table external"},
    {[] { zel_ipv6_external_route_add(text, size, "red", 1, &host6); },
     "route append 2001:db8::1 dev tun6_1 table external"},
    {[] { zel_ipv6_external_route_del(text, size, "red", 1, &host6); },
     "route del 2001:db8::1 dev tun6_1 table external"},
};

TEST(Routing, OperationsOfOneCommandWriteItAsTheToolReadsIt) {
    auto& commands = record_commands(true);
    int count = 0;
    for (const auto& each : single_commands) {
        each.run();
        EXPECT_EQ(text, "<" + std::to_string(++count) + ">") << each.command;
        EXPECT_THAT(commands.take(),
                    ElementsAre("ip netns exec \"red\" ip " + std::string{each.command} + " 2>&1"));
    }
}

TEST(Routing, AnAddressThatCannotBeWrittenEndsTheOperationBeforeItsCommand) {
    static int left;
    interposed::inet_ntop = [](auto... arguments) {
        return --left == 0 ? nullptr : real::inet_ntop(arguments...);
    };
    auto& commands = record_commands(true);
    for (const auto& each : single_commands) {
        int failing = 0;
        do {
            left = ++failing;
            std::strcpy(text, "untouched");
            each.run();
            EXPECT_EQ(text != std::string{"untouched"}, left > 0) << each.command;
            EXPECT_EQ(commands.take().size(), left > 0 ? 1u : 0u) << each.command;
        } while (left <= 0);
    }
}

const std::string dns = " OUTPUT -p 17 --dport 53", bgp = " OUTPUT -p 6 --sport 179";

// What marking commands with these rules look like in an instance, the other commands beside them.
Strings marking(const std::string& name, const Strings& rules) {
    Strings commands;
    for (const std::string& rule : rules) {
        for (const char* tool : {"iptables", "ip6tables"})
            commands.push_back("ip netns exec \"" + name + "\" " + tool + " -t mangle " + rule +
                               " -j MARK --set-mark 100 2>&1");
    }
    return commands;
}

Strings creation(const std::string& name, const Strings& rules) {
    Strings commands = marking(name, rules);
    commands.insert(commands.begin(), "ip netns add \"" + name + "\" 2>&1");
    for (const char* ip : {"ip", "ip -6"})
        for (const char* rule :
             {"add fwmark 100 pref 100 table external", "del pref 0", "add pref 110 table local"})
            commands.push_back("ip netns exec \"" + name + "\" " + ip + " rule " + rule + " 2>&1");
    return commands;
}

TEST(Routing, CriteriaReachEveryInstanceInOrderOfNamesAndNewOnesInOrderOfAddition) {
    auto& commands = record_commands(true);
    const auto add = zel_external_traffic_match_criteria_add;
    const auto del = zel_external_traffic_match_criteria_del;
    const auto in_both = [](const std::string& rule) {
        Strings result = marking("blue", {rule});
        for (const std::string& each : marking("red", {rule}))
            result.push_back(each);
        return result;
    };
    add(text, size, 17, 0, 53);
    add(text, size, 6, 179, 0);
    add(text, size, 17, 0, 53);
    EXPECT_THAT(commands.take(), ElementsAre());
    EXPECT_STREQ(text, "");
    zel_vrf_create(text, size, "red");
    EXPECT_EQ(commands.take(), creation("red", {"-A" + dns, "-A" + bgp, "-A" + dns}));
    EXPECT_STREQ(text, "<1><2><3><4><5><6><7><8><9><10><11><12><13>");
    del(text, size, 17, 0, 53); // the first of two equal ones
    EXPECT_EQ(commands.take(), marking("red", {"-D" + dns}));
    zel_vrf_create(text, size, "blue");
    EXPECT_EQ(commands.take(), creation("blue", {"-A" + bgp, "-A" + dns}));
    add(text, size, 1, -2, 3);
    EXPECT_EQ(commands.take(), in_both("-A OUTPUT -p 1 --sport -2 --dport 3"));
    EXPECT_STREQ(text, "<27><28><29><30>");
    del(nullptr, 0, 99, 0, 0); // never added
    EXPECT_EQ(commands.take(), in_both("-D OUTPUT -p 99"));
    zel_vrf_destroy(text, size, "red");
    EXPECT_THAT(commands.take(), ElementsAre("ip netns del \"red\" 2>&1"));
    add(text, size, 99, 0, 0);
    EXPECT_EQ(commands.take(), marking("blue", {"-A OUTPUT -p 99"}));
}

// Whichever of the two has the lock first, the other comes while it waits, or just behind it.
TEST(Routing, AnInstanceAndACriterionMadeAtTheSameTimeMeetOnce) {
    static std::function<void()> at_lock, at_unlock;
    static pthread_mutex_t* network_lock = nullptr;
    interposed::pthread_mutex_lock = [](pthread_mutex_t* mutex) {
        if (network_lock == nullptr)
            network_lock = mutex;
        if (mutex == network_lock && at_lock != nullptr)
            std::exchange(at_lock, nullptr)();
        return real::pthread_mutex_lock(mutex);
    };
    interposed::pthread_mutex_unlock = [](pthread_mutex_t* mutex) {
        const int result = real::pthread_mutex_unlock(mutex);
        if (mutex == network_lock && at_unlock != nullptr)
            std::exchange(at_unlock, nullptr)();
        return result;
    };
    network_lock = nullptr; // setting a hook takes one of its own on ARM
    zel_external_traffic_match_criteria_del(nullptr, 0, 1, 0, 0); // takes that lock alone
    auto& commands = record_commands(true);
    for (const int port : {1, 2, 3, 4}) {
        const std::string name = "red" + std::to_string(port);
        const auto create = [&] { zel_vrf_create(nullptr, 0, name.c_str()); };
        const auto add = [&] { zel_external_traffic_match_criteria_add(nullptr, 0, 6, port, 0); };
        auto& moment = port <= 2 ? at_lock : at_unlock;
        port % 2 == 0 ? moment = create : moment = add;
        port % 2 == 0 ? add() : create();
        EXPECT_TRUE(moment == nullptr) << port;
        const auto mark = marking(name, {"-A OUTPUT -p 6 --sport " + std::to_string(port)});
        EXPECT_EQ(std::ranges::count(commands.take(), mark.front()), 1) << port;
    }
}

TEST(Routing, TextIsCutToTheBufferAndEveryCommandStillRuns) {
    auto& commands = record_commands(true);
    for (const size_t room : {1u, 2u, 5u, 6u, 7u, 21u}) {
        std::memset(text, '#', size);
        zel_vrf_create(text, room, "red");
        EXPECT_EQ(std::strlen(text), room - 1);
        EXPECT_EQ(text[room], '#');
        EXPECT_EQ(commands.take().size(), 7u);
    }
}

TEST(Routing, InstancesGetTheirPolicyAndStartUpRemovesThem) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    zel_external_traffic_match_criteria_add(text, size, 17, 0, 53);
    for (const char* name : {"red", "blue"}) {
        zel_vrf_create(text, size, name);
        EXPECT_STREQ(text, "");
        const auto inside = "ip netns exec " + std::string{name};
        for (const char* ip : {" ip", " ip -6"})
            EXPECT_THAT(shell(inside + ip + " rule"),
                        testing::ContainsRegex(
                            "^100:\tfrom all fwmark 0x64 lookup external *\n"
                            "110:\tfrom all lookup local *\n32766:\tfrom all lookup main *\n"));
        EXPECT_THAT(shell(inside + " ip6tables -t mangle -S OUTPUT"),
                    HasSubstr("-A OUTPUT -p udp -m udp --dport 53 -j MARK --set-xmark 0x64/"));
    }
    zel_vrf_create(text, size, "red");
    EXPECT_THAT(text, HasSubstr("Cannot create namespace file"));
    EXPECT_THAT(text, HasSubstr("RTNETLINK answers: File exists"));
    for (const size_t length : {0U, 300U, 100'000U}) { // no name for a namespace
        zel_vrf_create(text, size, std::string(length, 'n').c_str());
        EXPECT_STRNE(text, "") << length;
    }

    std::ofstream{"/run/netns/.hidden"};
    for (const char* report : {"popen() failed; Resource temporarily unavailable\r\n\r\n", ""}) {
        interposed::popen = [report](auto... arguments) {
            errno = EAGAIN;
            return *report != '\0' ? nullptr : real::popen(arguments...);
        };
        const auto printed = printed_on(1, remove_all_network_namespaces);
        for (const std::string name : {"red", "blue"})
            EXPECT_THAT(printed,
                        HasSubstr("Removing network namespace \"" + name + "\"\r\n" + report));
    }
    EXPECT_EQ(shell("ls -A /run/netns"), ".hidden\n");
    shell("rm -r /run/netns");
    EXPECT_EQ(printed_on(1, remove_all_network_namespaces), "");
}

} // namespace
