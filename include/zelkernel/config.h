/* What every public header needs: linkage, symbol visibility, and the width of time.
 *
 * The headers *.h compile as C99, as C++98 and as everything later. In strict C (-std=c99, not
 * gnu99) those with clocks and signals need POSIX's types: -D_POSIX_C_SOURCE=200112L or more. The
 * headers with classes, *.hpp, need C++11. */
#ifndef ZELKERNEL_CONFIG_H
#define ZELKERNEL_CONFIG_H

#include <features.h>
#include <stdint.h>

/* On a 32-bit target an application is compiled with 32-bit time or, by -D_TIME_BITS=64, with
 * 64-bit time, and a program may hold objects of both kinds. What takes, gives or is a time has a
 * second symbol for the latter, as in the C library: the same name in the source, the same
 * behaviour. The two kinds share all state but the clock-change callback (kernel.h). */
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
#define ZEL_TIME64_NAME(symbol) __asm__(symbol)
#else
#define ZEL_TIME64_NAME(symbol)
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
