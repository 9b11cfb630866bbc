#pragma once

// Runs a piece of a test as an ordinary user, for cases that a process running as root (as CI
// does) would never meet: a write-protected file, another user's file.

#include <functional>
#include <optional>
#include <string>

namespace foundation::storage::provider::testsupport {

// Runs `body` in a forked child that has given up root for the user nobody and the group
// nogroup (setgroups, setresgid, setresuid) and returns the text it returned, or
// "exception: " + what() when it threw. std::nullopt when this process cannot change its user
// (it is not root); the caller then skips. The child shares nothing back but that text: files
// it changed are the test's evidence.
std::optional<std::string> asNobody(const std::function<std::string()>& body);

}  // namespace foundation::storage::provider::testsupport
