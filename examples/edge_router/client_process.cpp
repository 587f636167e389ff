#include "client_process.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Guards `running` and the reaping, so that no signal goes to a process id that has been reused.
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pid_t running[2] = {0, 0};
std::atomic<bool> stopped{false};

class Guard {
public:
    Guard() { pthread_mutex_lock(&mutex); }
    ~Guard() { pthread_mutex_unlock(&mutex); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
};

// The caller is a real-time thread that blocks signals; a client is to inherit neither.
class SpawnAttributes {
public:
    SpawnAttributes() {
        const sched_param ordinary{.sched_priority = 0};
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setschedpolicy(&attributes, SCHED_OTHER);
        posix_spawnattr_setschedparam(&attributes, &ordinary);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSCHEDULER | POSIX_SPAWN_SETSIGMASK |
                                                  POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    posix_spawnattr_t attributes;
};

pid_t spawn(std::vector<std::string> words, int output) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    const SpawnAttributes attributes;
    pid_t id = 0;
    const int result = posix_spawnp(&id, arguments[0], &actions, &attributes.attributes,
                                    arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return result == 0 ? id : -1;
}

void read_all(int descriptor, const std::function<void(std::span<const unsigned char>)>& output) {
    unsigned char portion[8192];
    for (;;) {
        const ssize_t length = read(descriptor, portion, sizeof portion);
        if (length > 0) {
            output({portion, static_cast<std::size_t>(length)});
        } else if (length == 0 || errno != EINTR) {
            return;
        }
    }
}

// The end of its output is not yet the end of the process, and a process that is to be ended must
// still be there: it is looked for without waiting while the mutex is held.
int reap(int slot) {
    for (;;) {
        {
            const Guard guard;
            int status = 0;
            if (waitpid(running[slot], &status, WNOHANG) != 0) {
                running[slot] = 0;
                return WIFEXITED(status) && !stopped ? WEXITSTATUS(status) : -1;
            }
        }
        usleep(1000);
    }
}

} // namespace

int run_in_instance(const char* instance, int slot, const std::vector<std::string>& command,
                    const std::function<void(std::span<const unsigned char>)>& output) {
    std::vector<std::string> words{"ip", "netns", "exec", instance};
    words.insert(words.end(), command.begin(), command.end());
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    pid_t id = -1;
    {
        const Guard guard;
        if (!stopped) {
            id = spawn(std::move(words), ends[1]);
        }
        running[slot] = id > 0 ? id : 0;
    }
    close(ends[1]);
    int status = -1;
    if (id > 0) {
        read_all(ends[0], output);
        status = reap(slot);
    }
    close(ends[0]);
    return status;
}

void stop_clients() {
    const Guard guard;
    stopped = true;
    for (const pid_t id : running) {
        if (id > 0) {
            kill(id, SIGTERM);
        }
    }
}

bool clients_stopped() {
    return stopped;
}
