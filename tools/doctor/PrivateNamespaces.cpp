// Trials that must leave no trace on the machine.
#include "Check.hpp"

#include "Text.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::doctor {
namespace {

// The ip tool keeps named namespaces under /var/run, iptables its lock under /run: both get a file
// system of their own. Empty on success.
std::string enter_private_namespaces() {
    if (unshare(CLONE_NEWNET) != 0)
        return format("a new network namespace is refused: %s", std::strerror(errno));
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return format("a new mount namespace is refused: %s", std::strerror(errno));
    for (const char* directory : {"/run", "/var/run"}) {
        if (mount("tmpfs", directory, "tmpfs", 0, "mode=755") != 0 && errno != ENOENT)
            return format("%s cannot be covered: %s", directory, std::strerror(errno));
    }
    return {};
}

// One finding after the other, each: status, text, NUL.
[[noreturn]] void report_from_child(int fd, std::span<const Check> checks, const Request& request) {
    std::FILE* out = fdopen(fd, "w");
    const std::string refused = enter_private_namespaces();
    for (const Check& check : checks) {
        const bool first = &check == checks.data();
        const Finding finding =
            refused.empty() ? check.probe(request)
                            : Finding{first ? Status::missing : Status::unknown,
                                      first ? refused : "not tried without a network namespace"};
        std::fputc(static_cast<char>(finding.status), out);
        std::fwrite(finding.found.c_str(), 1, finding.found.size() + 1, out);
    }
    std::fflush(out);
    _exit(0);
}

Finding read_finding(std::FILE* in) {
    Finding finding{Status::unknown, ""};
    int c = std::fgetc(in);
    if (c == EOF)
        return {Status::unknown, "the trial ended early"};
    finding.status = static_cast<Status>(c);
    while ((c = std::fgetc(in)) != EOF && c != '\0')
        finding.found += static_cast<char>(c);
    return finding;
}

} // namespace

std::vector<Result> in_private_namespaces(std::span<const Check> checks, const Request& request) {
    std::vector<Result> results;
    int ends[2] = {-1, -1};
    const pid_t child = pipe(ends) == 0 ? fork() : -1;
    if (child == 0) {
        close(ends[0]);
        report_from_child(ends[1], checks, request);
    }
    close(ends[1]);
    std::FILE* in = child > 0 ? fdopen(ends[0], "r") : nullptr;
    for (const Check& check : checks) {
        Finding finding =
            in != nullptr ? read_finding(in) : Finding{Status::unknown, "no process for the trial"};
        results.push_back({check.what, std::move(finding), check.consequence, check.remedy});
    }
    if (in != nullptr)
        std::fclose(in);
    if (child > 0)
        waitpid(child, nullptr, 0);
    return results;
}

} // namespace zel::doctor
