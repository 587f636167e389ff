// In the place of network.cpp where lwIP cannot be had.
#include "network.hpp"

#include <cstdio>

void start_network(Checks&) {
    std::printf("Built without an IP stack: nothing of the network is shown.\n");
}

void start_network_clients(std::size_t) {}

void let_network_clients_begin() {}

bool network_finished() {
    return true;
}

void finish_network(Checks&) {}
