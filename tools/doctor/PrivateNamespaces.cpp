// Trials that must leave no trace on the machine.
#include "Check.hpp"

#include "Command.hpp"
#include "Text.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::doctor {
namespace {

Finding refused(const char* what) {
    const int error = errno;
    return {Status::missing, format("%s: %s", what, std::strerror(error)),
            is_refusal(error) ? rights_remedy() : ""};
}

// The ip tool keeps named namespaces under /var/run, iptables its lock under /run: both get a file
// system of their own.
Finding enter_private_namespaces() {
    if (unshare(CLONE_NEWNET) != 0)
        return refused("a new network namespace is refused");
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return refused("a new mount namespace is refused");
    unsetenv("XTABLES_LOCKFILE"); // looked at before; iptables would make it where it is not
    for (const char* directory : {"/run", "/var/run"}) {
        if (mount("tmpfs", directory, "tmpfs", 0, "mode=755") != 0 && errno != ENOENT)
            return refused(format("%s cannot be covered", directory).c_str());
    }
    return {Status::ok, ""};
}

void write_text(const std::string& text, std::FILE* out) {
    std::fwrite(text.c_str(), 1, text.size() + 1, out);
}

// One finding after the other, each: status, text, NUL, remedy, NUL.
[[noreturn]] void report_from_child(int fd, std::span<const Check> checks, const Request& request,
                                    std::vector<Result>& results) {
    std::FILE* out = fdopen(fd, "w");
    const Finding entered = enter_private_namespaces();
    for (const Check& check : checks) {
        Finding finding = entered;
        if (entered.status == Status::ok) {
            finding = examine(check, request, results);
        } else if (&check != checks.data()) {
            finding = not_tried_without(checks.front().what);
        }
        std::fputc(static_cast<char>(finding.status), out);
        write_text(finding.found, out);
        write_text(finding.remedy, out);
        std::fflush(out); // the next one may end this process
        results.push_back(result_of(check, std::move(finding)));
    }
    _exit(0);
}

std::string read_text(std::FILE* in) {
    std::string text;
    int c;
    while ((c = std::fgetc(in)) != EOF && c != '\0')
        text += static_cast<char>(c);
    return text;
}

// Nothing when the child has ended before it.
std::optional<Finding> read_finding(std::FILE* in) {
    const int status = std::fgetc(in);
    if (status == EOF)
        return {};
    std::string found = read_text(in);
    return Finding{static_cast<Status>(status), std::move(found), read_text(in)};
}

// A filter of system calls kills whoever makes one that is not in it.
Finding ended_early(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFSIGNALED(status))
        return {Status::unknown, "the trial ended early"};
    const int signal = WTERMSIG(status);
    return {Status::missing, format("the trial was ended: %s", strsignal(signal)),
            signal == SIGSYS ? remedy_when_confined : ""};
}

} // namespace

void run_in_private_namespaces(std::span<const Check> checks, const Request& request,
                               std::vector<Result>& results) {
    int ends[2] = {-1, -1};
    const pid_t child = pipe(ends) == 0 ? fork() : -1;
    if (child == 0) {
        close(ends[0]);
        report_from_child(ends[1], checks, request, results);
    }
    close(ends[1]);
    std::FILE* in = child > 0 ? fdopen(ends[0], "r") : nullptr;
    const char* ended_in = nullptr;
    for (const Check& check : checks) {
        std::optional<Finding> finding;
        if (in == nullptr) {
            finding = {Status::unknown, "no process for the trial"};
        } else if (ended_in != nullptr) {
            finding = not_tried_without(ended_in);
        } else if (finding = read_finding(in); !finding) {
            ended_in = check.what;
            finding = ended_early(child);
        }
        results.push_back(result_of(check, *std::move(finding)));
    }
    if (in != nullptr)
        std::fclose(in);
    if (child > 0 && ended_in == nullptr)
        waitpid(child, nullptr, 0);
}

} // namespace zel::doctor
