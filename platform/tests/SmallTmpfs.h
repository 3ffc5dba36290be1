// Test helper: runs a body in a child process that sees a small tmpfs of its own (a mount
// namespace with a file system of a few hundred kilobytes, as in a small container), for tests
// of what a writer does when shared memory runs out of room.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "platform/tests/ForkedChild.h"

namespace TestSupport {

namespace detail {

inline bool writeFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  const bool ok = fd >= 0 && ::write(fd, text.data(), text.size()) == ssize_t(text.size());
  if (fd >= 0) ::close(fd);
  return ok;
}

// Mounts a tmpfs of `size` on `dir`, seen by this process only.
inline bool mountSmallTmpfs(const std::string& dir, const std::string& size) {
  if (::unshare(CLONE_NEWNS) != 0) {
    // Without the privilege: a user namespace of our own, in which we are root.
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !writeFile("/proc/self/setgroups", "deny") ||
        !writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
      return false;
    }
  }
  return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", dir.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
}

}  // namespace detail

// What inSmallTmpfs returns when the system allows no mount namespace for the tmpfs.
inline const std::string kNoSmallTmpfs = "skip";

// Runs `body(root)` in a child on a tmpfs of `size` mounted at `root`: "ok" when the body
// returned "", else what it returned, or why it did not return (an exception, a signal);
// kNoSmallTmpfs when no such tmpfs can be had here.
template <class Body>
std::string inSmallTmpfs(const std::string& size, Body body) {
  constexpr int kNoNamespace = 77;
  char dir[] = "/tmp/ledger-no-space-XXXXXX";
  if (!::mkdtemp(dir)) return "cannot make a folder";
  ForkedChild child([&](int fd) {
    if (!detail::mountSmallTmpfs(dir, size)) return kNoNamespace;
    std::string result;
    try {
      result = body(std::string(dir));
    } catch (const std::exception& e) {
      result = std::string("threw: ") + e.what();
    }
    result = result.empty() ? "ok" : result;
    return ::write(fd, result.data(), result.size()) == ssize_t(result.size()) ? 0 : 1;
  });
  const std::string said = child.read(4096, 120000);
  const int status = child.wait();
  ::rmdir(dir);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoNamespace) return kNoSmallTmpfs;
  if (WIFSIGNALED(status)) {
    return said + " (killed by signal " + std::to_string(WTERMSIG(status)) + ")";
  }
  return said;
}

}  // namespace TestSupport
