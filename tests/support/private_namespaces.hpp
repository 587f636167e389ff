#pragma once

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace zel::test {

// Moves the calling process (still single-threaded) into mount and network namespaces of its own,
// with an empty directory of named namespaces and the table name `external` known to the ip tool:
// whatever a case does to namespaces, devices and rules stays in there and vanishes with it. False,
// with errno, when a right is missing.
bool enter_private_namespaces();

// A socket that lives in the named namespace; -1 with errno on failure.
int socket_in_namespace(const std::string& name, int family, int type);

// What a command prints, errors included.
std::string shell(const std::string& command);

} // namespace zel::test

#define ENTER_PRIVATE_NAMESPACES_OR_SKIP()                                                         \
    if (!zel::test::enter_private_namespaces())                                                    \
    GTEST_SKIP() << "no private namespaces: " << std::strerror(errno)
