/* Priorities, thread attributes and names.
 *
 * The application numbers priorities its own way. With shift = app_base_priority -
 * linux_base_priority (kernel_priorities, kernel.h):
 *
 *     Linux priority = application priority - shift
 *
 * computed at each call in 32-bit two's complement, unchecked: the system refuses what is outside
 * SCHED_FIFO's range (EINVAL). Before start-up the shift is 0. Reading a priority back out of an
 * attribute object (pthread_attr_getschedparam) is not wrapped and gives the Linux priority.
 *
 * The functions keep no state, take no lock, do not block, and may be called from any thread. They
 * return the system's error numbers. Those that report a failure set errno to it and print one line
 * on standard error. */
#ifndef ZELKERNEL_SCHEDULING_H
#define ZELKERNEL_SCHEDULING_H

#include <zelkernel/config.h>

#include <pthread.h>
#include <sched.h>
#include <stddef.h>

ZEL_BEGIN_DECLS

/* pthread_attr_init, then a stack size of 16384 bytes. A failure is reported; when only the stack
 * size could not be set the object stays initialised. */
ZEL_EXPORT int __wrap_pthread_attr_init(pthread_attr_t* attr);

/* pthread_attr_getstack; an object without a stack of its own (also one from the placeholder below)
 * reads back as address null. A failure is reported. */
ZEL_EXPORT int __wrap_pthread_attr_getstack(const pthread_attr_t* attr, void** stackaddr,
                                            size_t* stacksize);

/* pthread_attr_setstack with at least 16384 bytes. A null address records the size only, under the
 * placeholder address 0 - size: such an object serves the wrapped pthread_create, never the
 * system's. A failure is reported. */
ZEL_EXPORT int __wrap_pthread_attr_setstack(pthread_attr_t* attr, void* stackaddr,
                                            size_t stacksize);

/* pthread_attr_setschedparam with an application priority. A failure is reported: EINVAL too when
 * the object's policy is not yet SCHED_FIFO, since glibc checks the priority against it. Set the
 * policy first. */
ZEL_EXPORT int __wrap_pthread_attr_setschedparam(pthread_attr_t* attr,
                                                 const struct sched_param* param);

/* pthread_setschedparam with an application priority; the policy is passed on. */
ZEL_EXPORT int __wrap_pthread_setschedparam(pthread_t thread, int policy,
                                            const struct sched_param* param);

/* pthread_getschedparam with an application priority; `param` may be null. */
ZEL_EXPORT int __wrap_pthread_getschedparam(pthread_t thread, int* policy,
                                            struct sched_param* param);

/* app_min_priority and app_max_priority, whatever the policy. */
ZEL_EXPORT int __wrap_sched_get_priority_min(int policy);
ZEL_EXPORT int __wrap_sched_get_priority_max(int policy);

/* pthread_setname_np; a name of more than 15 characters becomes its first 14 and "~", where the
 * system would refuse it (ERANGE). */
ZEL_EXPORT int __wrap_pthread_setname_np(pthread_t thread, const char* name);

ZEL_END_DECLS

#endif
