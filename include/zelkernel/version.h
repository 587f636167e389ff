/* The version of these headers, and of the library that an application runs with. */
#ifndef ZELKERNEL_VERSION_H
#define ZELKERNEL_VERSION_H

#include <zelkernel/config.h>

#define ZEL_VERSION_MAJOR 1
#define ZEL_VERSION_MINOR 0
#define ZEL_VERSION_PATCH 0

/* One number, which rises with every version: 10203 for 1.2.3. */
#define ZEL_VERSION (ZEL_VERSION_MAJOR * 10000 + ZEL_VERSION_MINOR * 100 + ZEL_VERSION_PATCH)

ZEL_BEGIN_DECLS

/* ZEL_VERSION of the library that was loaded. An application built with the headers of a version
 * runs with that version and later ones of the same ZEL_VERSION_MAJOR. Any thread, any time. */
ZEL_EXPORT int zel_version(void);

ZEL_END_DECLS

#endif
