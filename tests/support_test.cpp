#include <unistd.h>

#include <gtest/gtest.h>

#include "support/sandbox.h"

namespace qel_test {
namespace {

TEST(Sandbox, FixturesReplaceFixedPathsWithoutTouchingTheHost) {
  QEL_REQUIRE_SANDBOX();
  const std::string hostCmdline = ReadFile("/proc/cmdline");
  RunInSandbox([] {
    ASSERT_TRUE(MountFile("/proc/cmdline", "barcode=ASN=X\n"));
    EXPECT_EQ(ReadFile("/proc/cmdline"), "barcode=ASN=X\n");
    EXPECT_TRUE(WriteFile("/var/run/x.pid", "1\n"));
  });
  EXPECT_EQ(ReadFile("/proc/cmdline"), hostCmdline);
  EXPECT_NE(access("/var/run/x.pid", F_OK), 0);
}

}  // namespace
}  // namespace qel_test
