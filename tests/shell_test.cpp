// The kernel command line reader, the text helpers and exec.

#include <sys/mount.h>

#include <random>
#include <stdexcept>
#include <string>

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

TEST(KernelCmdline, ReturnsAShortLineWholeWithItsNewline) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(MountFile("/proc/cmdline", "console=ttyS0 barcode=X\n"));
    EXPECT_EQ(ReadKernelCmdline(), "console=ttyS0 barcode=X\n");
  });
}

TEST(KernelCmdline, KeepsTheFirst383Bytes) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    const std::string line = Text(1000, 1);
    ASSERT_TRUE(MountFile("/proc/cmdline", line));
    EXPECT_EQ(ReadKernelCmdline(), line.substr(0, 383));

    const std::string exact = std::string(382, 'x') + "\n";
    ASSERT_TRUE(MountFile("/proc/cmdline", exact));
    EXPECT_EQ(ReadKernelCmdline(), exact);

    ASSERT_TRUE(MountFile("/proc/cmdline", std::string(383, 'y') + "\n"));
    EXPECT_EQ(ReadKernelCmdline(), std::string(383, 'y'));
  });
}

TEST(KernelCmdline, StopsAtAZeroByte) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_TRUE(MountFile("/proc/cmdline", std::string("a=1\0b=2\n", 8)));
    EXPECT_EQ(ReadKernelCmdline(), "a=1");
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

TEST(TrimSpace, EmptyAndAllWhiteSpaceGiveEmptyText) {
  EXPECT_EQ(TrimSpace(""), "");
  EXPECT_EQ(TrimSpace(" \t\f\v\n\r"), "");
  EXPECT_EQ(TrimSpace("\r\n\n  "), "");
}

TEST(TrimSpace, RemovesExactlyTheSixCharactersAtBothEnds) {
  EXPECT_EQ(TrimSpace("\tA123 456\r\n"), "A123 456");
  for (char space : std::string(" \t\f\v\n\r")) {
    const std::string s(1, space);
    EXPECT_EQ(TrimSpace(s + "x" + s + "y" + s), "x" + s + "y") << int(space);
  }
  EXPECT_EQ(TrimSpace("x"), "x");
  EXPECT_EQ(TrimSpace(" x "), "x");
}

TEST(TrimSpace, OtherBytesStay) {
  // Zero bytes, control characters and bytes of 128 and above are text.
  const std::string zeros("\0ab\0", 4);
  EXPECT_EQ(TrimSpace(" " + zeros + " "), zeros);
  EXPECT_EQ(TrimSpace("\x1c" "a" "\x1f"), "\x1c" "a" "\x1f");
  EXPECT_EQ(TrimSpace("\xa0" "a" "\x85"), "\xa0" "a" "\x85");
}

TEST(GetKeyValue, ValueRunsToTheFirstEndCharacter) {
  EXPECT_EQ(GetKeyValue("a=1;b=2", "b=", ";"), "2");
  EXPECT_EQ(GetKeyValue("a=1;b=2;c=3", "b=", ";"), "2");
  EXPECT_EQ(GetKeyValue("a=1 b=2,c=3", "b=", ", "), "2");
  EXPECT_EQ(GetKeyValue("b= 2 ;", "b=", ";"), " 2 ");  // not trimmed
}

TEST(GetKeyValue, FirstOccurrenceCountsEvenInsideAnotherKey) {
  EXPECT_EQ(GetKeyValue("xb=3;b=2", "b=", ";"), "3");
  EXPECT_EQ(GetKeyValue("b=1;b=2", "b=", ";"), "1");
}

TEST(GetKeyValue, EmptyValues) {
  EXPECT_EQ(GetKeyValue("a=1", "b=", ";"), "");   // no key
  EXPECT_EQ(GetKeyValue("a=1;b=", "b=", ";"), "");  // key at the end
  EXPECT_EQ(GetKeyValue("b=;c=3", "b=", ";"), "");  // end right behind it
  EXPECT_EQ(GetKeyValue("", "b=", ";"), "");
}

TEST(GetKeyValue, EmptyKeyAndEmptyEndSet) {
  EXPECT_EQ(GetKeyValue("a=1;b=2", "", ";"), "a=1");
  EXPECT_EQ(GetKeyValue("a=1;b=2", "a=", ""), "1;b=2");
  EXPECT_EQ(GetKeyValue("a=1;b=2", "", ""), "a=1;b=2");
}

TEST(Exec, CapturesShortOutputsExactly) {
  EXPECT_EQ(exec("true"), "");
  EXPECT_EQ(exec("echo hello"), "hello\n");
  const std::string line(300, 'z');
  EXPECT_EQ(exec("printf '%s\\n' " + line), line + "\n");
  EXPECT_EQ(exec(std::string("printf 'a\\nb\\n\\nc'")), "a\nb\n\nc");
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

TEST(Exec, FailingCommandsGiveTheirOutputWithoutError) {
  EXPECT_EQ(exec("echo partial; exit 3"), "partial\n");
  EXPECT_EQ(exec("kill -9 $$"), "");
  EXPECT_EQ(exec("/nonexistent/tool 2>/dev/null"), "");
}

TEST(Exec, EmptiesTheOutputFirst) {
  std::string output = "stale";
  exec("true", output);
  EXPECT_EQ(output, "");
  output = "old ";
  exec("echo new", output);
  EXPECT_EQ(output, "new\n");
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
