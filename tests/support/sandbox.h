#ifndef QEL_TESTS_SUPPORT_SANDBOX_H_
#define QEL_TESTS_SUPPORT_SANDBOX_H_

// Runs a test body in a forked child inside the sandbox of qel-devsim
// (tools/devsim/sandbox.h): private mount and IPC namespaces (inside a user
// namespace when not root), a private "/dev" ("/dev/log" is free), and empty
// tmpfs on "/run", "/mnt" (scratch) and "/home". The helpers below fail the
// calling test on error.

#include <functional>
#include <string>
#include <gtest/gtest.h>

#include "devsim/sandbox.h"

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

using qel_devsim::ReadFile;
using qel_devsim::Shell;

std::string ScratchPath(const std::string& name);  // "/mnt/<name>"
bool WriteFile(const std::string& path, const std::string& content,
               unsigned mode = 0644);
bool MakeDirs(const std::string& path, unsigned mode = 0755);
bool MountTmpfs(const std::string& dir);
// Binds a scratch file over `target`; a missing one is created, under an
// overlay when on the host's file systems.
bool MountFile(const std::string& target, const std::string& content,
               unsigned mode = 0644);
bool MountScript(const std::string& target, const std::string& script);

// Descriptors open in this process, as "number -> target" lines.
std::string OpenDescriptors();

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_SANDBOX_H_
