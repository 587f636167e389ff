// The recording as a file in the form of trace-cmd.dat(5), version 6, which trace-cmd and
// KernelShark read; what only this tool knows stands behind it, see write_trace_file().
#pragma once

#include <string>

namespace trace {

// Whether a file can be written there, with errno: asked before the recording, not after it.
bool can_be_written(const std::string& path);

// Writes what the stopped instance's buffers hold, followed by `facts` (lines of text), their
// length as 8 bytes, least first, the CRC-32 of all that as 4, and the 8 characters "zeltrace".
// False, with errno, when the file cannot be written; then it is removed.
bool write_trace_file(const std::string& path, const std::string& instance,
                      const std::string& group, const std::string& facts);

} // namespace trace
