// The firmware version: the version script's output without its line end.

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/descriptor_limit.h"
#include "support/sandbox.h"

namespace {

using ::testing::ThrowsMessage;
using qel_test::MountScript;
using qel_test::RunInSandbox;
using qel_util::system::fwVersionString;

const char kScript[] = "/usr/bin/ubi_get_volume_versions.sh";

TEST(FwVersionString, DropsOnlyTheTrailingWhiteSpace) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(MountScript(kScript, "echo 'rootfs=1.2.3'\n"));
    EXPECT_EQ(fwVersionString(), "rootfs=1.2.3");
    ASSERT_TRUE(MountScript(
        kScript, "printf 'kernel 1.2\\nrootfs 3.4 \\n\\n \\t\\v\\f\\r\\n'\n"));
    EXPECT_EQ(fwVersionString(), "kernel 1.2\nrootfs 3.4");
    ASSERT_TRUE(MountScript(kScript, "printf '  1.2 \\n'\n"));
    EXPECT_EQ(fwVersionString(), "  1.2");
    // Not white space in the default locale.
    ASSERT_TRUE(MountScript(kScript, "printf '1.2\\240'\n"));
    EXPECT_EQ(fwVersionString(), "1.2\xa0");
  });
}

TEST(FwVersionString, BlankOrNoOutputIsEmpty) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(MountScript(kScript, "printf '\\n  \\n\\n'\n"));
    EXPECT_EQ(fwVersionString(), "");
    ASSERT_TRUE(MountScript(kScript, "exit 0\n"));
    EXPECT_EQ(fwVersionString(), "");
  });
}

TEST(FwVersionString, FailingScriptGivesWhatItPrinted) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(MountScript(kScript, "echo 'partial 0.9'; exit 2\n"));
    EXPECT_EQ(fwVersionString(), "partial 0.9");
    ASSERT_TRUE(MountScript(kScript, "echo cannot >&2; exit 1\n"));
    EXPECT_EQ(fwVersionString(), "");
  });
}

TEST(FwVersionString, RunsTheScriptEveryTime) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(MountScript(
        kScript, "n=$(cat /mnt/count 2>/dev/null || echo 0)\n"
                 "echo $((n + 1)) > /mnt/count\necho v$n\n"));
    EXPECT_EQ(fwVersionString(), "v0");
    EXPECT_EQ(fwVersionString(), "v1");
  });
}

TEST(FwVersionString, ThrowsWhenTheScriptCannotStart) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(MountScript(kScript, "echo 1.0\n"));
    auto thrown = qel_test::ThrownWithDescriptorLimit(0, [] { fwVersionString(); });
    ASSERT_TRUE(thrown);
    EXPECT_THAT([&] { std::rethrow_exception(thrown); },
                ThrowsMessage<std::runtime_error>("popen() failed!"));
  });
}

}  // namespace
