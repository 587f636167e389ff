#include "soak_flow.hpp"

#include "checks.hpp"
#include "soak_message.hpp"
#include "soak_watch.hpp"
#include "sockets.hpp"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace soak {

namespace {

// Between the smallest and the largest, scattered.
std::size_t size_of(std::uint32_t sequence) {
    constexpr std::size_t sizes = largest_message - sizeof(MessageHeader) + 1;
    return sizeof(MessageHeader) + sequence * std::size_t{389} % sizes;
}

} // namespace

Flow::Flow(const char* instance, const Interface& through, int family, const char* to, int port)
    : instance_(instance), index_(through.index),
      flow_(static_cast<std::uint32_t>(through.index) * 2 + (family == AF_INET6)),
      socket_(datagram_socket_in(instance, family)) {
    const timeval patience{.tv_sec = 20, .tv_usec = 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const SocketAddress peer = address_of(family, to, port);
    if (connect(socket_, peer.get(), peer.length) != 0) {
        fault(text("%s: no way to %s: %s", instance, to, std::strerror(errno)));
    }
}

Flow::~Flow() {
    close(socket_);
}

void Flow::send(unsigned messages) {
    unsigned char message[largest_message];
    for (unsigned i = 0; i < messages; ++i) {
        const std::size_t size = size_of(sequence_);
        write_message({message, size}, flow_, sequence_++);
        ::send(socket_, message, size, 0);
    }
}

bool Flow::exchange(unsigned messages) {
    const std::uint32_t first = sequence_;
    send(messages);
    for (std::uint32_t sequence = first; sequence != sequence_; ++sequence) {
        if (!receive(sequence)) {
            return false;
        }
    }
    return true;
}

bool Flow::receive(std::uint32_t sequence) {
    unsigned char message[largest_message + 1];
    const ssize_t size = recv(socket_, message, sizeof message, 0);
    if (size < 0) {
        fault(text("%s: message %u by interface %d has no echo: %s", instance_, sequence, index_,
                   std::strerror(errno)));
        return false;
    }
    MessageHeader header{};
    const bool whole = static_cast<std::size_t>(size) == size_of(sequence) &&
                       read_message({message, static_cast<std::size_t>(size)}, header);
    if (!whole || header.flow != flow_ || header.sequence != sequence || header.answer != index_) {
        fault(text("%s: the echo of message %u by interface %d is %s: flow %u, message %u, "
                   "interface %u",
                   instance_, sequence, index_, whole ? "another's" : "damaged", header.flow,
                   header.sequence, header.answer));
        return false;
    }
    ++figures.packets;
    figures.bytes += static_cast<std::uint64_t>(size);
    return true;
}

} // namespace soak
