#ifndef QEL_TESTS_SUPPORT_SANDBOX_H_
#define QEL_TESTS_SUPPORT_SANDBOX_H_

// Runs a test body in a forked child inside private namespaces, so that the
// library's fixed paths can be replaced by fixtures and System V objects,
// abstract socket names and network devices never meet the host's or another
// test's. As root the namespaces are made directly; otherwise through a user
// namespace where the kernel allows it.
//
// Inside every sandbox:
//   - "/dev" is a private tmpfs holding null, zero, full, random, urandom,
//     tty, ptmx, pts, shm and fd, so "/dev/log" can be a test's own listener;
//   - "/run" (hence "/var/run"), "/mnt" and "/home" are empty private tmpfs;
//     "/mnt" is the scratch area for fixture files (ScratchPath);
//   - the IPC namespace is new and empty.

#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace qel_test {

struct SandboxOptions {
  bool network = false;  // new network namespace, "lo" up
  bool pid = false;      // new PID namespace, body runs as pid 1, new /proc
};

// "" when sandboxes can be made here, else why not.
const std::string& SandboxUnavailable();

// Skips the current test, with the reason, where sandboxes cannot be made.
#define QEL_REQUIRE_SANDBOX()                                            \
  do {                                                                   \
    if (!::qel_test::SandboxUnavailable().empty())                       \
      GTEST_SKIP() << "needs private namespaces: "                       \
                   << ::qel_test::SandboxUnavailable();                  \
  } while (0)

// Runs `body` in the sandbox and fails the calling test when the body had a
// failure (its messages are printed by the child), threw, leaked a
// descriptor, or the child died. Exceptions from the body count as failures.
void RunInSandbox(const std::function<void()>& body,
                  SandboxOptions options = {});

// Fixture helpers, for use inside a sandbox. Each fails the test (ADD_FAILURE)
// on error and returns whether it worked.
std::string ScratchPath(const std::string& name);  // "/mnt/<name>"
bool WriteFile(const std::string& path, const std::string& content,
               unsigned mode = 0644);
std::string ReadFile(const std::string& path);  // "" when unreadable
bool MakeDirs(const std::string& path, unsigned mode = 0755);
bool MountTmpfs(const std::string& dir);
// Puts `content` over the existing file `target` (a bind mount of a scratch
// file), e.g. "/proc/cmdline" or a sysfs attribute. A missing target is
// created first, with its directories, when its file system allows.
bool MountFile(const std::string& target, const std::string& content,
               unsigned mode = 0644);
// Puts an executable shell script over `target` the same way.
bool MountScript(const std::string& target, const std::string& script);

// Runs `command` with /bin/sh; returns its exit status (-1 if it could not
// run) and its standard output in `output` when given.
int Shell(const std::string& command, std::string* output = nullptr);

// Descriptors open in this process, as "number -> target" lines.
std::string OpenDescriptors();

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_SANDBOX_H_
