#include "clients.hpp"

#include "app_threads.hpp"
#include "client_process.hpp"
#include "content.hpp"
#include "lateness.hpp"
#include "network_plan.hpp"
#include "priorities.hpp"
#include "sockets.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <cstdlib>
#include <pthread.h>
#include <semaphore.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t stack_size = std::size_t{128} * 1024;

struct Client {
    const Instance* instance;
    int slot;
    std::size_t bytes_to_fetch;
    Checks checks;
};

std::array<Client, plan::instances.size()>& clients() {
    static auto& all = *new std::array<Client, plan::instances.size()>;
    return all;
}
std::atomic<int> working{0};
sem_t may_begin;
pthread_barrier_t all_ready; // what competes for the IP stack's attention starts at the same time

// --- ping ---

void ping(Client& client, const char* address) {
    constexpr int count = 20;
    std::string output;
    run_in_instance(client.instance->name, client.slot,
                    {"ping", "-n", "-q", "-c", std::to_string(count), "-i", "0.05", "-s", "1000",
                     "-w", "60", address},
                    [&output](std::span<const unsigned char> bytes) {
                        output.append(bytes.begin(), bytes.end());
                    });
    // "20 packets transmitted, 20 received, 0% packet loss, ..."
    const std::size_t comma = output.find(", ");
    const int received =
        comma == std::string::npos ? 0 : std::atoi(output.c_str() + comma + sizeof ", " - 1);
    // With a limit of time ping goes on sending until it has `count` replies, and a slow machine
    // may hand it several more at once.
    client.checks.expect(received >= count, text("%s: ping %s: %d of %d replies",
                                                 client.instance->name, address, received, count));
}

// --- curl ---

// Both instances fetch from the same address to the same address, from the same port: only the
// namespace and the stack's interface keep the connections apart.
void fetch(Client& client, const char* host, const char* local_port) {
    pthread_barrier_wait(&all_ready);
    const std::size_t wanted = client.bytes_to_fetch;
    std::size_t received = 0;
    Checksum checksum;
    const std::int64_t start = now_ns();
    const int status = run_in_instance(
        client.instance->name, client.slot,
        {"curl", "-sS", "--noproxy", "*", "--max-time", "100", "--local-port", local_port,
         "http://" + std::string(host) + "/bytes/" + std::to_string(wanted)},
        [&received, &checksum](std::span<const unsigned char> bytes) {
            received += bytes.size();
            checksum.add(bytes);
        });
    const auto microseconds = static_cast<std::uint64_t>((now_ns() - start) / 1000 + 1);
    const std::uint64_t rate = received * std::uint64_t{10} / microseconds; // tenths of MB/s

    Checksum expected;
    Content content(client.instance->name);
    unsigned char portion[1024];
    for (std::size_t left = wanted; left > 0;) {
        const std::span bytes(portion, std::min(left, sizeof portion));
        content.fill(bytes);
        expected.add(bytes);
        left -= bytes.size();
    }
    const bool same = checksum.value() == expected.value();
    client.checks.expect(status == 0 && received == wanted && same,
                         text("%s: curl http://%s/: %zu of %zu bytes, checksum %016" PRIx64
                              " %s, %" PRIu64 ".%" PRIu64 " MB/s",
                              client.instance->name, host, received, wanted, checksum.value(),
                              same ? "as served" : "DIFFERS", rate / 10, rate % 10));
}

// --- UDP queries ---

// The answer, which names the interface that the query came in through; empty when none comes.
std::string query(const char* instance, int family, const char* host, int port) {
    const int udp = datagram_socket_in(instance, family);
    const timeval patience{.tv_sec = 2, .tv_usec = 0};
    setsockopt(udp, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const SocketAddress to = address_of(family, host, port);
    std::string answer;
    for (int attempt = 0; attempt < 5 && answer.empty() && !clients_stopped(); ++attempt) {
        sendto(udp, "who?", 4, 0, to.get(), to.length);
        char reply[64];
        const ssize_t length = recv(udp, reply, sizeof reply, 0);
        answer.assign(reply, length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    close(udp);
    return answer;
}

void check_query(Client& client, int family, const char* host, int port,
                 const Interface& expected) {
    const std::string answer = query(client.instance->name, family, host, port);
    client.checks.expect(answer == expected.name,
                         text("%s: UDP query to %s port %d came in by \"%s\"",
                              client.instance->name, host, port, answer.c_str()));
}

// --- The whole of it ---

void* run_client(void* argument) {
    auto& client = *static_cast<Client*>(argument);
    sem_wait(&may_begin);
    const Instance& instance = *client.instance;
    ping(client, plan::stack_ipv4);
    ping(client, plan::stack_ipv6);
    fetch(client, plan::stack_ipv4, "40004");
    fetch(client, (std::string("[") + plan::stack_ipv6 + "]").c_str(), "40006");
    for (const auto& [family, host] :
         {std::pair{AF_INET, plan::external_ipv4}, std::pair{AF_INET6, plan::external_ipv6}}) {
        check_query(client, family, host, plan::external_port, instance.external);
        check_query(client, family, host, plan::ordinary_port, instance.inside);
    }
    --working;
    return nullptr;
}

} // namespace

void start_clients(std::size_t bytes_to_fetch) {
    working = static_cast<int>(plan::instances.size());
    sem_init(&may_begin, 0, 0);
    pthread_barrier_init(&all_ready, nullptr, plan::instances.size());
    for (std::size_t i = 0; i < plan::instances.size(); ++i) {
        Client& client = clients()[i];
        client = {&plan::instances[i], static_cast<int>(i), bytes_to_fetch, {}};
        // All processors, which the programs inherit: a peer is not a part of this kernel.
        start_app_thread((std::string("client ") + client.instance->name).c_str(), priority::client,
                         run_client, &client, stack_size, Processors::all);
    }
}

void let_clients_begin() {
    for (std::size_t i = 0; i < plan::instances.size(); ++i) {
        sem_post(&may_begin);
    }
}

bool clients_finished() {
    return working == 0;
}

void take_client_checks(Checks& checks) {
    for (Client& client : clients()) {
        checks.merge(client.checks);
    }
}
