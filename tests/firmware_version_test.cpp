// The firmware version: the version script's output without its line end.

#include <stdexcept>
#include <string>
#include <utility>

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

TEST(FwVersionString, ScriptOutputWithoutTrailingWhiteSpace) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    const std::pair<const char*, const char*> cases[] = {
        {"echo 'rootfs=1.2.3'", "rootfs=1.2.3"},
        {"printf 'kernel 1.2\\nrootfs 3.4 \\n\\n \\t\\v\\f\\r\\n'",
         "kernel 1.2\nrootfs 3.4"},
        {"printf '  1.2 \\n'", "  1.2"},
        {"printf '1.2\\240'", "1.2\xa0"},  // not white space in the default locale
        {"printf '\\n  \\n\\n'", ""},
        {"exit 0", ""},
        {"echo 'partial 0.9'; exit 2", "partial 0.9"},  // status ignored
        {"echo cannot >&2; exit 1", ""},
    };
    for (const auto& c : cases) {
      ASSERT_TRUE(MountScript(kScript, std::string(c.first) + "\n"));
      EXPECT_EQ(fwVersionString(), c.second) << c.first;
    }
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
