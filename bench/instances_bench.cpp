// zel_vrf_create beside a shell script of the same commands, turn by turn.
#include "Measure.hpp"

#include <zelkernel/routing.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* path = "zel_vrf_create";
constexpr const char* script_path = "/run/create";
constexpr const char* script = R"(ip netns add "bench" 2>&1
ip netns exec "bench" ip rule add fwmark 100 pref 100 table external 2>&1
ip netns exec "bench" ip rule del pref 0 2>&1
ip netns exec "bench" ip rule add pref 110 table local 2>&1
ip netns exec "bench" ip -6 rule add fwmark 100 pref 100 table external 2>&1
ip netns exec "bench" ip -6 rule del pref 0 2>&1
ip netns exec "bench" ip -6 rule add pref 110 table local 2>&1
)";

void write_script() {
    std::FILE* const file = std::fopen(script_path, "w");
    bench::require(file != nullptr && std::fputs(script, file) >= 0 && std::fclose(file) == 0,
                   script_path);
}

void create_by_script() {
    char shell[] = "/bin/sh";
    char* const arguments[] = {shell, const_cast<char*>(script_path), nullptr};
    pid_t child = 0;
    int status = 0;
    bench::require(posix_spawn(&child, shell, nullptr, nullptr, arguments, environ) == 0 &&
                       waitpid(child, &status, 0) == child && status == 0,
                   "the script");
}

void create_by_library() {
    char output[1024];
    zel_vrf_create(output, sizeof output, "bench");
    bench::require(output[0] == '\0', output);
}

template<auto create>
void measure(const char* side) {
    const std::int64_t begin = bench::now_ns();
    create();
    bench::report(path, side, static_cast<double>(bench::now_ns() - begin));
    zel_vrf_destroy(nullptr, 0, "bench");
}

} // namespace

int main() {
    bench::start_kernel(1'000'000);
    write_script();
    for (int turn = 0; turn < bench::turns(25); ++turn) {
        measure<create_by_library>("ours");
        measure<create_by_script>("reference");
    }
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
