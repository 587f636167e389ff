#include "network.hpp"

#include "client_process.hpp"
#include "clients.hpp"
#include "http_server.hpp"
#include "instances.hpp"
#include "ip_stack.hpp"
#include "private_machine.hpp"
#include "stop_signals.hpp"

#include <unistd.h>

void start_network(Checks& checks) {
    start_ip_stack();
    bool first = true;
    for (const Instance& instance : plan::instances) {
        if (stop_requested()) {
            return;
        }
        start_http_server(instance);
        create_instance(instance, checks);
        if (first) {
            // The first instance is there when the criterion comes; the second is given it when it
            // is made.
            mark_external_traffic(checks);
        }
        first = false;
    }
}

void start_network_clients(std::size_t bytes_to_fetch) {
    start_clients(bytes_to_fetch);
}

void let_network_clients_begin() {
    let_clients_begin();
}

bool network_finished() {
    return clients_finished();
}

void finish_network(Checks& checks) {
    stop_clients();
    while (!clients_finished()) {
        usleep(10'000);
    }
    take_client_checks(checks);
    for (const Instance& instance : plan::instances) {
        destroy_instance(instance);
    }
    const int left = named_namespaces();
    checks.expect(left == 0, text("end: %d network namespaces left behind", left));
}
