#include "Threads.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sstream>

namespace fs = std::filesystem;

namespace top {
namespace {

std::string first_line(const fs::path& path) {
    std::string line;
    std::getline(std::ifstream{path}, line);
    return line;
}

std::string status_value(const fs::path& task, const std::string& key) {
    std::ifstream status{task / "status"};
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":"))
            return line.substr(line.find_first_not_of(" \t", key.size() + 1));
    }
    return "?";
}

// Field 39 of proc(5)'s stat; the fields after the name are counted from its closing parenthesis.
int last_processor(const fs::path& task) {
    const std::string stat = first_line(task / "stat");
    std::istringstream fields{stat.substr(std::min(stat.size(), stat.rfind(')') + 1))};
    std::string field;
    for (int number = 3; number <= 39; ++number)
        fields >> field;
    return fields ? std::stoi(field) : -1;
}

Thread read_thread(const fs::path& task) {
    Thread thread{};
    thread.id = std::stoi(task.filename().string());
    thread.name = first_line(task / "comm");
    thread.policy = sched_getscheduler(thread.id);
    sched_param param{};
    if (sched_getparam(thread.id, &param) == 0)
        thread.priority = param.sched_priority;
    thread.allowed = status_value(task, "Cpus_allowed_list");
    thread.processor = last_processor(task);
    return thread;
}

fs::path process_directory(pid_t pid) {
    return fs::path{"/proc"} / std::to_string(pid);
}

} // namespace

std::vector<Thread> threads_of(pid_t pid) {
    std::vector<Thread> threads;
    std::error_code error;
    const fs::path tasks = process_directory(pid) / "task";
    for (const fs::directory_entry& task : fs::directory_iterator{tasks, error})
        threads.push_back(read_thread(task.path()));
    return threads;
}

const char* policy_name(int policy) {
    switch (policy) {
    case SCHED_FIFO:
        return "FIFO";
    case SCHED_RR:
        return "RR";
    case SCHED_OTHER:
        return "OTHER";
    default:
        return "?";
    }
}

bool is_real_time(const Thread& thread) {
    return thread.policy == SCHED_FIFO || thread.policy == SCHED_RR;
}

bool is_running(pid_t pid) {
    // When the main thread alone has ended, the process is shown as a zombie, too.
    const std::string state = status_value(process_directory(pid), "State");
    const bool has_ended = state.find_first_of("ZX?") == 0;
    return !has_ended || threads_of(pid).size() > 1;
}

} // namespace top
