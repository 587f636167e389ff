/* The simulated interrupt controller: libzelkernel-simulated.so supplies the interrupt-pulse
 * interface (zelkernel/interrupt_pulse.h) on a host that has no such hardware, and lets the program
 * itself play the devices.
 *
 * The controller has one line for each attached vector.
 *  - A line is masked when it is attached. enableLinuxInterruptSource unmasks it.
 *  - A pulse of an unmasked line is delivered: waitForLinuxInterruptPulse returns its source, and
 *    the line is masked until it is enabled again, as a controller does while an interrupt is in
 *    service. (The library enables a source after each service.)
 *  - Pulses of a masked line are counted and held back, all of them, and delivered one by one, each
 *    after an enable. None is merged with another and none is lost.
 *  - Lines are served in the order in which they became deliverable.
 *  - Attaching an attached vector replaces the source; mask and held pulses stay as they are.
 *  - Detaching drops what the line holds, including a pulse that was about to be delivered.
 *
 * How the interface's functions behave here. Any thread may call them, no signal handler may, and
 * only waitForLinuxInterruptPulse blocks.
 *  - openLinuxInterruptPulseFd: a close-on-exec descriptor of the caller's own, readable while a
 *    pulse can be had; -1 with `errno` when there is none left. All of them draw the same pulses.
 *  - waitForLinuxInterruptPulse: the source; null when a signal interrupted the wait or the pulse
 *    was withdrawn by a disable or detach; null with `errno` when the descriptor is a bad one.
 *  - attachLinuxInterruptSource: a block to be released with free(); null with `errno` EINVAL for a
 *    negative vector or a null source, or ENOMEM.
 *  - detach, enable, disable: 0, or -1 with `errno` ENXIO when the vector is not attached. */
#ifndef ZELKERNEL_SIMULATED_PLATFORM_H
#define ZELKERNEL_SIMULATED_PLATFORM_H

#include <zelkernel/config.h>

ZEL_BEGIN_DECLS

/* Raises one interrupt of `vector`. Any thread, at any rate; does not block beyond a short
 * priority-inheritance lock and allocates nothing. Returns 0, or -1 with `errno` ENXIO when nobody
 * has attached the vector: the interrupt is lost then. */
ZEL_EXPORT int zel_simulated_raise(int vector);

ZEL_END_DECLS

#endif
