// The kernel command line reader and exec.

#include <gmock/gmock.h>

#include <random>
#include <stdexcept>

#include "qel_util/system.h"
#include "support/descriptor_limit.h"
#include "support/sandbox.h"
#include "system/kernel_cmdline.h"

namespace {

using namespace qel_util::system;
using namespace qel_test;
using Cases = std::pair<std::string, std::string>[];

// `size` bytes of every value but zero, a newline now and then.
std::string Text(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text(size, '\0');
  for (auto& c : text)
    c = static_cast<char>(random() % 61 ? random() % 255 + 1 : '\n');
  return text;
}

TEST(KernelCmdline, KeepsTheFirst383BytesUpToAZeroByte) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    const std::string random = Text(1000, 1), exact(382, 'x'), y383(383, 'y');
    for (const auto& c : Cases{{random, random.substr(0, 383)},
                               {exact + "\n", exact + "\n"},
                               {y383 + "\n", y383},
                               {std::string("a=1\0b=2\n", 8), "a=1"}}) {
      ASSERT_EQ(MountFile("/proc/cmdline", c.first), "");
      EXPECT_EQ(ReadKernelCmdline(), c.second);
    }
  });
}

TEST(Exec, CapturesOutputsExactly) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // Megabytes; reads of up to 127 bytes, a zero byte cuts its chunk only.
    const std::string big = Text(3 << 20, 2) + std::string(70000, 'L') + "\n";
    const std::string zeros =
        std::string("ab\0cd\n", 6) + std::string(10, 'A') + '\0' +
        std::string(116, 'B') + std::string(73, 'C') +
        std::string("\n\0", 2) + std::string(20, 'D') + "\nend";
    ASSERT_EQ(WriteFile("/mnt/big", big) + WriteFile("/mnt/zeros", zeros), "");
    const std::string line(300, 'z');
    for (const auto& c : Cases{
             {"cat /mnt/big", big},
             {"cat /mnt/zeros",
              "ab" + std::string(10, 'A') + std::string(73, 'C') + "\nend"},
             {"true", ""}, {"printf '%s\\n' " + line, line + "\n"},
             {"echo partial; exit 3", "partial\n"}, {"kill -9 $$", ""},
             {"/nonexistent/tool 2>/dev/null", ""}}) {
      EXPECT_TRUE(exec(c.first) == c.second) << c.first;
      std::string output = "stale";
      exec(c.first.c_str(), output);
      EXPECT_TRUE(output == c.second) << c.first;
    }
    std::string output = "stale";
    auto thrown = ThrownWithDescriptorLimit(1, [&] { exec("echo x", output); });
    ASSERT_TRUE(thrown);
    EXPECT_THAT([&] { std::rethrow_exception(thrown); },
                testing::ThrowsMessage<std::runtime_error>("popen() failed!"));
    EXPECT_EQ(output, "");
  });
}

}  // namespace
