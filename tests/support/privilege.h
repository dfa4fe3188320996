#ifndef QEL_TESTS_SUPPORT_PRIVILEGE_H_
#define QEL_TESTS_SUPPORT_PRIVILEGE_H_

// Lets a test running as root (or as root of its user namespace) take on the
// limits of an unprivileged service. Use it in a forked child or a sandbox:
// what is dropped is not got back.

namespace qel_test {

// Removes `capability` (CAP_*) from the effective and permitted sets of the
// calling thread. Fails the test (ADD_FAILURE) and returns false on error.
bool DropCapability(int capability);

}  // namespace qel_test

#endif  // QEL_TESTS_SUPPORT_PRIVILEGE_H_
