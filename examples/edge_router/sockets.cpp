#include "sockets.hpp"

#include <arpa/inet.h>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <unistd.h>

SocketAddress address_of(int family, const char* host, int port) {
    SocketAddress address;
    if (family == AF_INET) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(address.storage);
        v4.sin_family = AF_INET;
        v4.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, host, &v4.sin_addr);
        address.length = sizeof v4;
    } else {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address.storage);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET6, host, &v6.sin6_addr);
        address.length = sizeof v6;
    }
    return address;
}

// A socket lives in the namespace that its maker was in. Only the calling thread goes there.
int datagram_socket_in(const char* instance, int family) {
    const std::string path = std::string("/run/netns/") + instance;
    const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int made = -1;
    if (setns(there, CLONE_NEWNET) == 0) {
        made = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (setns(home, CLONE_NEWNET) != 0) {
            std::abort(); // from here on, every socket would be in the wrong place
        }
    }
    close(there);
    close(home);
    return made;
}
