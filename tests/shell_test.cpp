// The kernel command line reader, the text helpers and exec.

#include <sys/mount.h>

#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qel_util/system.h"
#include "support/descriptor_limit.h"
#include "support/sandbox.h"
#include "system/kernel_cmdline.h"

namespace {

using ::testing::ThrowsMessage;
using qel_test::MountFile;
using qel_test::RunInSandbox;
using qel_test::ScratchPath;
using qel_test::WriteFile;
using qel_util::system::exec;
using qel_util::system::GetKeyValue;
using qel_util::system::ReadKernelCmdline;
using qel_util::system::TrimSpace;

// Printable text with a newline now and then, `size` bytes, never a zero.
std::string Text(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> byte(1, 255);
  std::string text(size, '\0');
  for (auto& c : text) {
    int b = byte(random);
    c = static_cast<char>(b % 61 == 0 ? '\n' : b);
  }
  return text;
}

TEST(KernelCmdline, KeepsTheFirst383BytesUpToAZeroByte) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    const std::string random = Text(1000, 1), exact(382, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"console=ttyS0 barcode=X\n", "console=ttyS0 barcode=X\n"},
        {random, random.substr(0, 383)},
        {exact + "\n", exact + "\n"},
        {std::string(383, 'y') + "\n", std::string(383, 'y')},
        {std::string("a=1\0b=2\n", 8), "a=1"},
    };
    for (const auto& c : cases) {
      ASSERT_TRUE(MountFile("/proc/cmdline", c.first));
      EXPECT_EQ(ReadKernelCmdline(), c.second);
    }
  });
}

TEST(KernelCmdline, MissingFileGivesEmptyText) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // A bare tmpfs over /proc has no cmdline; /proc goes again before the
    // sandbox counts descriptors through it.
    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    const std::string line = ReadKernelCmdline();
    ASSERT_EQ(umount2("/proc", MNT_DETACH), 0);
    EXPECT_EQ(line, "");
  });
}

TEST(TrimSpace, RemovesExactlyTheSixSpaceCharactersAtBothEnds) {
  const std::string zeros("\0ab\0", 4);
  const std::pair<std::string, std::string> cases[] = {
      {"", ""}, {" \t\f\v\n\r", ""}, {"\r\n\n  ", ""},
      {"\tA123 456\r\n", "A123 456"}, {"x", "x"}, {" x ", "x"},
      // Zero bytes, other control characters and bytes from 128 are text.
      {" " + zeros + " ", zeros}, {"\x1c" "a" "\x1f", "\x1c" "a" "\x1f"},
      {"\xa0" "a" "\x85", "\xa0" "a" "\x85"},
  };
  for (const auto& c : cases) EXPECT_EQ(TrimSpace(c.first), c.second);
  for (char space : std::string(" \t\f\v\n\r")) {
    const std::string s(1, space);
    EXPECT_EQ(TrimSpace(s + "x" + s + "y" + s), "x" + s + "y") << int(space);
  }
}

TEST(GetKeyValue, FirstOccurrenceOfTheKeyToTheFirstEndCharacter) {
  struct Case {
    const char *text, *key, *ends, *value;
  };
  const Case cases[] = {
      {"a=1;b=2", "b=", ";", "2"},
      {"a=1;b=2;c=3", "b=", ";", "2"},
      {"a=1 b=2,c=3", "b=", ", ", "2"},
      {"b= 2 ;", "b=", ";", " 2 "},  // not trimmed
      {"xb=3;b=2", "b=", ";", "3"},  // even inside another key
      {"b=1;b=2", "b=", ";", "1"},
      {"a=1", "b=", ";", ""},
      {"a=1;b=", "b=", ";", ""},
      {"b=;c=3", "b=", ";", ""},
      {"", "b=", ";", ""},
      {"a=1;b=2", "", ";", "a=1"},
      {"a=1;b=2", "a=", "", "1;b=2"},
      {"a=1;b=2", "", "", "a=1;b=2"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(GetKeyValue(c.text, c.key, c.ends), c.value) << c.text;
}

TEST(Exec, CapturesShortAndFailingOutputsExactly) {
  const std::string line(300, 'z');
  const std::pair<std::string, std::string> cases[] = {
      {"true", ""},
      {"echo hello", "hello\n"},
      {"printf '%s\\n' " + line, line + "\n"},
      {"printf 'a\\nb\\n\\nc'", "a\nb\n\nc"},
      {"echo partial; exit 3", "partial\n"},
      {"kill -9 $$", ""},
      {"/nonexistent/tool 2>/dev/null", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(exec(c.first), c.second) << c.first;
    std::string output = "stale";  // emptied first
    exec(c.first.c_str(), output);
    EXPECT_EQ(output, c.second) << c.first;
  }
}

TEST(Exec, CapturesMegabytesByteForByte) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // Lines of every length, also far beyond one read chunk, and bytes of
    // every value but zero.
    const std::string text = Text(3 << 20, 2) + std::string(70000, 'L') + "\n";
    const std::string path = ScratchPath("big");
    ASSERT_TRUE(WriteFile(path, text));
    const std::string output = exec("cat " + path);
    ASSERT_EQ(output.size(), text.size());
    EXPECT_TRUE(output == text);
  });
}

TEST(Exec, ZeroByteEndsItsChunkOnly) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // Reads take at most 127 bytes and stop behind a newline; a zero byte
    // cuts the chunk it is in, the next chunk counts again.
    std::string text = "ab" + std::string(1, '\0') + "cd\n";  // chunk "ab"
    text += std::string(10, 'A') + '\0' + std::string(116, 'B');  // 127
    text += std::string(73, 'C') + "\n";
    text += '\0' + std::string(20, 'D') + "\n";  // chunk dropped whole
    text += "end";
    const std::string path = ScratchPath("zeros");
    ASSERT_TRUE(WriteFile(path, text));
    EXPECT_EQ(exec("cat " + path),
              "ab" + std::string(10, 'A') + std::string(73, 'C') + "\nend");
  });
}

TEST(Exec, ThrowsWhenTheCommandCannotStart) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    std::string output = "stale";
    // No room for a pipe.
    auto thrown = qel_test::ThrownWithDescriptorLimit(
        1, [&] { exec("echo never", output); });
    ASSERT_TRUE(thrown);
    EXPECT_THAT([&] { std::rethrow_exception(thrown); },
                ThrowsMessage<std::runtime_error>("popen() failed!"));
    EXPECT_EQ(output, "");
    EXPECT_EQ(exec("echo again"), "again\n");
  });
}

}  // namespace
