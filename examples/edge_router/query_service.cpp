#include "query_service.hpp"

#include <lwip/ip.h>
#include <lwip/pbuf.h>
#include <lwip/udp.h>

#include <cstring>

namespace {

void answer(void* interface_name, udp_pcb* socket, pbuf* query, const ip_addr_t* from, u16_t port) {
    const auto* name = static_cast<const char*>(interface_name);
    const auto length = static_cast<u16_t>(std::strlen(name));
    if (pbuf* reply = pbuf_alloc(PBUF_TRANSPORT, length, PBUF_RAM); reply != nullptr) {
        pbuf_take(reply, name, length);
        udp_sendto(socket, reply, from, port);
        pbuf_free(reply);
    }
    pbuf_free(query);
}

} // namespace

void start_query_service(const Interface& interface, const netif& in_stack) {
    for (const int port : {plan::external_port, plan::ordinary_port}) {
        udp_pcb* socket = udp_new_ip_type(IPADDR_TYPE_ANY);
        // Bound to an interface each, they may share the port; lwIP wants to be told so.
        ip_set_option(socket, SOF_REUSEADDR);
        udp_bind_netif(socket, &in_stack);
        udp_bind(socket, IP_ANY_TYPE, static_cast<u16_t>(port));
        udp_recv(socket, answer, const_cast<char*>(interface.name));
    }
}
