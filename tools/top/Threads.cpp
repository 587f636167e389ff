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

} // namespace

std::vector<Thread> threads_of(pid_t pid) {
    std::vector<Thread> threads;
    std::error_code error;
    const fs::path tasks = fs::path{"/proc"} / std::to_string(pid) / "task";
    for (const fs::directory_entry& task : fs::directory_iterator{tasks, error})
        threads.push_back(read_thread(task.path()));
    return threads;
}

} // namespace top
