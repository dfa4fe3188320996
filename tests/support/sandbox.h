#ifndef QEL_TESTS_SUPPORT_SANDBOX_H_
#define QEL_TESTS_SUPPORT_SANDBOX_H_

// Runs a test body in a forked child inside private mount and IPC namespaces
// (through a user namespace when not root). There "/dev" is a private tmpfs
// with the usual nodes, so "/dev/log" can be a test's own listener, and
// "/run" (hence "/var/run"), "/mnt" (the scratch area) and "/home" are empty.

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

#define QEL_REQUIRE_SANDBOX()                                            \
  do {                                                                   \
    if (!::qel_test::SandboxUnavailable().empty())                       \
      GTEST_SKIP() << "needs private namespaces: "                       \
                   << ::qel_test::SandboxUnavailable();                  \
  } while (0)

// Fails the calling test when the body failed, threw, leaked a descriptor or
// died; a skip inside skips it.
void RunInSandbox(const std::function<void()>& body,
                  SandboxOptions options = {});

// Fixture helpers for use inside a sandbox: each fails the test on error and
// returns whether it worked.
std::string ScratchPath(const std::string& name);  // "/mnt/<name>"
bool WriteFile(const std::string& path, const std::string& content,
               unsigned mode = 0644);
std::string ReadFile(const std::string& path);  // "" when unreadable
bool MakeDirs(const std::string& path, unsigned mode = 0755);
bool MountTmpfs(const std::string& dir);
// Puts `content` over `target` (bind mount of a scratch file); a missing
// target is created, its host ancestors overlaid so the host is not touched.
bool MountFile(const std::string& target, const std::string& content,
               unsigned mode = 0644);
bool MountScript(const std::string& target, const std::string& script);

// Runs `command` with /bin/sh: its exit status (-1 if it could not run) and
// its standard output.
int Shell(const std::string& command, std::string* output = nullptr);

// Descriptors open in this process, as "number -> target" lines.
std::string OpenDescriptors();

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_SANDBOX_H_
