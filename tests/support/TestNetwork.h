// Live-mode tests and benchmarks run in a network namespace of their own, so the machine's own
// connections are never touched: the loopback up, with 10.77.0.1/24, 10.77.1.1/24 and
// fd00:77::1/64 on it.
#pragma once

#include <string>

namespace qbrix::test {

// Moves this process (call it before any thread starts) into a new network namespace and sets
// it up. Empty on success; otherwise why it could not (not root, no namespaces). Aborts when the
// process would still share the namespace of process 1.
std::string EnterTestNetwork();

}  // namespace qbrix::test
