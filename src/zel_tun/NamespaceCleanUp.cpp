#include <zelkernel/routing.h>
#include <zelkernel/system.h>

#include <climits>
#include <cstdio>
#include <dirent.h>
#include <memory>

namespace {

constexpr const char* namespace_directory = "/var/run/netns";

void delete_namespace(const char* name) {
    char command[sizeof "ip netns del \"\"" + NAME_MAX];
    std::snprintf(command, sizeof command, "ip netns del \"%s\"", name);
    std::printf("Removing network namespace \"%s\"\r\n", name);
    char output[256];
    zel_run_command(command, output, sizeof output);
    if (*output != '\0')
        std::printf("%s\r\n", output);
}

} // namespace

void remove_all_network_namespaces() {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory{opendir(namespace_directory), closedir};
    if (directory == nullptr)
        return;
    while (const dirent* entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.')
            delete_namespace(entry->d_name);
    }
}
