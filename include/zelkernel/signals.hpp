// The signals that the kernel reserves, by role. The application must not use them for itself.
//
// The table is built at library load and never changes: any thread may call these at any time; they
// take no lock. A list function stores the number of signals through `count` and returns a pointer
// to that many signal numbers, which the caller neither writes nor frees; with a null `count` it
// returns null.
#pragma once

#include <zelkernel/config.h>

// All 15: SIGSEGV SIGILL SIGABRT SIGBUS SIGFPE SIGIOT SIGQUIT SIGSYS SIGTERM SIGHUP SIGUSR2 SIGALRM
// SIGRTMIN SIGRTMIN+1 SIGCHLD. SIGABRT and SIGIOT are one number, which stands twice.
ZEL_EXPORT const int* getAllSignalsInUse(unsigned int* count);

// The first 8: a thread that gets one trips an exception report.
ZEL_EXPORT const int* getAllSignalsThatTripExceptionReportGeneration(unsigned int* count);

// SIGTERM and SIGHUP: blocked in the kernel-call thread, left to the application.
ZEL_EXPORT const int* getAllSignalsThatShutdownZel(unsigned int* count);

// SIGUSR2: suspends threads while an exception report is made.
ZEL_EXPORT int getThreadSuspendSignalForExceptionReportGeneration();

// SIGALRM: an external process had an exception.
ZEL_EXPORT int getExternalProcessExceptionSignal();
