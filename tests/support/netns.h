#pragma once

#include <string>

namespace vekt::test {

// Whether this process may create a private network namespace (root, or user namespaces).
// When it may not, reason says why, for GTEST_SKIP.
bool canCreateNetNamespace(std::string* reason);

// In a freshly forked child: enter a new network namespace and bring its loopback up.
// Returns false (errno set) when that fails.
bool enterPrivateNetNamespace();

}  // namespace vekt::test

// Skips the current test unless a private network namespace can be made.
#define VEKT_REQUIRE_NETNS()                                                   \
    do {                                                                       \
        std::string vekt_netns_reason;                                         \
        if (!::vekt::test::canCreateNetNamespace(&vekt_netns_reason))          \
            GTEST_SKIP() << "needs a private network namespace: " << vekt_netns_reason; \
    } while (0)
