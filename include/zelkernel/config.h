/* What every public header needs: linkage, symbol visibility, and a check of the time ABI.
 *
 * The headers *.h compile as C99, as C++98 and as everything later. In strict C (-std=c99, not
 * gnu99) those with clocks and signals need POSIX's types: -D_POSIX_C_SOURCE=200112L or more. The
 * headers with classes, *.hpp, need C++11. */
#ifndef ZELKERNEL_CONFIG_H
#define ZELKERNEL_CONFIG_H

#include <features.h>
#include <stdint.h>

/* With 64-bit time on a 32-bit target the C library renames its calls (clock_gettime becomes
 * __clock_gettime64, ...): they would pass by the wrapping, and struct timespec would not have the
 * 8-byte layout the library was built with. */
#if UINTPTR_MAX == 0xffffffffu &&                                                                  \
    (defined(__USE_TIME_BITS64) || (defined(_TIME_BITS) && _TIME_BITS == 64))
#error "libzelkernel uses 32-bit time on 32-bit targets: -D_TIME_BITS=64 would bypass the wrapping"
#endif

#ifdef __cplusplus
#define ZEL_BEGIN_DECLS extern "C" {
#define ZEL_END_DECLS }
#else
#define ZEL_BEGIN_DECLS
#define ZEL_END_DECLS
#endif

#define ZEL_NORETURN __attribute__((noreturn))

/* Part of the exported interface; everything else in the library is hidden. */
#define ZEL_EXPORT __attribute__((visibility("default")))

/* The application's own IP stack and its drivers pass pointers through words of a kernel call: 32
 * bits on the target, 64 bits on a 64-bit host. */
typedef uintptr_t zel_word_t;

#endif
