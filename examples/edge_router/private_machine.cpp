#include "private_machine.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string because(const std::string& what) {
    return what + ": " + std::strerror(errno) + ".";
}

bool realtime_allowed() {
    sched_param before{};
    const int policy = sched_getscheduler(0);
    sched_getparam(0, &before);
    const sched_param lowest{.sched_priority = 1};
    if (sched_setscheduler(0, SCHED_FIFO, &lowest) != 0) {
        return false;
    }
    sched_setscheduler(0, policy, &before);
    return true;
}

// The machine's own table names and one more: only this program's ip commands see them. Where the
// names are depends on the release: Debian 13 has no /etc/iproute2 of its own.
bool know_table_external() {
    constexpr const char* own = "/run/iproute2";
    const bool in_etc = access("/etc/iproute2", F_OK) == 0;
    const char* const names = in_etc ? "/etc/iproute2" : "/usr/share/iproute2";
    std::error_code error;
    std::filesystem::copy(names, own, std::filesystem::copy_options::recursive, error);
    std::filesystem::create_directory("/run/iproute2/rt_tables.d", error);
    std::ofstream{"/run/iproute2/rt_tables.d/edge_router.conf"} << "100 external\n";
    return mount(own, names, nullptr, MS_BIND, nullptr) == 0;
}

} // namespace

std::optional<std::string> what_is_missing() {
    if (geteuid() != 0) {
        return "root is missing: namespaces, TUN devices and real-time priorities need it.";
    }
    if (!realtime_allowed()) {
        return because("the right to real-time priorities is missing");
    }
    const int driver = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (driver < 0) {
        return because("the TUN driver is missing, /dev/net/tun cannot be opened");
    }
    close(driver);
    for (const std::string tool : {"ip", "iptables", "ip6tables", "ping", "curl"}) {
        if (std::system(("command -v " + tool + " >/dev/null").c_str()) != 0) {
            return "the command " + tool + " is missing.";
        }
    }
    return std::nullopt;
}

std::optional<std::string> enter_private_machine() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        return because("no namespaces of its own");
    }
    // Private first: what is mounted from here on must not reach the machine's own tree.
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("edge_router", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0 ||
        mkdir("/run/netns", 0755) != 0) {
        return because("no /run of its own");
    }
    if (!know_table_external()) {
        return because("no routing table names of its own");
    }
    return std::nullopt;
}

int named_namespaces() {
    DIR* directory = opendir("/run/netns");
    if (directory == nullptr) {
        return 0;
    }
    int count = 0;
    while (const dirent* entry = readdir(directory)) {
        count += entry->d_name[0] != '.';
    }
    closedir(directory);
    return count;
}
