// The kernel's tracing file system: an instance of our own with our probes, and its removal.
//
// Everything of ours carries the recorder's process id in its name, so that what a dead recorder
// left behind is known for what it is.
#pragma once

#include "ProbePoints.hpp"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace trace {

inline const std::string tracefs = "/sys/kernel/tracing";

// What forbids it here, as a message; empty when nothing does.
std::string why_no_tracing();

// Mounts tracefs in a mount namespace of this process alone, where it is not mounted already.
// Gives what is missing as a message, empty when all is well.
std::string enter_tracefs();

bool write_file(const std::string& path, const std::string& text, bool append = false);
std::string read_file(const std::string& path);

// The number behind `name` in a text of such a file, 0 when there is none.
unsigned long statistic(const std::string& text, const char* name);

// What a recorder with process id `owner` made goes; harmless when there is nothing.
void remove_traces_of(pid_t owner);
void remove_traces_of_dead_recorders();

// In the words of zelkernel-doctor.
struct Lack {
    std::string what, found, consequence, remedy;
};

class Instance {
public:
    // Makes the instance, switched off. `owner` is the process that names it.
    Instance(pid_t owner, unsigned buffer_kib_per_processor);

    const std::string& problem() const { return problem_; }
    const std::vector<Lack>& lacking() const { return lacking_; }

    // Enables the kernel's events and a probe for each point of the library at `path`.
    void enable_kernel_events();
    void add_probes(const std::string& path, const ProbedFile& file);
    void start();
    void stop();
    void clear(); // forgets what was recorded

    // Single events: `name` of a probe is without its group, of an event to switch with it.
    bool define_probe(const std::string& name, const std::string& path, std::uint64_t offset,
                      const std::string& arguments);
    void remove_probe(const std::string& name); // switched off
    bool switch_event(const std::string& name, bool on);

    const std::string& directory() const { return directory_; }
    const std::string& group() const { return group_; }

private:
    std::string group_;
    std::string directory_;
    std::string problem_;
    std::vector<Lack> lacking_;
};

} // namespace trace
