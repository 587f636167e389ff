/* What the kernel does, readable from outside the process.
 *
 * With the environment variable ZELKERNEL_STATS set (to anything) when zel_kernel_init is called,
 * the library keeps its counters in a memory file of the process, named "zelkernel-stats"
 * (memfd_create). Another process with the right to look into this one finds it as the descriptor
 * whose link in /proc/PID/fd begins with "/memfd:zelkernel-stats", opens that read-only and maps
 * one zel_statistics; zelkernel-top does so. The file goes with the process, however that ends.
 * Without the variable there is no file and no descriptor, and tick lateness is not measured; the
 * other counters cost the same few instructions either way.
 *
 * Each counter has one writer, or is written under the lock of its module; a reader takes no lock
 * and may see counters of two moments side by side. They wrap at 2^32: take differences. All
 * integers are in the machine's byte order, and the layout is the same for both word sizes. */
#ifndef ZELKERNEL_STATISTICS_H
#define ZELKERNEL_STATISTICS_H

#include <stdint.h>

#define ZEL_STATISTICS_MAGIC 0x5a454c53u /* also tells the byte order */
#define ZEL_STATISTICS_VERSION 1u
#define ZEL_STATISTICS_LATENESS_CLASSES 32
#define ZEL_STATISTICS_VECTORS 64
#define ZEL_STATISTICS_DEVICES 256

typedef struct zel_statistics_vector {
    uint32_t used; /* 0: this and the other fields mean nothing */
    uint32_t vector;
    uint32_t interrupts; /* served */
} zel_statistics_vector;

typedef struct zel_statistics_device {
    uint32_t family; /* 4 or 6; anything else: free */
    int32_t index;
    uint32_t received_packets; /* handed to the IP stack */
    uint32_t received_bytes;
    uint32_t dropped_packets; /* the IP stack had no buffer */
    uint32_t sent_packets;    /* handed to Linux */
    uint32_t sent_bytes;
} zel_statistics_device;

typedef struct zel_statistics {
    uint32_t magic;
    uint32_t version;
    int32_t priorities[9]; /* kernel_priorities */

    uint32_t tick_period_ns;
    uint32_t ticks;
    uint32_t ticks_missed; /* periods that passed while the kernel-call thread was busy */
    uint32_t lateness_last_ns;
    uint32_t lateness_max_ns;
    /* Class n counts ticks that were late by 2^n ns or more, but less than 2^(n+1). */
    uint32_t lateness[ZEL_STATISTICS_LATENESS_CLASSES];

    uint32_t calls_run;
    uint32_t calls_dropped;    /* the queue was full */
    uint32_t calls_last_pass;  /* pending when the last pass began */
    uint32_t calls_high_water; /* the largest such number */

    /* In the order of first service; vectors beyond the table are counted together. */
    zel_statistics_vector vectors[ZEL_STATISTICS_VECTORS];
    uint32_t interrupts_of_other_vectors;

    /* Devices beyond the table are not counted. */
    zel_statistics_device devices[ZEL_STATISTICS_DEVICES];
} zel_statistics;

#endif
