// The application under the recorder's eyes, as /proc shows it. Its word size need not be ours.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>

namespace trace {

struct Library {
    std::string path; // as seen from here, also into the application's own mount namespace
    std::uint64_t base = 0;
};

// The first file mapped by the process that has probe points; an empty path when there is none.
Library find_library(pid_t process);

// Where the file is mapped; 0 when it is not, yet.
std::uint64_t base_of(pid_t process, const std::string& path);

// Where a shell would find the command's program; empty when there is none.
std::string find_program(const std::string& name);

// What the dynamic loader would take for the command's libzelkernel; empty when its program, say a
// script, does not name it.
Library library_of_command(char* const* command);

// Lines for the recording. Threads with names and priorities, added to those known already: some
// end while others come.
void describe_threads(pid_t process, std::map<pid_t, std::string>& lines);

// What is mapped where, and the words that make an application's priority from a Linux one (at
// `priorities` in the library); empty of a process that is ending.
std::string describe_memory(pid_t process, const Library& library, std::uint64_t priorities);

// The application's own files and where they are mapped, by their paths as seen from here: the
// system's libraries are left out, libzelkernel is not.
std::map<std::string, std::uint64_t> application_files(pid_t process);

// Where the address lies in the file that is mapped there.
std::uint64_t offset_in_file(pid_t process, std::uint64_t address);

bool has_ended(pid_t process);

} // namespace trace
