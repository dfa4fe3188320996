// Datagram sockets in the abstract namespace, on the real kernel. Every test
// runs in its own network namespace, so names never meet the host's or
// another test's.

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "qel_util/net.h"
#include "support/sandbox.h"

namespace qel_util {
namespace {

using qel_test::ReadFile;
using qel_test::RunInSandbox;
using qel_test::SandboxOptions;
using qel_test::ScratchPath;

SandboxOptions PrivateNames() {
  SandboxOptions options;
  options.network = true;
  return options;
}

int Send(UdpSocket& socket, const std::string& text) {
  return socket.Write(reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<unsigned int>(text.size()));
}

// The next datagram as text, or "" with the test failed when none came.
std::string Receive(UdpSocket& socket, unsigned int size = 512) {
  std::string buffer(size, '\0');
  const int received =
      socket.Read(reinterpret_cast<unsigned char*>(&buffer[0]), size);
  if (received < 0) {
    ADD_FAILURE() << "Read failed: " << std::strerror(errno);
    return "";
  }
  buffer.resize(static_cast<size_t>(received));
  return buffer;
}

void ExpectNothingWaiting(UdpSocket& socket) {
  unsigned char buffer[16];
  errno = 0;
  EXPECT_EQ(socket.Read(buffer, sizeof buffer), -1);
  EXPECT_EQ(errno, EAGAIN);
}

// A peer address built by hand: a zero byte, `name`, zeros to the end.
sockaddr_un FullAbstractAddress(const std::string& name) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  return address;
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now() - start)
      .count();
}

// Sends what the process writes to descriptor 2 into a scratch file.
class StderrCapture {
 public:
  StderrCapture() : m_path(ScratchPath("stderr")) {
    std::fflush(stderr);
    m_saved = dup(2);
    const int file = open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_GE(file, 0);
    dup2(file, 2);
    close(file);
  }
  ~StderrCapture() { Restore(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  std::string Take() {
    Restore();
    return ReadFile(m_path);
  }

 private:
  void Restore() {
    if (m_saved < 0) return;
    std::fflush(stderr);
    dup2(m_saved, 2);
    close(m_saved);
    m_saved = -1;
  }

  std::string m_path;
  int m_saved;
};

std::string Repeat(const std::string& line, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += line;
  return text;
}

// Runs `body` in a private network namespace with a bound server "@service"
// and a bound client "@client" of it.
void WithServerAndClient(
    const std::function<void(UdpServer&, UdpClient&)>& body) {
  RunInSandbox([&body] {
    UdpServer server("@service");
    UdpClient client("@client", "@service");
    ASSERT_EQ(server.Init(), 0);
    ASSERT_EQ(client.Init(), 0);
    body(server, client);
  }, PrivateNames());
}

std::string LinesStartingWith(const std::string& text,
                              const std::string& prefix) {
  std::string kept;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    if (text.compare(start, prefix.size(), prefix) == 0)
      kept += text.substr(start, end - start);
    start = end;
  }
  return kept;
}

TEST(UdpSocket, InitBindsANonBlockingCloseOnExecSocket) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    UdpServer server("@service");
    EXPECT_EQ(server.get_fd(), -1);
    ASSERT_EQ(server.Init(), 0);
    const int fd = server.get_fd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

    int type = 0;
    socklen_t typeLength = sizeof type;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    // The whole structure is the bound address: the zero bytes after the
    // name included.
    sockaddr_un bound;
    socklen_t boundLength = sizeof bound;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&bound),
                          &boundLength), 0);
    EXPECT_EQ(boundLength, 110u);
    const sockaddr_un expected = FullAbstractAddress("service");
    EXPECT_EQ(std::memcmp(&bound, &expected, sizeof bound), 0);
  }, PrivateNames());
}

TEST(UdpSocket, ATakenNameFailsThreeTimesOverAboutThreeHundredMs) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    UdpServer server("Sshared");
    ASSERT_EQ(server.Init(), 0);
    // Only the first character differs: the same address.
    UdpClient client("Cshared", "Sshared");
    StderrCapture capture;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.Init(), -1);
    const int error = errno;
    const double elapsed = MillisecondsSince(start);
    EXPECT_EQ(error, EADDRINUSE);
    EXPECT_EQ(capture.Take(),
              Repeat("UdpSocket: bind: Address already in use\n", 3));
    EXPECT_GE(elapsed, 290.0);
    EXPECT_LT(elapsed, 3000.0);
    EXPECT_EQ(client.get_fd(), -1);

    errno = EDOM;
    EXPECT_EQ(Send(client, "x"), -1);
    EXPECT_EQ(errno, EDOM);
  }, PrivateNames());
}

TEST(UdpSocket, NoDescriptorLeftFailsThreeTimesWithSocketReport) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    UdpServer server("@service");
    StderrCapture capture;
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    // The lowest free number is the next descriptor; a limit equal to it
    // leaves none.
    const int lowestFree = dup(0);
    ASSERT_GE(lowestFree, 0);
    close(lowestFree);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    const int result = server.Init();
    const int error = errno;
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EMFILE);
    EXPECT_EQ(server.get_fd(), -1);
    // The sanitizers' runtime needs descriptors too and complains on the
    // same stream when it finds none; only the library's lines count here.
    EXPECT_EQ(LinesStartingWith(capture.Take(), "UdpSocket: "),
              Repeat("UdpSocket: socket: Too many open files\n", 3));
    // The failed state is left by another Init.
    EXPECT_EQ(server.Init(), 0);
  }, PrivateNames());
}

TEST(UdpSocket, RepeatedInitReleasesTheOldSocketFirst) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    StderrCapture capture;
    EXPECT_EQ(server.Init(), 0);
    EXPECT_EQ(client.Init(), 0);
    EXPECT_EQ(capture.Take(), "");
    EXPECT_EQ(Send(client, "after re-init"), 13);
    EXPECT_EQ(Receive(server), "after re-init");
  });
}

TEST(UdpSocket, NamesAreFreeAgainAtOnceAfterDestruction) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    StderrCapture capture;
    for (int round = 0; round < 2; ++round) {
      UdpServer server("@service");
      UdpClient client("@client", "@service");
      ASSERT_EQ(server.Init(), 0);
      ASSERT_EQ(client.Init(), 0);
      EXPECT_EQ(Send(client, "round"), 5);
      EXPECT_EQ(Receive(server), "round");
    }
    EXPECT_EQ(capture.Take(), "");
  }, PrivateNames());
}

TEST(UdpSocket, FirstCharacterIsOnlyAMarker) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    UdpServer server("Aname");
    UdpClient client("@client", "Zname");
    ASSERT_EQ(server.Init(), 0);
    ASSERT_EQ(client.Init(), 0);
    EXPECT_EQ(Send(client, "marker"), 6);
    EXPECT_EQ(Receive(server), "marker");

    // No characters after the marker: the all-zero name, for both lengths.
    UdpServer empty("");
    UdpClient single("@single", "x");
    ASSERT_EQ(empty.Init(), 0);
    ASSERT_EQ(single.Init(), 0);
    EXPECT_EQ(Send(single, "zero"), 4);
    EXPECT_EQ(Receive(empty), "zero");
  }, PrivateNames());
}

TEST(UdpSocket, NamesAreCutAfterTheHundredAndSeventhCharacter) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    const std::string body(106, 'n');
    UdpServer server("s" + body + "S-tail");
    UdpClient client("@client", "c" + body + "C-tail");
    ASSERT_EQ(server.Init(), 0);
    ASSERT_EQ(client.Init(), 0);
    EXPECT_EQ(Send(client, "long"), 4);
    EXPECT_EQ(Receive(server), "long");

    // The 107th character still counts.
    UdpClient differs("@differs", "c" + body.substr(1) + "X");
    ASSERT_EQ(differs.Init(), 0);
    errno = 0;
    EXPECT_EQ(Send(differs, "lost"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
  }, PrivateNames());
}

TEST(UdpSocket, WriteAndReadWithoutInitLeaveErrnoAlone) {
  UdpServer server("@service");
  UdpClient client("@client", "@service");
  unsigned char buffer[8] = {};
  sockaddr_un address = FullAbstractAddress("service");
  unsigned int length = sizeof address;
  errno = EDOM;
  EXPECT_EQ(server.Write(buffer, sizeof buffer), -1);
  EXPECT_EQ(server.Read(buffer, sizeof buffer), -1);
  EXPECT_EQ(client.Write(buffer, sizeof buffer), -1);
  EXPECT_EQ(client.Read(buffer, sizeof buffer), -1);
  EXPECT_EQ(client.Write(buffer, sizeof buffer, &address, length), -1);
  EXPECT_EQ(client.Read(buffer, sizeof buffer, &address, &length), -1);
  EXPECT_EQ(errno, EDOM);
  EXPECT_EQ(length, sizeof address);
}

TEST(UdpSocket, ReadWithNothingWaitingReturnsAtOnce) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    ExpectNothingWaiting(server);
    ExpectNothingWaiting(client);
    // Not waiting is a property of each call, not only of the descriptor.
    ASSERT_EQ(fcntl(server.get_fd(), F_SETFL, 0), 0);
    ASSERT_EQ(fcntl(client.get_fd(), F_SETFL, 0), 0);
    ExpectNothingWaiting(server);
    ExpectNothingWaiting(client);
  });
}

TEST(UdpSocket, WriteToAFullQueueFailsInsteadOfWaiting) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    ASSERT_EQ(fcntl(client.get_fd(), F_SETFL, 0), 0);
    int sent = 0;
    while (sent < 10000 && Send(client, "fill") == 4) ++sent;
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 10000);
    for (int i = 0; i < sent; ++i) EXPECT_EQ(Receive(server), "fill");
    ExpectNothingWaiting(server);
  });
}

TEST(UdpSocket, WriteToAGoneServerIsRefused) {
  QEL_REQUIRE_SANDBOX();
  RunInSandbox([] {
    UdpClient client("@client", "@service");
    ASSERT_EQ(client.Init(), 0);
    {
      UdpServer server("@service");
      ASSERT_EQ(server.Init(), 0);
      EXPECT_EQ(Send(client, "hello"), 5);
    }
    errno = 0;
    EXPECT_EQ(Send(client, "hello"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
  }, PrivateNames());
}

TEST(UdpSocket, DatagramsKeepTheirBoundariesAndLoseWhatDoesNotFit) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    EXPECT_EQ(Send(client, "abc"), 3);
    EXPECT_EQ(Send(client, ""), 0);
    EXPECT_EQ(Send(client, "defgh"), 5);
    EXPECT_EQ(Receive(server), "abc");
    EXPECT_EQ(Receive(server), "");
    EXPECT_EQ(Receive(server), "defgh");

    std::string large(300, '\0');
    for (size_t i = 0; i < large.size(); ++i)
      large[i] = static_cast<char>('A' + i % 26);
    EXPECT_EQ(Send(client, large), 300);
    EXPECT_EQ(Send(client, "next"), 4);
    EXPECT_EQ(Receive(server, 100), large.substr(0, 100));
    EXPECT_EQ(Receive(server), "next");
    ExpectNothingWaiting(server);
  });
}

TEST(UdpServer, ConversationWithAClient) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    for (const std::string request : {"status?", "version?"}) {
      EXPECT_EQ(Send(client, request), static_cast<int>(request.size()));
      pollfd ready = {server.get_fd(), POLLIN, 0};
      ASSERT_EQ(poll(&ready, 1, 5000), 1);
      EXPECT_EQ(Receive(server), request);
      EXPECT_EQ(Send(server, "re: " + request),
                static_cast<int>(request.size()) + 4);
      EXPECT_EQ(Receive(client), "re: " + request);
    }
  });
}

TEST(UdpServer, WriteBeforeAnyDatagramArrivedSendsNothing) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    EXPECT_EQ(Send(server, "nobody"), -1);
    ExpectNothingWaiting(server);
    // A Read that received nothing taught the server no peer: nothing is
    // even tried.
    errno = EDOM;
    EXPECT_EQ(Send(server, "nobody"), -1);
    EXPECT_EQ(errno, EDOM);
    ExpectNothingWaiting(client);

    // An unbound sender cannot be answered either.
    const int anonymous = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(anonymous, 0);
    sockaddr_un address = FullAbstractAddress("service");
    EXPECT_EQ(sendto(anonymous, "anon", 4, 0,
                     reinterpret_cast<sockaddr*>(&address), sizeof address),
              4);
    EXPECT_EQ(Receive(server), "anon");
    errno = EDOM;
    EXPECT_EQ(Send(server, "nobody"), -1);
    EXPECT_EQ(errno, EDOM);
    close(anonymous);
  });
}

TEST(UdpServer, AnswersTheLastSender) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& first) {
    UdpClient second("@second", "@service");
    ASSERT_EQ(second.Init(), 0);
    EXPECT_EQ(Send(first, "one"), 3);
    EXPECT_EQ(Receive(server), "one");
    ExpectNothingWaiting(server);  // a failed Read keeps the peer
    EXPECT_EQ(Send(server, "to one"), 6);
    EXPECT_EQ(Receive(first), "to one");
    EXPECT_EQ(Send(second, "two"), 3);
    EXPECT_EQ(Send(first, "one again"), 9);
    EXPECT_EQ(Receive(server), "two");
    EXPECT_EQ(Send(server, "to two"), 6);
    ExpectNothingWaiting(first);
    EXPECT_EQ(Receive(second), "to two");
    EXPECT_EQ(Receive(server), "one again");
    EXPECT_EQ(Send(server, "to one again"), 12);
    EXPECT_EQ(Receive(first), "to one again");
    ExpectNothingWaiting(second);

    // The four-argument form reports the sender's whole address.
    EXPECT_EQ(Send(first, "three"), 5);
    unsigned char buffer[16];
    sockaddr_un from;
    unsigned int fromLength = sizeof from;
    EXPECT_EQ(server.Read(buffer, sizeof buffer, &from, &fromLength), 5);
    EXPECT_EQ(fromLength, 110u);
    const sockaddr_un expected = FullAbstractAddress("client");
    EXPECT_EQ(std::memcmp(&from, &expected, sizeof from), 0);
  });
}

TEST(UdpClient, ReadRedirectsLaterWritesToTheSender) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    UdpClient intruder("@intruder", "@client");
    ASSERT_EQ(intruder.Init(), 0);
    EXPECT_EQ(Send(intruder, "from intruder"), 13);
    EXPECT_EQ(Receive(client), "from intruder");
    ExpectNothingWaiting(client);  // a failed Read changes nothing
    EXPECT_EQ(Send(client, "reply"), 5);
    EXPECT_EQ(Receive(intruder), "reply");
    ExpectNothingWaiting(server);
  });
}

// A peer written by somebody else: Python's socket module, padding the name
// to the whole path as the library does.
TEST(UdpServer, ExchangesDatagramsWithAPythonPeer) {
  QEL_REQUIRE_SANDBOX();
  if (std::system("python3 -c 'import socket' 2>/dev/null") != 0)
    GTEST_SKIP() << "python3 is not available";
  RunInSandbox([] {
    const std::string script = ScratchPath("peer.py");
    ASSERT_TRUE(qel_test::WriteFile(script, R"(
import socket
def full(name):
    return (b'\0' + name).ljust(108, b'\0')
peer = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
peer.bind(full(b'python-peer'))
peer.settimeout(10)
try:
    peer.sendto(b'short', b'\0qel-service')
    print('short name met')
except ConnectionRefusedError:
    print('short name refused')
peer.sendto(b'ping from python', full(b'qel-service'))
data, sender = peer.recvfrom(200)
print(data.decode(), sender == full(b'qel-service'))
)"));
    UdpServer server("@qel-service");
    ASSERT_EQ(server.Init(), 0);
    FILE* python = popen(("python3 " + script).c_str(), "r");
    ASSERT_NE(python, nullptr);
    pollfd ready = {server.get_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 10000), 1);
    EXPECT_EQ(Receive(server), "ping from python");
    EXPECT_EQ(Send(server, "pong from qel"), 13);
    std::string output;
    char line[256];
    while (std::fgets(line, sizeof line, python) != nullptr) output += line;
    const int status = pclose(python);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(output, "short name refused\npong from qel True\n");
    ExpectNothingWaiting(server);
  }, PrivateNames());
}

}  // namespace
}  // namespace qel_util
