#pragma once
// Runs a check in a child process, optionally without root's right to ignore
// permissions, so read-only folders behave for the check as they do for an operator.
#include <functional>

namespace quorvel::test {

// Both return the child's exit code (the value `check` returns), or -1 when it could not run.
int RunInChild(const std::function<int()>& check);
int RunUnprivileged(const std::function<int()>& check);

}  // namespace quorvel::test
