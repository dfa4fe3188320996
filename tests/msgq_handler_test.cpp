// The message queue handler on real System V queues, each test in its own IPC
// namespace: the one-byte announcement protocol, type selectors, clearing,
// sharing a key between processes, prompt destruction and the failure paths.

#include <linux/capability.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "qel_util/ipc.h"
#include "support/descriptor_limit.h"
#include "support/privilege.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"

namespace qel_util {
namespace {

using qel_test::RunInSandbox;
using qel_test::StderrCapture;
using std::chrono::milliseconds;

constexpr int kKey = 0x5143;

struct Message {
  long type;
  char text[128];
};

// Whole-buffer length, type field included, for a text of `size` bytes.
unsigned short LengthFor(size_t size) {
  return static_cast<unsigned short>(sizeof(long) + size);
}

Message Make(long type, const std::string& text) {
  Message message{};
  message.type = type;
  std::memcpy(message.text, text.data(), text.size());
  return message;
}

void Send(cMsgQHandler& handler, long type, const std::string& text) {
  Message message = Make(type, text);
  EXPECT_EQ(handler.tx(&message, LengthFor(text.size()), 0), 0);
}

bool Readable(int fd, int timeoutMs) {
  pollfd watch{fd, POLLIN, 0};
  return poll(&watch, 1, timeoutMs) == 1 && (watch.revents & POLLIN) != 0;
}

int PipeBytes(int fd) {
  int bytes = -1;
  EXPECT_EQ(ioctl(fd, FIONREAD, &bytes), 0);
  return bytes;
}

// Waits for `count` bytes, then a little longer so that a surplus shows.
int SettledPipeBytes(int fd, int count) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (PipeBytes(fd) < count && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(milliseconds(5));
  std::this_thread::sleep_for(milliseconds(100));
  return PipeBytes(fd);
}

int Queued(int key) {
  msqid_ds state{};
  int id = msgget(key, 0);
  if (id < 0 || msgctl(id, IPC_STAT, &state) != 0) return -1;
  return static_cast<int>(state.msg_qnum);
}

// What rx delivered: "" with the result 1.
std::string Receive(cMsgQHandler& handler, int flags = IPC_NOWAIT,
                    size_t room = sizeof(Message::text), long* type = nullptr) {
  Message message{};
  if (handler.rx(&message, LengthFor(room), flags) != 0) return "";
  if (type != nullptr) *type = message.type;
  return std::string(message.text, strnlen(message.text, room));
}

TEST(MsgQHandler, EmptyQueueStaysQuietAndAFruitlessRxIsStored) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    cMsgQHandler handler(kKey, 1);
    EXPECT_EQ(Queued(kKey), 0);
    EXPECT_FALSE(Readable(handler.get_fd(), 100));
    Message message{};
    EXPECT_EQ(handler.rx(&message, sizeof message, IPC_NOWAIT), 1);
    // The post is stored while the watcher probes: the next message is
    // announced, the watcher passes one wait and announces once more.
    Send(handler, 1, "one");
    EXPECT_EQ(SettledPipeBytes(handler.get_fd(), 2), 2);
    EXPECT_EQ(Receive(handler), "one");
    EXPECT_EQ(Receive(handler), "");
    EXPECT_EQ(PipeBytes(handler.get_fd()), 0);
    EXPECT_FALSE(Readable(handler.get_fd(), 100));
  });
}

TEST(MsgQHandler, OneByteAnnouncesManyAndATooLongMessageIsAnnouncedAgain) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    cMsgQHandler sender(kKey, 99);
    Send(sender, 1, "a");
    Send(sender, 1, "bb");
    Send(sender, 1, "ccc");
    cMsgQHandler handler(kKey, 1);
    ASSERT_TRUE(Readable(handler.get_fd(), 2000));
    EXPECT_EQ(SettledPipeBytes(handler.get_fd(), 1), 1);
    // The first rx consumes the announcement; the parked watcher announces
    // nothing more while the rest is taken.
    EXPECT_EQ(Receive(handler), "a");
    EXPECT_EQ(PipeBytes(handler.get_fd()), 0);
    EXPECT_EQ(Receive(handler), "bb");
    EXPECT_EQ(Receive(handler), "ccc");
    EXPECT_EQ(PipeBytes(handler.get_fd()), 0);
    Message message{};
    EXPECT_EQ(handler.rx(&message, sizeof message, IPC_NOWAIT), 1);
    EXPECT_EQ(PipeBytes(handler.get_fd()), 0);
    EXPECT_FALSE(Readable(handler.get_fd(), 100));
    // Released, the watcher announces the next arrival at once; one too
    // long for rx is announced again until a truncating rx takes it.
    std::string text(100, 'x');
    for (size_t i = 0; i < text.size(); ++i) text[i] = 'a' + i % 26;
    Send(sender, 1, text);
    ASSERT_TRUE(Readable(handler.get_fd(), 2000));
    EXPECT_EQ(Receive(handler, IPC_NOWAIT, 50), "");
    EXPECT_EQ(Queued(kKey), 1);
    ASSERT_TRUE(Readable(handler.get_fd(), 2000));
    EXPECT_EQ(Receive(handler, IPC_NOWAIT | MSG_NOERROR, 50),
              text.substr(0, 50));
    EXPECT_EQ(Queued(kKey), 0);
  });
}

TEST(MsgQHandler, TypeSelectorsPositiveZeroAndNegative) {
  QEL_REQUIRE_SANDBOX();
  using Typed = std::vector<std::pair<long, std::string>>;
  struct Case {
    long selector;
    Typed sent, taken;
    int left;
  };
  const Case cases[] = {
      {5, {{3, "other"}, {5, "mine"}}, {{5, "mine"}}, 1},
      {0, {{7, "seven"}, {2, "two"}}, {{7, "seven"}, {2, "two"}}, 0},
      {-4, {{7, "seven"}, {4, "four"}, {2, "two"}}, {{2, "two"}, {4, "four"}},
       1},
  };
  RunInSandbox([&cases] {
    int key = kKey;
    for (const Case& c : cases) {
      cMsgQHandler handler(++key, c.selector);
      for (const auto& message : c.sent)
        Send(handler, message.first, message.second);
      ASSERT_TRUE(Readable(handler.get_fd(), 2000));
      for (const auto& message : c.taken) {
        long type = 0;
        EXPECT_EQ(Receive(handler, IPC_NOWAIT, sizeof(Message::text), &type),
                  message.second);
        EXPECT_EQ(type, message.first);
      }
      EXPECT_EQ(Receive(handler), "");
      EXPECT_EQ(Queued(key), c.left) << c.selector;
    }
  });
}

TEST(MsgQHandler, ClearDropsTheSelectedTypeAndReleasesTheWatcher) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    cMsgQHandler handler(kKey, 1);
    Send(handler, 2, "kept");  // another type goes unseen
    EXPECT_FALSE(Readable(handler.get_fd(), 150));
    EXPECT_FALSE(handler.clear());
    Send(handler, 1, "longer than the ten bytes clear keeps");
    Send(handler, 1, "short");
    // The clear() found nothing but still released the watcher: that
    // stored post makes it announce twice.
    EXPECT_EQ(SettledPipeBytes(handler.get_fd(), 2), 2);
    EXPECT_TRUE(handler.clear());
    EXPECT_EQ(Queued(kKey), 1);
    EXPECT_EQ(PipeBytes(handler.get_fd()), 0);
    Send(handler, 1, "after");
    ASSERT_TRUE(Readable(handler.get_fd(), 2000));
    EXPECT_EQ(Receive(handler), "after");
  });
}

TEST(MsgQHandler, FailedTxAndRxSendAndTakeNothing) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    cMsgQHandler handler(kKey, 1);
    msqid_ds state{};
    const int id = msgget(kKey, 0);
    ASSERT_EQ(msgctl(id, IPC_STAT, &state), 0);
    state.msg_qbytes = 16;
    ASSERT_EQ(msgctl(id, IPC_SET, &state), 0);
    Message message = Make(1, "sixteen bytes!!!");
    EXPECT_EQ(handler.tx(&message, LengthFor(16), IPC_NOWAIT), 0);
    EXPECT_EQ(handler.tx(&message, LengthFor(16), IPC_NOWAIT), 0);  // full
    EXPECT_EQ(Queued(kKey), 1);
    // A length that cannot hold the type field is refused by the kernel.
    errno = 0;
    EXPECT_EQ(handler.tx(&message, sizeof(long) - 1, 0), 0);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(handler.rx(&message, sizeof(long) - 1, IPC_NOWAIT), 1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Queued(kKey), 1);
  });
}

TEST(MsgQHandler, EmptyMessagesAreDeliveredAsOneAndNeverLost) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    Message empty = Make(3, "");
    {
      cMsgQHandler sender(kKey, 99);
      EXPECT_EQ(sender.tx(&empty, sizeof(long), 0), 0);
      Send(sender, 4, "text");
    }
    // The watcher's probe has to take the empty one at the head; it puts it
    // back behind the other.
    cMsgQHandler handler(kKey, 0);
    ASSERT_TRUE(Readable(handler.get_fd(), 2000));
    EXPECT_EQ(Receive(handler), "text");
    Message message{};
    EXPECT_EQ(handler.rx(&message, sizeof message, IPC_NOWAIT), 1);
    EXPECT_EQ(message.type, 3);
    EXPECT_EQ(Queued(kKey), 0);
    // Alone in the queue, it is announced and then handed over.
    EXPECT_EQ(handler.tx(&empty, sizeof(long), 0), 0);
    ASSERT_TRUE(Readable(handler.get_fd(), 2000));
    EXPECT_EQ(Queued(kKey), 1);
    message.type = 0;
    EXPECT_EQ(handler.rx(&message, sizeof message, IPC_NOWAIT), 1);
    EXPECT_EQ(message.type, 3);
    EXPECT_EQ(Queued(kKey), 0);
    EXPECT_EQ(handler.rx(&message, sizeof message, IPC_NOWAIT), 1);
    EXPECT_FALSE(Readable(handler.get_fd(), 100));
  });
}

// The far end of the shared queue: answers one "ping" of type 2 with a
// "pong" of type 1. Its exit status says whether it saw the ping.
int Answer() {
  cMsgQHandler handler(kKey, 2);
  if (!Readable(handler.get_fd(), 5000)) return 2;
  Message message{};
  if (handler.rx(&message, sizeof message, IPC_NOWAIT) != 0) return 3;
  if (std::string(message.text) != "ping") return 4;
  Message pong = Make(1, "pong");
  handler.tx(&pong, LengthFor(4), 0);
  return handler.rx(&message, sizeof message, IPC_NOWAIT) == 1 ? 0 : 5;
}

TEST(MsgQHandler, TwoProcessesShareAKeyEachTakingItsType) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    std::fflush(nullptr);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(Answer());
    {
      cMsgQHandler handler(kKey, 1);
      Send(handler, 2, "ping");
      ASSERT_TRUE(Readable(handler.get_fd(), 5000));
      EXPECT_EQ(Receive(handler), "pong");
      EXPECT_EQ(Receive(handler), "");
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(Queued(kKey), 0);
  });
}

TEST(MsgQHandler, DestructionIsPromptWhetherProbingOrParked) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture err;
    const auto deletedPromptly = [](cMsgQHandler* handler) {
      const auto start = std::chrono::steady_clock::now();
      delete handler;
      return std::chrono::steady_clock::now() - start < milliseconds(1000);
    };
    EXPECT_TRUE(deletedPromptly(new cMsgQHandler(kKey, 1)));
    auto parked = new cMsgQHandler(kKey, 1);
    Send(*parked, 1, "left behind");
    ASSERT_TRUE(Readable(parked->get_fd(), 2000));
    EXPECT_TRUE(deletedPromptly(parked));
    // The queue outlives its handlers, message included.
    EXPECT_EQ(Queued(kKey), 1);
    EXPECT_EQ(err.Text(), "");
  });
}

TEST(MsgQHandlerFailure, MsggetErrorIsReportedAndTheHandlerStaysHarmless) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    // A queue nobody may open: mode 0, and no CAP_IPC_OWNER to override it.
    ASSERT_GE(msgget(kKey, IPC_CREAT | 0), 0);
    ASSERT_TRUE(qel_test::DropCapability(CAP_IPC_OWNER));
    StderrCapture err;
    {
      cMsgQHandler handler(kKey, 1);
      EXPECT_EQ(err.Text(), "msgget error\n");
      EXPECT_GE(handler.get_fd(), 0);
      Message message = Make(1, "lost");
      EXPECT_EQ(handler.tx(&message, LengthFor(4), 0), 0);
      EXPECT_EQ(handler.rx(&message, sizeof message, IPC_NOWAIT), 1);
      EXPECT_FALSE(handler.clear());
      EXPECT_FALSE(Readable(handler.get_fd(), 100));
    }
    EXPECT_EQ(err.Text(), "msgget error\n");
  });
}

TEST(MsgQHandlerFailure, WithoutAPipeMessagesStillFlow) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    qel_test::DescriptorLimit none(0);  // pipe() fails
    cMsgQHandler handler(kKey, 1);
    EXPECT_EQ(handler.get_fd(), -1);
    Send(handler, 1, "still here");
    EXPECT_EQ(Receive(handler), "still here");
    EXPECT_EQ(Receive(handler), "");
    handler.clearNotifyPipe();
  });
}

}  // namespace
}  // namespace qel_util
