#ifndef QEL_TESTS_SUPPORT_SANDBOX_H_
#define QEL_TESTS_SUPPORT_SANDBOX_H_

// Runs a test body in a forked child inside the sandbox of qel-devsim
// (tools/devsim/sandbox.h): private mount and IPC namespaces (inside a user
// namespace when not root), a private "/dev" ("/dev/log" is free), and empty
// tmpfs on "/run", "/mnt" (scratch) and "/home".

#include <functional>
#include <string>

#include <sys/types.h>
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

// Fails the calling test when the body failed, leaked a descriptor or died
// (by an exception too); a skip inside skips it.
void RunInSandbox(const std::function<void()>& body,
                  SandboxOptions options = {});

// The tools' file helpers: each gives "" or what failed, for an
// ASSERT_EQ(..., "") to show. "/mnt" holds what MountFile lays over a path.
using qel_devsim::MakeDirs;
using qel_devsim::MountTmpfs;
using qel_devsim::ReadFile;
using qel_devsim::Shell;
using qel_devsim::WriteFile;
inline std::string MountFile(const std::string& target, const std::string& content,
                             unsigned mode = 0644) {
  return qel_devsim::PlaceFile("/mnt", target, content, mode);
}
inline std::string MountScript(const std::string& target, const std::string& script) {
  return qel_devsim::PlaceScript("/mnt", target, script);
}

// Descriptors open in this process, as "number -> target" lines.
std::string OpenDescriptors();

// Exit status of child `pid` (of any child for -1); 128 + signal when killed.
// A process still there after a minute is hung: it is killed (137).
int Reap(pid_t pid = -1);

// Whether `done()` came true within half a minute (what takes a moment, a
// thread leaving /proc or a daemon writing its file, takes seconds under an
// emulator on a busy machine); true as soon as it does.
bool Eventually(const std::function<bool()>& done);

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_SANDBOX_H_
