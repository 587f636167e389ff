// Sockets of the peers, which live on Linux's side of the routing instances.
#pragma once

#include <sys/socket.h>

struct SocketAddress {
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }

    sockaddr_storage storage{};
    socklen_t length = 0;
};

SocketAddress address_of(int family, const char* host, int port);

// A UDP socket in the instance's namespace; -1 when there is none.
int datagram_socket_in(const char* instance, int family);
