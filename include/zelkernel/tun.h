/* TUN devices: the packet path between the application's own IP stack and Linux.
 *
 * A device belongs to a routing instance (routing.h) and is identified by its address family and an
 * index that the application chooses: index 3 is the Linux device tun4_3 for IPv4 and tun6_3 for
 * IPv6, two different devices. What the IP stack sends through a device arrives in the instance's
 * network namespace; what Linux routes out through it is handed to the IP stack, one raw IP packet
 * at a time, by the receive thread.
 *
 * Common to all functions here, where nothing else is said:
 * - They need zel_kernel_init to have run, and may then be called from any thread, also from the
 *   receive callbacks. They return nothing.
 * - `name` is the instance's name: not null, without double quotes and without characters that the
 *   shell interprets inside them. It is written into commands as it is.
 * - `output` takes the text that the commands print, errors included, and is the only report: empty
 *   or harmless when all went well. It may be null. `output_size` is its size in bytes, at least 1;
 *   the text is always NUL-terminated and is cut where the room ends. Give it room, or none: of a
 *   buffer with room for some of the text, a command that prints more is ended by SIGPIPE, perhaps
 *   before it has acted. (Current versions of ip print a warning for each IPv4 address.) With a
 *   null buffer, one of one byte or one that is full, up to 255 characters are read and dropped.
 *   Lines of the library's own end in "\r\n"; "Out of memory." among them means that the operation
 *   stopped there.
 * - Functions with `output` block while commands run, typically for milliseconds each. No lock is
 *   held meanwhile; the bookkeeping itself is done under one short priority-inheritance lock, which
 *   the functions of routing.h may hold for longer. With the posix locks switch off there is none.
 * - Packets take no lock in either direction: whatever other threads configure, and for however
 *   long, a send takes its own time only, and the receive thread goes on.
 */
#ifndef ZELKERNEL_TUN_H
#define ZELKERNEL_TUN_H

#include <netinet/in.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <zelkernel/config.h>

ZEL_BEGIN_DECLS

/* Prepares the network module; zel_kernel_init calls it, once, and an application does not. Without
 * a TUN driver it prints "No IP stack synchronization.\r\n" on standard output: commands still run
 * then, but no device can be opened and no packet flows. Stops the process through zel_fatal when
 * the module's lock or wake-up pipe cannot be made. */
ZEL_EXPORT void zel_tun_init(void);

/* Creates the device, moves it into the namespace `name` and opens it for packets. Create the
 * instance first: only then does zel_vrf_destroy know of the device. The device starts down, with
 * an MTU of 1500.
 *
 * Appended to `output` on failure: "Unable to open /dev/net/tun.\r\n"; "ioctl() failed for
 * <device>\r\n"; "Descriptor <n> is too large for <device>\r\n" when the process has so many files
 * open that the number does not fit select() (1024 and up). Nothing is registered then and no
 * descriptor stays open; a device that Linux has already made stays.
 *
 * Destroy an index before creating it again. Creating it twice leaves both descriptors watched;
 * packets are sent to the first, and zel_tun_..._destroy closes only the first. */
ZEL_EXPORT void zel_tun_ipv4_create(char* output, size_t output_size, const char* name, int index);
ZEL_EXPORT void zel_tun_ipv6_create(char* output, size_t output_size, const char* name, int index);

/* Unregisters the device, closes it and queues its deletion command, which the receive thread runs
 * soon afterwards, in the order of the calls. `output` is set to the empty text (`output_size` is
 * not used); a failing deletion is not reported, and neither is a lack of memory, which leaves the
 * device as it was. An index that is not registered still has the deletion command run for its
 * device name.
 *
 * A packet that another thread is sending or receiving at this moment still goes through the old
 * device: `receive` may be called once more for the index after this call has returned. The
 * descriptor is closed as soon as nobody uses it, never under a running read or write, so that its
 * number cannot be reused under them, and never by a sender: that takes Linux tens of milliseconds.
 * Once the receive thread has been started, Linux removes a registered device with its last
 * descriptor, even if that is one that a child of the process has inherited and keeps open; without
 * that thread the device stays, as does its queued deletion.
 *
 * The deletion is under way when the call returns, not over. A creation of the same index at once
 * can be refused by Linux ("ioctl() failed for <device>", "Device or resource busy", "File
 * exists"), or its device can be the one that the queued deletion then finds. Wait until the device
 * is gone (`ip -n <name> link show dev <device>` fails), and repeat a creation that has reported an
 * error after destroying the index; or take another index. */
ZEL_EXPORT void zel_tun_ipv4_destroy(char* output, size_t output_size, const char* name, int index);
ZEL_EXPORT void zel_tun_ipv6_destroy(char* output, size_t output_size, const char* name, int index);

/* The IP stack's side of the receive path. All three run on the receive thread, one at a time, with
 * no lock held; they may call any function of this header and of routing.h, which delays the
 * packets meanwhile. The thread's stack has 16 KiB. */

/* Takes over the buffer `handle`, which holds one packet of `length` bytes (0 is possible) that
 * Linux sent out through the device with this index. The family is not told: the packet's first
 * four bits are the IP version. */
typedef void (*zel_tun_receive_t)(int index, void* handle, int length);

/* Stores a buffer's handle and the address of at least `size` writable bytes, or a null handle when
 * there is no buffer: the packet is dropped then. `size` is the device's MTU. */
typedef void (*zel_tun_alloc_buffer_t)(void** handle_out, void** data_out, int size);

/* Takes back a buffer that could not be filled. */
typedef void (*zel_tun_free_buffer_t)(void* handle);

/* Starts the receive thread, "IpStackSyncRxP~" by name, under SCHED_FIFO at `priority`, in the
 * application's numbering. Call it once. The thread runs until the process ends; without a TUN
 * driver it ends at once.
 *
 * The thread inherits the caller's signal mask. Block the application's signals around this call:
 * a signal handler that runs on the receive thread interrupts its select(), which stops the process
 * through zel_fatal.
 *
 * A thread or a record that cannot be had is reported in one line on standard error; the call can
 * then be repeated.
 *
 * The MTU in force when the wait for packets ends is the one a packet is read with; a longer packet
 * is cut to it. A device that vanished from Linux (its namespace was deleted, say) is no longer
 * waited for. */
ZEL_EXPORT void zel_tun_packet_init(zel_tun_receive_t receive, zel_tun_alloc_buffer_t alloc_buffer,
                                    zel_tun_free_buffer_t free_buffer, int priority);

/* Hands one IP packet of `length` bytes to Linux, as if it had arrived on the device. Never retried
 * and never reported: without a device of this index and family nothing happens, a device that is
 * down or a packet that Linux refuses loses it. Takes no lock; blocks no longer than its one
 * write(). */
ZEL_EXPORT void zel_tun_ipv4_packet_send(int index, const void* packet, size_t length);
ZEL_EXPORT void zel_tun_ipv6_packet_send(int index, const void* packet, size_t length);

/* Sets the device up or down. */
ZEL_EXPORT void zel_tun_ipv4_status(char* output, size_t output_size, const char* name, int index,
                                    bool up);
ZEL_EXPORT void zel_tun_ipv6_status(char* output, size_t output_size, const char* name, int index,
                                    bool up);

/* Sets the device's MTU in bytes, for Linux and as the size of the IP stack's receive buffers;
 * above 65535 it is 65535. The receive size changes even if Linux refuses the MTU. An MTU below 1
 * is passed to Linux, whose complaint lands in `output`, and leaves the receive size alone. */
ZEL_EXPORT void zel_tun_ipv4_mtu(char* output, size_t output_size, const char* name, int index,
                                 int mtu);
ZEL_EXPORT void zel_tun_ipv6_mtu(char* output, size_t output_size, const char* name, int index,
                                 int mtu);

/* Adds or removes an address (network byte order) of the device, as a host address: /32 or /128.
 * The sixth argument of the IPv6 addition is ignored. `link_scope` chooses scope link instead of
 * scope global. */
ZEL_EXPORT void zel_tun_ipv4_address_add(char* output, size_t output_size, const char* name,
                                         int index, const struct in_addr* address);
ZEL_EXPORT void zel_tun_ipv4_address_del(char* output, size_t output_size, const char* name,
                                         int index, const struct in_addr* address);
ZEL_EXPORT void zel_tun_ipv6_address_add(char* output, size_t output_size, const char* name,
                                         int index, const struct in6_addr* address,
                                         uint32_t ignored, bool link_scope);
ZEL_EXPORT void zel_tun_ipv6_address_del(char* output, size_t output_size, const char* name,
                                         int index, const struct in6_addr* address);

ZEL_END_DECLS

#endif
