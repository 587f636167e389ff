#include "http_server.hpp"

#include "app_threads.hpp"
#include "content.hpp"
#include "ip_stack.hpp"
#include "priorities.hpp"

#include <lwip/sockets.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <span>
#include <string>

namespace {

constexpr std::size_t stack_size = std::size_t{64} * 1024; // lwIP's sockets, and the buffers below

template<typename Value>
bool set_option(int socket, int option, const Value& value) {
    return lwip_setsockopt(socket, SOL_SOCKET, option, &value, sizeof value) == 0;
}

bool bind_to_http_port(int socket) {
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(plan::http_port);
    return lwip_bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0;
}

// The servers of two instances listen on the same address and port, each on its own interface. lwIP
// compares addresses only: at bind() it wants all of them to allow reuse, at listen() it refuses a
// second one that allows it.
int listen_on(const Interface& interface) {
    const int socket = lwip_socket(AF_INET6, SOCK_STREAM, 0); // takes IPv4 too
    ifreq device{};
    std::strncpy(device.ifr_name, name_in_stack(interface), sizeof device.ifr_name - 1);
    if (!set_option(socket, SO_BINDTODEVICE, device) || !set_option(socket, SO_REUSEADDR, 1) ||
        !bind_to_http_port(socket) || !set_option(socket, SO_REUSEADDR, 0) ||
        lwip_listen(socket, 4) != 0 || !set_option(socket, SO_REUSEADDR, 1)) {
        std::fprintf(stderr, "edge_router: no HTTP server on the interface %s.\n", interface.name);
        std::exit(1);
    }
    return socket;
}

// The request up to its empty line, or what has come of it.
std::string read_request(int connection) {
    std::string request;
    char portion[256];
    while (request.find("\r\n\r\n") == std::string::npos && request.size() < 2048) {
        const ssize_t length = lwip_recv(connection, portion, sizeof portion, 0);
        if (length <= 0) {
            break;
        }
        request.append(portion, static_cast<std::size_t>(length));
    }
    return request;
}

void send_text(int connection, const std::string& text) {
    lwip_send(connection, text.data(), text.size(), 0);
}

void send_content(int connection, std::string_view owner, std::size_t count) {
    Content content(owner);
    unsigned char portion[8192];
    while (count > 0) {
        const std::span bytes(portion, std::min(count, sizeof portion));
        content.fill(bytes);
        if (lwip_send(connection, bytes.data(), bytes.size(), 0) < 0) {
            return;
        }
        count -= bytes.size();
    }
}

void serve(int connection, const Instance& instance) {
    constexpr char path[] = "GET /bytes/";
    const std::string request = read_request(connection);
    if (request.rfind(path, 0) != 0) {
        send_text(connection, "HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n\r\n");
        return;
    }
    const std::size_t count = std::strtoul(request.c_str() + sizeof path - 1, nullptr, 10);
    send_text(connection,
              "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(count) + "\r\n\r\n");
    send_content(connection, instance.name, count);
}

void* run_server(void* argument) {
    const auto& instance = *static_cast<const Instance*>(argument);
    const int listener = listen_on(instance.inside);
    for (;;) {
        const int connection = lwip_accept(listener, nullptr, nullptr);
        if (connection < 0) {
            continue;
        }
        set_option(connection, SO_RCVTIMEO, timeval{10, 0}); // for a client that says nothing
        serve(connection, instance);
        lwip_close(connection);
    }
}

} // namespace

void start_http_server(const Instance& instance) {
    start_app_thread((std::string("http ") + instance.name).c_str(), priority::http_server,
                     run_server, const_cast<Instance*>(&instance), stack_size);
}
