#include <zelkernel/signals.hpp>

#include <csignal>
#include <iterator>

namespace {

// The roles are ranges of this table. Built at load, since the C library decides there which
// real-time signals it keeps for itself.
const int signal_table[] = {
    SIGSEGV, SIGILL,  SIGABRT,  SIGBUS,       SIGFPE,  SIGIOT, SIGQUIT, SIGSYS, // exception report
    SIGTERM, SIGHUP,                                                            // shut-down
    SIGUSR2, SIGALRM, SIGRTMIN, SIGRTMIN + 1, SIGCHLD,
};
constexpr unsigned char exception_report_begin = 0;
constexpr unsigned char exception_report_end = 8;
constexpr unsigned char shutdown_begin = 8;
constexpr unsigned char shutdown_end = 10;

const int* range(unsigned int begin, unsigned int end, unsigned int* count) {
    if (count == nullptr)
        return nullptr;
    *count = end - begin;
    return signal_table + begin;
}

} // namespace

const int* getAllSignalsInUse(unsigned int* count) {
    return range(0, std::size(signal_table), count);
}

const int* getAllSignalsThatTripExceptionReportGeneration(unsigned int* count) {
    return range(exception_report_begin, exception_report_end, count);
}

const int* getAllSignalsThatShutdownZel(unsigned int* count) {
    return range(shutdown_begin, shutdown_end, count);
}

int getThreadSuspendSignalForExceptionReportGeneration() {
    return SIGUSR2;
}

int getExternalProcessExceptionSignal() {
    return SIGALRM;
}
