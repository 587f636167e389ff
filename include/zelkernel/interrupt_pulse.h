/* The interrupt-pulse interface: what the platform supplies and the library imports.
 *
 * The library defines none of these six functions and imports them weakly: an application without
 * interrupts links and loads without a platform. Where one is needed and absent, the library stops
 * the process through zel_fatal with its name; disabling and detaching without a platform do
 * nothing, since there is nothing to hold back.
 *
 * On a development host `platform/simulated` supplies them. A weak import does not keep a library
 * on an `--as-needed` link line; its CMake target carries the option that does. */
#ifndef ZELKERNEL_INTERRUPT_PULSE_H
#define ZELKERNEL_INTERRUPT_PULSE_H

#include <zelkernel/config.h>

ZEL_BEGIN_DECLS

/* Opens the descriptor on which interrupt pulses arrive. Called once, in the interrupt thread; the
 * result goes to waitForLinuxInterruptPulse unexamined. */
int openLinuxInterruptPulseFd(void);

/* Blocks until the next pulse. Returns the `source` that was attached for the interrupt that fired,
 * or null (a pulse that belongs to nobody, an interrupted wait): the library then waits again. */
void* waitForLinuxInterruptPulse(int fd);

/* From now on each interrupt of `vector` makes waitForLinuxInterruptPulse return `source`. Returns
 * a block that the caller releases with free(), or null with `errno` set. */
void* attachLinuxInterruptSource(int vector, int code, void* source);

/* Ends the registration of `vector`. The library ignores the result. */
int detachLinuxInterruptSource(int vector);

/* Let the interrupts of `vector` through, or hold them back. The library ignores the results. */
int enableLinuxInterruptSource(int vector);
int disableLinuxInterruptSource(int vector);

ZEL_END_DECLS

#endif
