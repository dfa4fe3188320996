#include <poll.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <gtest/gtest.h>
#include "qel_util/net.h"
#include "support/host_tool.h"
#include "support/sandbox.h"
#include "support/stderr_capture.h"

namespace qel_util {
namespace {

// Abstract socket names belong to the network namespace: a private one.
void InPrivateNames(const std::function<void()>& body) { qel_test::RunInSandbox(body, {true}); }

int Send(UdpSocket& socket, const std::string& text) {
  return socket.Write(reinterpret_cast<const unsigned char*>(text.data()), unsigned(text.size()));
}

// The next datagram, or "<none>" when Read failed.
std::string Receive(UdpSocket& socket, unsigned int size = 512) {
  std::string buffer(size, '\0');
  const int got = socket.Read(reinterpret_cast<unsigned char*>(&buffer[0]), size);
  return got < 0 ? "<none>" : buffer.substr(0, static_cast<size_t>(got));
}

TEST(UdpServer, ConversationAnswersTheLastSenderAndKeepsBoundaries) {
  QEL_REQUIRE_SANDBOX();
  InPrivateNames([] {
    const std::string body(106, 'n');  // names end at the 107th character
    UdpServer server("s" + body + "S-tail");
    UdpClient first("@client", "c" + body + "C-tail"), second("@second", "@" + body),
        differs("@differs", "c" + body.substr(1) + "X");
    for (UdpSocket* socket : {(UdpSocket*)&server, (UdpSocket*)&first, (UdpSocket*)&second,
                              (UdpSocket*)&differs})
      ASSERT_EQ(socket->Init(), 0);
    EXPECT_EQ(Send(server, "nobody"), -1);  // no peer yet
    struct Step { UdpSocket *from, *to; std::string text; };
    for (const Step& step : {Step{&first, &server, "one"}, Step{&server, &first, "to one"},
                             Step{&second, &server, "two"}, Step{&server, &second, "to two"}}) {
      EXPECT_EQ(Send(*step.from, step.text), int(step.text.size()));
      EXPECT_EQ(Receive(*step.to), step.text);
    }
    EXPECT_EQ(Receive(first), "<none>");
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(Send(differs, "lost"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    const std::string large = std::string(100, 'a') + std::string(200, 'b');
    for (const std::string& text : {std::string(), large, std::string("next")})
      EXPECT_EQ(Send(first, text), static_cast<int>(text.size()));
    EXPECT_EQ(Receive(server), "");
    EXPECT_EQ(Receive(server, 100), large.substr(0, 100));
    EXPECT_EQ(Receive(server), "next");
  });
}

TEST(UdpSocket, ATakenNameFailsThreeTimesOverAboutThreeHundredMs) {
  QEL_REQUIRE_SANDBOX();
  InPrivateNames([] {
    UdpServer server("Sshared");
    ASSERT_EQ(server.Init(), 0);
    UdpClient client("Cshared", "Sshared");  // only the marker differs
    qel_test::StderrCapture capture;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.Init(), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const std::string line = "UdpSocket: bind: Address already in use\n";
    EXPECT_EQ(capture.Text(), line + line + line);
    EXPECT_GE(elapsed, std::chrono::milliseconds(290));
  });
}

// A peer written by somebody else: Python pads the name to the whole path.
TEST(UdpServer, ExchangesDatagramsWithAPythonPeer) {
  QEL_REQUIRE_SANDBOX();
  QEL_REQUIRE_HOST_PROGRAM("python3", "python3");
  InPrivateNames([] {
    const std::string script = "/mnt/peer.py";
    ASSERT_EQ(qel_test::WriteFile(script, R"(
import socket
full = lambda name: (b'\0' + name).ljust(108, b'\0')
peer = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
peer.bind(full(b'python-peer'))
peer.settimeout(10)
peer.sendto(b'ping from python', full(b'qel-service'))
data, sender = peer.recvfrom(200)
print(data.decode(), sender == full(b'qel-service'))
)"), "");
    UdpServer server("@qel-service");
    ASSERT_EQ(server.Init(), 0);
    FILE* python = popen(("python3 " + script).c_str(), "r");
    ASSERT_NE(python, nullptr);
    pollfd ready = {server.get_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 10000), 1);
    EXPECT_EQ(Receive(server), "ping from python");
    EXPECT_EQ(Send(server, "pong from qel"), 13);
    char line[256] = {};
    EXPECT_STREQ(std::fgets(line, sizeof line, python), "pong from qel True\n");
    EXPECT_EQ(pclose(python), 0);
  });
}

}  // namespace
}  // namespace qel_util
