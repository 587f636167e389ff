#pragma once

#include <string>
#include <string_view>

namespace zel::network {

// Carried by external traffic; the policy of each instance sends it to the table `external`.
inline constexpr const char* external_mark = "100";

// The command that adds ("-A") or deletes ("-D") an instance's marking rule for a criterion.
std::string marking_command(std::string_view instance, int family, const char* action,
                            const std::string& criterion);

} // namespace zel::network
