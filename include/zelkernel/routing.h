/* Virtual routing: isolated IP routing domains of the application, made of Linux network
 * namespaces.
 *
 * A routing instance is a network namespace of the same name, with a fixed policy: packets that the
 * namespace itself sends and that match an external traffic criterion get the firewall mark 100;
 * marked packets are looked up in the routing table `external` (rule preference 100), then, as all
 * others, in the tables `local` (preference 110) and `main`. Instances may use the same addresses.
 *
 * Needed on the system: the tools ip, iptables and ip6tables in PATH, and the table name `external`
 * in the ip tool's rt_tables file ("100 external", say).
 *
 * The rules for `name`, `output` and `output_size` are those of tun.h: the text of all commands of
 * one call lies back to back in `output`. A failing command never stops the ones after it. All
 * functions block while their commands run and return nothing; they may be called from any thread.
 * zel_vrf_create and the criteria functions run commands while they hold the network module's lock,
 * so that each criterion reaches each instance exactly once; the lock has priority inheritance.
 * Packets are sent and received meanwhile; the functions of tun.h that create and destroy devices
 * or set their MTU wait.
 */
#ifndef ZELKERNEL_ROUTING_H
#define ZELKERNEL_ROUTING_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include <zelkernel/config.h>

ZEL_BEGIN_DECLS

/* Makes the namespace and its policy, applies all criteria known so far and registers the instance.
 * For a name that is registered already every command runs again, the registration stays. */
ZEL_EXPORT void zel_vrf_create(char* output, size_t output_size, const char* name);

/* Deletes the namespace and forgets the instance with its TUN devices. Destroy the devices first:
 * the descriptors of those that are still attached are NOT closed, they stay open and unused for
 * the life of the process. */
ZEL_EXPORT void zel_vrf_destroy(char* output, size_t output_size, const char* name);

/* Appends or removes a static route of the instance to `destination`/`prefix_length` through a
 * gateway (null: none), a TUN device of the instance by its index (null: none), or both. Addresses
 * are in network byte order, the prefix length is a plain number and not checked; the ip tool's
 * answer lands in `output`. The fifth and the ninth argument are ignored. No lock is taken. */
ZEL_EXPORT void zel_ipv4_route_add(char* output, size_t output_size, const char* name,
                                   const struct in_addr* destination, uint32_t ignored,
                                   uint32_t prefix_length, const int32_t* interface_index,
                                   const struct in_addr* gateway, uint32_t ignored_too);
ZEL_EXPORT void zel_ipv4_route_del(char* output, size_t output_size, const char* name,
                                   const struct in_addr* destination, uint32_t ignored,
                                   uint32_t prefix_length, const int32_t* interface_index,
                                   const struct in_addr* gateway, uint32_t ignored_too);
ZEL_EXPORT void zel_ipv6_route_add(char* output, size_t output_size, const char* name,
                                   const struct in6_addr* destination, uint32_t ignored,
                                   uint32_t prefix_length, const int32_t* interface_index,
                                   const struct in6_addr* gateway, uint32_t ignored_too);
ZEL_EXPORT void zel_ipv6_route_del(char* output, size_t output_size, const char* name,
                                   const struct in6_addr* destination, uint32_t ignored,
                                   uint32_t prefix_length, const int32_t* interface_index,
                                   const struct in6_addr* gateway, uint32_t ignored_too);

/* Adds or removes a criterion of external traffic, for every instance, present and future, and for
 * both families: the IP protocol number, and the ports when they are not 0. No range is checked.
 * The list keeps its order and may hold a criterion several times; removal takes the first equal
 * one and runs its commands even if there is none. A criterion that the firewall tool rejected
 * stays in the list. */
ZEL_EXPORT void zel_external_traffic_match_criteria_add(char* output, size_t output_size,
                                                        int32_t protocol, int32_t source_port,
                                                        int32_t destination_port);
ZEL_EXPORT void zel_external_traffic_match_criteria_del(char* output, size_t output_size,
                                                        int32_t protocol, int32_t source_port,
                                                        int32_t destination_port);

/* Appends or removes a host route of the table `external` of the instance, through the TUN device
 * with this index. The address is in network byte order. No lock is taken. */
ZEL_EXPORT void zel_ipv4_external_route_add(char* output, size_t output_size, const char* name,
                                            int32_t interface_index, const struct in_addr* address);
ZEL_EXPORT void zel_ipv4_external_route_del(char* output, size_t output_size, const char* name,
                                            int32_t interface_index, const struct in_addr* address);
ZEL_EXPORT void zel_ipv6_external_route_add(char* output, size_t output_size, const char* name,
                                            int32_t interface_index,
                                            const struct in6_addr* address);
ZEL_EXPORT void zel_ipv6_external_route_del(char* output, size_t output_size, const char* name,
                                            int32_t interface_index,
                                            const struct in6_addr* address);

/* Deletes EVERY named network namespace of the system, other programs' too: all entries of
 * /var/run/netns but those whose names begin with a dot. Start-up calls it, so that instances start
 * fresh. Prints a line for each on standard output. Run the application in a mount namespace of its
 * own where that must not happen. */
ZEL_EXPORT void remove_all_network_namespaces(void);

ZEL_END_DECLS

#endif
