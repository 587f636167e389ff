// The places where ip and iptables keep their files. The trials of the network cover them, so the
// machine's own are looked at before, without leaving anything there.
#include "Check.hpp"

#include "Command.hpp"
#include "Text.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace zel::doctor {
namespace {

// 0 when a file could be made in the directory. The one that is made here never has a name.
int write_error(const char* directory) {
    const int fd = open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0) {
        close(fd);
        return 0;
    }
    if (errno != EOPNOTSUPP && errno != EISDIR) // the file system or the kernel has no such files
        return errno;
    return faccessat(AT_FDCWD, directory, W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

Finding refused(const std::string& what, int error) {
    return {Status::missing, what + ": " + std::strerror(error),
            error == EROFS ? "mount a tmpfs there (in a container: --tmpfs /run)" : ""};
}

Finding namespace_directory(const Request&) {
    const int error = write_error("/run/netns");
    if (error == 0)
        return {Status::ok, "can be written"};
    if (error != ENOENT)
        return refused("/run/netns cannot be written", error);
    const int above = write_error("/run");
    return above == 0 ? Finding{Status::ok, "can be made"}
                      : refused("/run/netns is not there and cannot be made", above);
}

Finding iptables_lock(const Request&) {
    if (!is_legacy_iptables("iptables") && !is_legacy_iptables("ip6tables"))
        return {Status::ok, "not used by nf_tables"};
    const char* const chosen = std::getenv("XTABLES_LOCKFILE");
    const std::filesystem::path lock = chosen != nullptr ? chosen : "/run/xtables.lock";
    const int fd = open(lock.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
        return {Status::ok, "can be opened"};
    }
    if (errno != ENOENT)
        return refused(lock.string() + " cannot be opened", errno);
    const int above = write_error(lock.parent_path().c_str());
    return above == 0 ? Finding{Status::ok, "can be made"}
                      : refused(lock.string() + " is not there and cannot be made", above);
}

constexpr Check checks[] = {
    {"namespace directory", namespace_directory, "no routing instance can be made",
     "give the user a /run/netns of its own (mkdir -p /run/netns && chown USER /run/netns; in a "
     "systemd unit: RuntimeDirectory=netns), or the ambient capability dac_override"},
    {"iptables lock",
     iptables_lock,
     "external traffic is not marked and leaves by the ordinary routes",
     "use the nf_tables kind of iptables, which needs none; or name a file of the user's own in "
     "XTABLES_LOCKFILE, or add the ambient capability dac_override",
     {"iptables"}},
};

} // namespace

std::span<const Check> run_directory_checks() {
    return checks;
}

} // namespace zel::doctor
