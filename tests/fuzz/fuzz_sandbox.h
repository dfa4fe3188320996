#ifndef QEL_TESTS_FUZZ_FUZZ_SANDBOX_H_
#define QEL_TESTS_FUZZ_FUZZ_SANDBOX_H_

// A fuzz target that lays inputs over the library's fixed paths does so in
// private mount and IPC namespaces of its own (as qel-devsim does), with a
// private tmpfs on /tmp for its files: nothing on the host changes.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "devsim/sandbox.h"

namespace qel_fuzz {

// Stops the target with `why` unless it is "" (a set-up step's result).
inline void Require(const std::string& why) {
  if (why.empty()) return;
  std::fprintf(stderr, "fuzz set-up: %s\n", why.c_str());
  std::exit(1);
}

inline void EnterSandbox() {
  Require(qel_devsim::EnterNamespaces({}));
  Require(qel_devsim::MountTmpfs("/tmp"));
}

inline void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace qel_fuzz

#endif  // QEL_TESTS_FUZZ_FUZZ_SANDBOX_H_
