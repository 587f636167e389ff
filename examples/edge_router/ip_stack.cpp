#include "ip_stack.hpp"

#include "app_threads.hpp"
#include "priorities.hpp"
#include "query_service.hpp"

#include <lwip/netif.h>
#include <lwip/pbuf.h>
#include <lwip/tcpip.h>

#include <cstddef>
#include <pthread.h>
#include <semaphore.h>
#include <zelkernel/affinity.h>
#include <zelkernel/tun.h>

namespace {

// By interface index; filled before the receive thread starts, unchanged from then on.
constexpr std::size_t indices = 2 * plan::instances.size() + 1;
netif interfaces[indices];
char names[indices][NETIF_NAMESIZE];

// --- Packets to Linux: lwIP's thread, or a thread that holds its core lock ---

err_t send(netif* interface, pbuf* packet, void (*send_packet)(int, const void*, std::size_t)) {
    const int index = static_cast<const Interface*>(interface->state)->index;
    if (packet->next == nullptr) {
        send_packet(index, packet->payload, packet->len);
        return ERR_OK;
    }
    pbuf* whole = pbuf_clone(PBUF_RAW, PBUF_RAM, packet);
    if (whole == nullptr) {
        return ERR_MEM;
    }
    send_packet(index, whole->payload, whole->len);
    pbuf_free(whole);
    return ERR_OK;
}

err_t send_ipv4(netif* interface, pbuf* packet, const ip4_addr_t*) {
    return send(interface, packet, zel_tun_ipv4_packet_send);
}

err_t send_ipv6(netif* interface, pbuf* packet, const ip6_addr_t*) {
    return send(interface, packet, zel_tun_ipv6_packet_send);
}

// --- Packets from Linux: the library's receive thread ---

void alloc_buffer(void** handle, void** data, int size) {
    pbuf* buffer = pbuf_alloc(PBUF_RAW, static_cast<u16_t>(size), PBUF_RAM);
    *handle = buffer;
    if (buffer != nullptr) {
        *data = buffer->payload;
    }
}

void free_buffer(void* handle) {
    pbuf_free(static_cast<pbuf*>(handle));
}

// Queues the packet for lwIP's thread; when its mailbox is full the packet is dropped, as a real
// interface would.
void receive(int index, void* handle, int length) {
    auto* packet = static_cast<pbuf*>(handle);
    netif& interface = interfaces[index];
    pbuf_realloc(packet, static_cast<u16_t>(length));
    if (length == 0 || interface.input(packet, &interface) != ERR_OK) {
        pbuf_free(packet);
    }
}

// --- Set-up: lwIP's thread ---

err_t initialise(netif* interface) {
    interface->name[0] = 't';
    interface->name[1] = 'n';
    interface->mtu = plan::mtu;
    interface->output = send_ipv4;
    interface->output_ip6 = send_ipv6;
    return ERR_OK;
}

// Two instances have the same addresses: lwIP tells them apart by the interface only. What answers
// a packet leaves by the interface that the packet came in through; each socket is bound to one.
void add_interface(const Interface& planned) {
    netif& interface = interfaces[planned.index];
    ip4_addr_t address4, mask4;
    ip4addr_aton(planned.ipv4, &address4);
    ip4addr_aton("255.255.255.255", &mask4);
    netif_add(&interface, &address4, &mask4, IP4_ADDR_ANY4, const_cast<Interface*>(&planned),
              initialise, tcpip_input);

    ip6_addr_t address6;
    ip6addr_aton(planned.ipv6, &address6);
    s8_t slot = 0;
    netif_add_ip6_address(&interface, &address6, &slot);
    netif_ip6_addr_set_state(&interface, slot, IP6_ADDR_PREFERRED); // no duplicates to look for
    netif_index_to_name(netif_get_index(&interface), names[planned.index]);
    netif_set_link_up(&interface);
    netif_set_up(&interface);
}

pthread_t stack_thread;

// liblwip.so makes this thread with a call of its own, which this program's wrapping does not
// reach: the thread has its creator's priority, and places itself. (lwIP's own locks are not
// wrapped either, so they lack priority inheritance; its threads share processor 0, where they are
// held for microseconds.)
void become_application_thread() {
    stack_thread = pthread_self();
    const sched_param parameters{.sched_priority = priority::ip_stack};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
    setThreadAffinityCPU0();
}

void set_up(void* ready) {
    become_application_thread();
    for (const Instance& instance : plan::instances) {
        add_interface(instance.inside);
        add_interface(instance.external);
        start_query_service(instance.inside, interfaces[instance.inside.index]);
        start_query_service(instance.external, interfaces[instance.external.index]);
    }
    sem_post(static_cast<sem_t*>(ready));
}

} // namespace

void start_ip_stack() {
    sem_t ready;
    sem_init(&ready, 0, 0);
    tcpip_init(set_up, &ready);
    sem_wait(&ready);
    // From here: some versions of lwIP name the thread themselves before tcpip_init() returns.
    pthread_setname_np(stack_thread, "ip stack");
    note_app_thread("ip stack", priority::ip_stack);

    zel_tun_packet_init(receive, alloc_buffer, free_buffer, priority::packet_receive);
    note_app_thread("IpStackSyncRxPacket", priority::packet_receive);
}

const char* name_in_stack(const Interface& interface) {
    return names[interface.index];
}
