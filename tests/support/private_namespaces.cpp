#include "private_namespaces.hpp"

#include <zelkernel/system.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace zel::test {
namespace {

// A copy of the ip tool's directory of names, with one more, covers it. Where that is depends on
// the release: Debian 13 has no /etc/iproute2 of its own.
bool know_table_external() {
    constexpr const char* own = "/run/iproute2";
    const bool in_etc = access("/etc/iproute2", F_OK) == 0;
    const char* const names = in_etc ? "/etc/iproute2" : "/usr/share/iproute2";
    std::error_code error;
    std::filesystem::copy(names, own, std::filesystem::copy_options::recursive, error);
    std::filesystem::create_directory("/run/iproute2/rt_tables.d", error);
    std::ofstream{"/run/iproute2/rt_tables.d/test.conf"} << "100 external\n";
    return mount(own, names, nullptr, MS_BIND, nullptr) == 0;
}

} // namespace

bool enter_private_namespaces() {
    return unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 && mkdir("/run/netns", 0755) == 0 &&
           know_table_external();
}

int socket_in_namespace(const std::string& name, int family, int type) {
    int result = -1;
    // A network namespace belongs to a thread.
    std::thread{[&] {
        const int fd = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd != -1 && setns(fd, CLONE_NEWNET) == 0)
            result = socket(family, type | SOCK_CLOEXEC, 0);
        close(fd);
    }}.join();
    return result;
}

std::string shell(const std::string& command) {
    std::string text(8192, '\0'); // not on the stack: it may be one of 16 KiB
    zel_run_command((command + " 2>&1").c_str(), text.data(), text.size());
    text.resize(std::strlen(text.c_str()));
    return text;
}

} // namespace zel::test
