// The firmware version: the version script's output without its line end.

#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/sandbox.h"

TEST(FwVersionString, ScriptOutputWithoutTrailingWhiteSpace) {
  QEL_REQUIRE_SANDBOX();
  qel_test::RunInSandbox([] {
    const std::pair<const char*, const char*> cases[] = {
        {"printf 'kernel 1.2\\nrootfs 3.4 \\n\\n \\t\\v\\f\\r\\n'",
         "kernel 1.2\nrootfs 3.4"},
        {"printf '  1.2\\240'", "  1.2\xa0"},
        {"printf '\\n  \\n'", ""},
        {"echo 'partial 0.9'; exit 2", "partial 0.9"},
        {"echo cannot >&2; exit 1", ""},
    };
    for (const auto& c : cases) {
      ASSERT_EQ(qel_test::MountScript("/usr/bin/ubi_get_volume_versions.sh",
                                        std::string(c.first) + "\n"), "");
      EXPECT_EQ(qel_util::system::fwVersionString(), c.second) << c.first;
    }
  });
}
