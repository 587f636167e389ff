/* The Internet checksum (RFC 1071) and its incremental update (RFC 1624, equation 3).
 *
 * All four functions are pure: no state, no lock, no allocation, no system call. Any thread may
 * call them at any time, also before start-up and in a signal handler.
 *
 * A checksum value is a number in host byte order, as it reads once the packet's checksum field has
 * been converted from network order; convert a result with htons() before storing it.
 */
#ifndef ZELKERNEL_CHECKSUM_H
#define ZELKERNEL_CHECKSUM_H

#include <zelkernel/config.h>

#include <stdint.h>

ZEL_BEGIN_DECLS

/* Checksum of `length` bytes at `data`, continuing from `initial`.
 *
 * The bytes are taken as 16-bit big-endian words; an odd last byte is the high-order byte of a word
 * whose other byte is 0. `data` may have any alignment; no byte outside the block is read. A
 * `length` of 0 or less is an empty block: `data` is not looked at and may be null. The sum is
 * exact for every length, also where it would overflow 32 bits (more than 65536 words).
 *
 * `initial` is 0xFFFF for a fresh sum, or the result over the preceding blocks, which must have
 * even lengths. An initial 0 gives the same results as 0xFFFF, except that a block of zeros gives 0
 * instead of 0xFFFF.
 */
ZEL_EXPORT uint16_t IpAccelerators_GeneralChecksum(const void* data, int length, uint16_t initial);

/* Checksum of the IPv4 header at `header` (any alignment), as long as the low nibble of its first
 * byte says (in 32-bit words, not validated; 0 gives 0xFFFF and reads no further). The checksum
 * field is summed as it stands: the result is 0 for a header with a correct checksum, and the value
 * to store when the field holds 0.
 */
ZEL_EXPORT uint16_t IpAccelerators_HeaderOnlyChecksum(const void* header);

/* The checksum after a field changed from `old_value` to `new_value`. All arguments are in the same
 * byte order, host's or packet's; the result is in that order. The field must lie at an even
 * offset of the summed data.
 */
ZEL_EXPORT uint16_t IpAccelerators_UpdateChecksum16(uint16_t checksum, uint16_t old_value,
                                                    uint16_t new_value);
ZEL_EXPORT uint16_t IpAccelerators_UpdateChecksum32(uint16_t checksum, uint32_t old_value,
                                                    uint32_t new_value);

ZEL_END_DECLS

#endif
