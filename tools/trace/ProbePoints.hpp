// The probe points in an ELF file (notes of SystemTap's sys/sdt.h), as definitions of uprobes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace trace {

struct ProbePoint {
    std::string name;
    std::uint64_t offset;    // in the file
    std::uint64_t semaphore; // in the file, where tracers are counted; 0: nowhere
    std::string arguments;   // as the compiler wrote them: "8@%rdi -4@24(%rbx)"
    // Not so in Thumb code: there the kernel would put an ARM instruction over others.
    bool can_be_stopped_by;
};

// What the recorder needs of a library; without probe points when the file has none or is no ELF
// file of this machine's byte order.
struct ProbedFile {
    std::vector<ProbePoint> points;
    std::uint64_t priorities = 0; // address of kernel_priorities in the file; 0: not there
};

ProbedFile read_probed_file(const std::string& path);

// What follows the place in the definition: "(0x3088)", or nothing.
std::string reference_counter(const ProbePoint& point);

// The definition's arguments in the form of tracefs's uprobe_events: "function=%bx:u64 ...". An
// operand of a form that uprobes cannot fetch is left out.
std::string fetch_arguments(const ProbePoint& point);

} // namespace trace
