#include <linux/capability.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>
#include <gtest/gtest.h>
#include "qel_util/ipc.h"
#include "support/privilege.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"

namespace qel_util {
namespace {

using qel_test::RunInSandbox;
constexpr int kKey = 0x5143;

struct Message { long type; char text[128]; };

void Send(cMsgQHandler& handler, long type, const std::string& text) {
  Message message{type, {}};
  std::memcpy(message.text, text.data(), text.size());
  EXPECT_EQ(handler.tx(&message, sizeof(long) + text.size(), 0), 0);
}

std::string Receive(cMsgQHandler& handler, int flags = IPC_NOWAIT, size_t room = 128) {
  Message message{};
  if (handler.rx(&message, sizeof(long) + room, flags) != 0) return "";
  return std::string(message.text, strnlen(message.text, room));
}

// The limits bound a wait for what is due; only a check that nothing comes
// waits them out, and a slow machine can only make that one pass.
constexpr int kDue = 30000;

bool Readable(int fd, int timeoutMs = kDue) {
  pollfd watch{fd, POLLIN, 0};
  return poll(&watch, 1, timeoutMs) == 1;
}

// Waits for a due announcement, then a little longer so that a surplus shows.
int SettledPipeBytes(int fd, bool due) {
  if (due) Readable(fd);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  int bytes = -1;
  return ioctl(fd, FIONREAD, &bytes) == 0 ? bytes : -1;
}

int Queued(int key) {
  msqid_ds state{};
  int id = msgget(key, 0);
  return id < 0 || msgctl(id, IPC_STAT, &state) != 0 ? -1 : int(state.msg_qnum);
}

TEST(MsgQHandler, OneByteAnnouncesManyAndATooLongMessageIsAnnouncedAgain) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    cMsgQHandler sender(kKey, 99);
    for (const char* text : {"a", "bb", "ccc"}) Send(sender, 1, text);
    cMsgQHandler handler(kKey, 1);
    EXPECT_EQ(SettledPipeBytes(handler.get_fd(), true), 1);
    for (const char* text : {"a", "bb", "ccc", ""}) EXPECT_EQ(Receive(handler), text);
    EXPECT_EQ(SettledPipeBytes(handler.get_fd(), false), 0);
    const std::string text = std::string(50, 'a') + std::string(50, 'b');
    Send(sender, 1, text);
    ASSERT_TRUE(Readable(handler.get_fd()));
    EXPECT_EQ(Receive(handler, IPC_NOWAIT, 50), "");
    ASSERT_TRUE(Readable(handler.get_fd()));
    EXPECT_EQ(Receive(handler, IPC_NOWAIT | MSG_NOERROR, 50), text.substr(0, 50));
    EXPECT_EQ(Queued(kKey), 0);
  });
}

TEST(MsgQHandler, SelectorsAndClear) {
  QEL_REQUIRE_SANDBOX();
  struct Case { long selector; std::vector<long> sent, taken; int left; };
  const Case cases[] = {{5, {3, 5}, {5}, 1}, {0, {7, 2}, {7, 2}, 0},
                        {-4, {7, 4, 2}, {2, 4}, 1}};
  RunInSandbox([&cases] {
    int key = kKey;
    for (const Case& c : cases) {
      cMsgQHandler handler(++key, c.selector);
      for (long type : c.sent) Send(handler, type, std::to_string(type));
      ASSERT_TRUE(Readable(handler.get_fd()));
      for (long type : c.taken) EXPECT_EQ(Receive(handler), std::to_string(type));
      EXPECT_EQ(Queued(key), c.left) << c.selector;
    }
    cMsgQHandler handler(kKey, 1);
    Send(handler, 2, "kept");
    Send(handler, 1, "longer than the ten bytes clear keeps");
    Send(handler, 1, "short");
    ASSERT_TRUE(Readable(handler.get_fd()));
    EXPECT_TRUE(handler.clear());
    EXPECT_EQ(Queued(kKey), 1);
    EXPECT_EQ(SettledPipeBytes(handler.get_fd(), false), 0);
  });
}

TEST(MsgQHandler, TwoProcessesShareAKeyAndDestructionNeverHangs) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      cMsgQHandler handler(kKey, 2);
      if (!Readable(handler.get_fd()) || Receive(handler) != "ping") _exit(2);
      Send(handler, 1, "pong");
      _exit(0);
    }
    cMsgQHandler handler(kKey, 1);
    Send(handler, 2, "ping");
    ASSERT_TRUE(Readable(handler.get_fd()));
    EXPECT_EQ(Receive(handler), "pong");
    EXPECT_EQ(qel_test::Reap(child), 0);
    // Destroyed while probing an empty queue, then while parked on a message
    // (a destructor that waits for the watcher hangs the test).
    for (bool parked : {false, true}) {
      cMsgQHandler doomed(kKey + 1, 1);
      if (parked) Send(doomed, 1, "left behind");
      EXPECT_EQ(Readable(doomed.get_fd(), parked ? kDue : 100), parked);
    }
    EXPECT_EQ(Queued(kKey + 1), 1);
  });
}

TEST(MsgQHandlerFailure, MsggetErrorIsReportedAndTheHandlerStaysHarmless) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    ASSERT_GE(msgget(kKey, IPC_CREAT | 0), 0);
    ASSERT_TRUE(qel_test::DropCapability(CAP_IPC_OWNER));
    qel_test::StderrCapture err;
    cMsgQHandler handler(kKey, 1);
    Send(handler, 1, "lost");
    EXPECT_EQ(Receive(handler), "");
    EXPECT_FALSE(handler.clear());
    EXPECT_FALSE(Readable(handler.get_fd(), 100));
    EXPECT_EQ(err.Text(), "msgget error\n");
  });
}

}  // namespace
}  // namespace qel_util
