#ifndef QEL_UTIL_NET_H_
#define QEL_UTIL_NET_H_

// Local datagram sockets in the abstract namespace (AF_UNIX, SOCK_DGRAM;
// no IP despite the names) and the IPv4 neighbour check.

#include <sys/un.h>

#include <string>

#include "qel_util/export.h"

namespace qel_util {

// A non-blocking datagram socket bound to an abstract name. The first
// character of a name is a marker and not part of the address; characters
// 2 to 107 are the name. The object owns its descriptor and is neither
// copied nor moved. One thread at a time.
class QEL_UTIL_EXPORT UdpSocket {
 public:
  // Creates nothing; call Init.
  explicit UdpSocket(const std::string& name);
  // Closes the descriptor; the name is free again at once.
  virtual ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // Creates and binds the socket, three attempts 100 ms apart; 0 or -1
  // ("UdpSocket: socket" / "UdpSocket: bind" reported with perror).
  // A socket that is already open is closed first.
  virtual int Init();
  virtual int Write(const unsigned char* data, unsigned int length) = 0;
  virtual int Read(unsigned char* buffer, unsigned int size) = 0;

  // sendto/recvfrom with MSG_DONTWAIT: byte count, or -1 with errno
  // (EAGAIN when nothing waits); -1 without a system call when not open.
  int Write(const unsigned char* data, unsigned int length,
            sockaddr_un* to, unsigned int toLength);
  int Read(unsigned char* buffer, unsigned int size, sockaddr_un* from,
           unsigned int* fromLength);

  // The descriptor for select/poll, -1 when not open. Still owned here.
  int get_fd() const;

 protected:
  int m_fd;
  std::string m_name;
  sockaddr_un m_address;
};

// Answers whoever sent to it last.
class QEL_UTIL_EXPORT UdpServer : public UdpSocket {
 public:
  explicit UdpServer(const std::string& name);
  ~UdpServer() override;

  using UdpSocket::Read;
  using UdpSocket::Write;
  // To the sender of the last datagram received; -1 while none was.
  int Write(const unsigned char* data, unsigned int length) override;
  int Read(unsigned char* buffer, unsigned int size) override;

 protected:
  sockaddr_un m_peerAddress;
  unsigned int m_peerAddressLength;
};

// Sends to one server, named at construction; binds its own name too so that
// the server can answer.
class QEL_UTIL_EXPORT UdpClient : public UdpSocket {
 public:
  UdpClient(const std::string& name, const std::string& serverName);
  ~UdpClient() override;

  int Init() override;
  using UdpSocket::Read;
  using UdpSocket::Write;
  int Write(const unsigned char* data, unsigned int length) override;
  // Stores the sender as the destination of later writes.
  int Read(unsigned char* buffer, unsigned int size) override;

 protected:
  sockaddr_un m_peerAddress;
  unsigned int m_peerAddressLength;
};

// How the neighbour with this IPv4 address (text; may carry ":port") is
// reached, from "/proc/net/arp" and, behind a bridge "br<digit>", the output
// of "/sbin/bridge fdb show br <bridge>": 2 through a role interface
// ("ap", "client" or "mesh" and a digit), 1 through any other, 0 unknown.
// Throws std::runtime_error("popen() failed!") when the bridge tool cannot
// be started.
QEL_UTIL_EXPORT int CheckIPv4Address(const char* address);

}  // namespace qel_util

#endif  // QEL_UTIL_NET_H_
