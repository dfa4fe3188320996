// Datagram sockets in the abstract namespace, on the real kernel. Every test
// runs in its own network namespace, so names never meet the host's or
// another test's.

#include <fcntl.h>
#include <poll.h>
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
#include "support/descriptor_limit.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"

namespace qel_util {
namespace {

using qel_test::RunInSandbox;
using qel_test::StderrCapture;

void InPrivateNames(const std::function<void()>& body) {
  qel_test::SandboxOptions options;
  options.network = true;
  RunInSandbox(body, options);
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

// A zero byte, `name`, zeros to the end of the path.
sockaddr_un FullAbstractAddress(const std::string& name) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  return address;
}

// A bound server "@service" and a bound client "@client" of it.
void WithServerAndClient(
    const std::function<void(UdpServer&, UdpClient&)>& body) {
  InPrivateNames([&body] {
    UdpServer server("@service");
    UdpClient client("@client", "@service");
    ASSERT_EQ(server.Init(), 0);
    ASSERT_EQ(client.Init(), 0);
    body(server, client);
  });
}

// The sanitizers' runtime may complain on the same stream; only the
// library's lines count.
std::string LibraryLines(const std::string& text) {
  std::string kept;
  for (size_t start = 0, end; start < text.size(); start = end) {
    end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    if (text.compare(start, 11, "UdpSocket: ") == 0)
      kept += text.substr(start, end - start);
  }
  return kept;
}

TEST(UdpSocket, InitBindsANonBlockingCloseOnExecSocket) {
  QEL_REQUIRE_SANDBOX();
  InPrivateNames([] {
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
    // The bound address is the whole structure, trailing zeros included.
    sockaddr_un bound;
    socklen_t boundLength = sizeof bound;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&bound),
                          &boundLength), 0);
    EXPECT_EQ(boundLength, 110u);
    const sockaddr_un expected = FullAbstractAddress("service");
    EXPECT_EQ(std::memcmp(&bound, &expected, sizeof bound), 0);
  });
}

TEST(UdpSocket, ATakenNameFailsThreeTimesOverAboutThreeHundredMs) {
  QEL_REQUIRE_SANDBOX();
  InPrivateNames([] {
    UdpServer server("Sshared");
    ASSERT_EQ(server.Init(), 0);
    UdpClient client("Cshared", "Sshared");  // only the marker differs
    StderrCapture capture;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.Init(), -1);
    const int error = errno;
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - start;
    EXPECT_EQ(error, EADDRINUSE);
    const std::string line = "UdpSocket: bind: Address already in use\n";
    EXPECT_EQ(capture.Text(), line + line + line);
    EXPECT_GE(elapsed.count(), 290.0);
    EXPECT_LT(elapsed.count(), 3000.0);
    EXPECT_EQ(client.get_fd(), -1);
    errno = EDOM;
    EXPECT_EQ(Send(client, "x"), -1);
    EXPECT_EQ(errno, EDOM);
  });
}

TEST(UdpSocket, NoDescriptorLeftFailsThreeTimesWithSocketReport) {
  QEL_REQUIRE_SANDBOX();
  InPrivateNames([] {
    UdpServer server("@service");
    StderrCapture capture;
    int result, error;
    {
      qel_test::DescriptorLimit none(0);
      result = server.Init();
      error = errno;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EMFILE);
    EXPECT_EQ(server.get_fd(), -1);
    const std::string line = "UdpSocket: socket: Too many open files\n";
    EXPECT_EQ(LibraryLines(capture.Text()), line + line + line);
    EXPECT_EQ(server.Init(), 0);  // another Init leaves the failed state
  });
}

TEST(UdpSocket, NamesAreFreeAgainAtOnceAfterReInitAndDestruction) {
  QEL_REQUIRE_SANDBOX();
  InPrivateNames([] {
    StderrCapture capture;
    UdpClient late("@late", "@service");
    ASSERT_EQ(late.Init(), 0);
    for (int round = 0; round < 2; ++round) {
      UdpServer server("@service");
      UdpClient client("@client", "@service");
      for (int init = 0; init < 2; ++init) {
        ASSERT_EQ(server.Init(), 0);
        ASSERT_EQ(client.Init(), 0);
      }
      EXPECT_EQ(Send(client, "round"), 5);
      EXPECT_EQ(Receive(server), "round");
    }
    EXPECT_EQ(capture.Text(), "");
    errno = 0;  // the server has gone
    EXPECT_EQ(Send(late, "hello"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
  });
}

TEST(UdpSocket, FirstCharacterIsAMarkerAndNamesEndAtTheHundredAndSeventh) {
  QEL_REQUIRE_SANDBOX();
  InPrivateNames([] {
    const std::string body(106, 'n');
    struct Case {
      std::string serverName, clientTarget;
    };
    // No characters after the marker: the all-zero name, for both lengths.
    for (const Case& c : {Case{"Aname", "Zname"}, Case{"", "x"},
                          Case{"s" + body + "S-tail", "c" + body + "C-tail"}}) {
      UdpServer server(c.serverName);
      UdpClient client("@client", c.clientTarget);
      ASSERT_EQ(server.Init(), 0);
      ASSERT_EQ(client.Init(), 0);
      EXPECT_EQ(Send(client, "hello"), 5) << c.serverName;
      EXPECT_EQ(Receive(server), "hello");
      if (c.serverName.size() < 100) continue;
      // The 107th character still counts.
      UdpClient differs("@differs", "c" + body.substr(1) + "X");
      ASSERT_EQ(differs.Init(), 0);
      errno = 0;
      EXPECT_EQ(Send(differs, "lost"), -1);
      EXPECT_EQ(errno, ECONNREFUSED);
    }
  });
}

TEST(UdpSocket, WriteAndReadWithoutInitLeaveErrnoAlone) {
  UdpServer server("@service");
  UdpClient client("@client", "@service");
  unsigned char buffer[8] = {};
  sockaddr_un address = FullAbstractAddress("service");
  unsigned int length = sizeof address;
  errno = EDOM;
  for (UdpSocket* socket : {static_cast<UdpSocket*>(&server),
                            static_cast<UdpSocket*>(&client)}) {
    EXPECT_EQ(socket->Write(buffer, sizeof buffer), -1);
    EXPECT_EQ(socket->Read(buffer, sizeof buffer), -1);
  }
  EXPECT_EQ(client.Write(buffer, sizeof buffer, &address, length), -1);
  EXPECT_EQ(client.Read(buffer, sizeof buffer, &address, &length), -1);
  EXPECT_EQ(errno, EDOM);
  EXPECT_EQ(length, sizeof address);
}

TEST(UdpSocket, ReadAndWriteNeverWaitEvenOnABlockingDescriptor) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    // Not waiting is a property of each call, not only of the descriptor.
    ASSERT_EQ(fcntl(server.get_fd(), F_SETFL, 0), 0);
    ASSERT_EQ(fcntl(client.get_fd(), F_SETFL, 0), 0);
    ExpectNothingWaiting(server);
    ExpectNothingWaiting(client);
    int sent = 0;
    while (sent < 10000 && Send(client, "fill") == 4) ++sent;
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 10000);
    for (int i = 0; i < sent; ++i) EXPECT_EQ(Receive(server), "fill");
    ExpectNothingWaiting(server);
  });
}

TEST(UdpSocket, DatagramsKeepTheirBoundariesAndLoseWhatDoesNotFit) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    std::string large(300, '\0');
    for (size_t i = 0; i < large.size(); ++i)
      large[i] = static_cast<char>('A' + i % 26);
    for (const std::string& text : {std::string("abc"), std::string(),
                                     large, std::string("next")})
      EXPECT_EQ(Send(client, text), static_cast<int>(text.size()));
    EXPECT_EQ(Receive(server), "abc");
    EXPECT_EQ(Receive(server), "");
    EXPECT_EQ(Receive(server, 100), large.substr(0, 100));
    EXPECT_EQ(Receive(server), "next");
    ExpectNothingWaiting(server);
  });
}

TEST(UdpServer, WriteWithoutAPeerToAnswerSendsNothing) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& client) {
    // A Read that received nothing taught the server no peer.
    ExpectNothingWaiting(server);
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

TEST(UdpServer, ConversationAnswersTheLastSender) {
  QEL_REQUIRE_SANDBOX();
  WithServerAndClient([](UdpServer& server, UdpClient& first) {
    UdpClient second("@second", "@service");
    ASSERT_EQ(second.Init(), 0);
    EXPECT_EQ(Send(first, "one"), 3);
    pollfd ready = {server.get_fd(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 5000), 1);
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
  InPrivateNames([] {
    const std::string script = qel_test::ScratchPath("peer.py");
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
  });
}

}  // namespace
}  // namespace qel_util
