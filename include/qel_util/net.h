#ifndef QEL_UTIL_NET_H_
#define QEL_UTIL_NET_H_

/// \file
/// Local datagram sockets in the abstract namespace (AF_UNIX, SOCK_DGRAM;
/// no IP despite the names) and the IPv4 neighbour check.

#include <sys/un.h>

#include <string>

#include "qel_util/export.h"

namespace qel_util {

/// A non-blocking datagram socket bound to an abstract name. The first
/// character of a name is a marker and not part of the address; characters
/// 2 to 107 are the name. Every address is the full 110-byte sockaddr_un,
/// zero-padded, so only peers that pad the same way meet. The socket is
/// close-on-exec. The object owns its descriptor and is neither copied nor
/// moved. One thread at a time.
class QEL_UTIL_EXPORT UdpSocket {
 public:
  /// Creates nothing; call Init.
  explicit UdpSocket(const std::string& name);
  /// Closes the descriptor; the name is free again at once.
  virtual ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;             ///< Not copyable.
  UdpSocket& operator=(const UdpSocket&) = delete;  ///< Not copyable.

  /// Creates and binds the socket, three attempts 100 ms apart. A socket
  /// that is already open is closed first.
  /// \return 0, or -1 ("UdpSocket: socket" / "UdpSocket: bind" reported with
  /// perror); the object then holds no socket.
  virtual int Init();
  /// Sends `length` bytes to the class's peer; as the four-argument Write.
  virtual int Write(const unsigned char* data, unsigned int length) = 0;
  /// Receives one datagram into `buffer`; as the four-argument Read.
  virtual int Read(unsigned char* buffer, unsigned int size) = 0;

  /// sendto with MSG_DONTWAIT to `to` (`toLength` bytes of it).
  /// \return the byte count, or -1 with errno; -1 without a system call
  /// when the socket is not open.
  int Write(const unsigned char* data, unsigned int length,
            sockaddr_un* to, unsigned int toLength);
  /// recvfrom with MSG_DONTWAIT; the sender goes to `from` and its length to
  /// `fromLength` (in: room in `from`).
  /// \return the byte count (a longer datagram is cut to `size`), or -1 with
  /// errno (EAGAIN when nothing waits); -1 without a system call when the
  /// socket is not open.
  int Read(unsigned char* buffer, unsigned int size, sockaddr_un* from,
           unsigned int* fromLength);

  /// The descriptor for select/poll, -1 when not open. Still owned here.
  int get_fd() const;

 protected:
  int m_fd;                ///< The socket, -1 when not open.
  std::string m_name;      ///< The name given at construction.
  sockaddr_un m_address;   ///< The bound address, once Init made it.
};

/// Answers whoever sent to it last.
class QEL_UTIL_EXPORT UdpServer : public UdpSocket {
 public:
  /// Creates nothing; call Init. No peer is known yet.
  explicit UdpServer(const std::string& name);
  /// Closes the descriptor.
  ~UdpServer() override;

  using UdpSocket::Read;
  using UdpSocket::Write;
  /// To the sender of the last datagram received; -1 without a system call
  /// while none was.
  int Write(const unsigned char* data, unsigned int length) override;
  /// Receives one datagram and remembers its sender for Write. A Read that
  /// receives nothing (-1, e.g. EAGAIN) keeps the previous sender, address
  /// and length alike, so that Write still reaches a peer whose address is
  /// shorter than the full 110 bytes.
  int Read(unsigned char* buffer, unsigned int size) override;

 protected:
  sockaddr_un m_peerAddress;         ///< The last sender.
  unsigned int m_peerAddressLength;  ///< Its length; 0 while none is known.
};

/// Sends to one server, named at construction; binds its own name too so that
/// the server can answer.
class QEL_UTIL_EXPORT UdpClient : public UdpSocket {
 public:
  /// Creates nothing; call Init. `serverName` follows the same rule as
  /// `name`.
  UdpClient(const std::string& name, const std::string& serverName);
  /// Closes the descriptor.
  ~UdpClient() override;

  /// As UdpSocket::Init.
  int Init() override;
  using UdpSocket::Read;
  using UdpSocket::Write;
  /// To the server, or to whoever answered last.
  int Write(const unsigned char* data, unsigned int length) override;
  /// Receives one datagram; its sender becomes the destination of later
  /// writes (the server answers from the address the client built, so in
  /// normal use nothing changes).
  int Read(unsigned char* buffer, unsigned int size) override;

 protected:
  sockaddr_un m_peerAddress;         ///< The destination of Write.
  /// Length of the last answer's sender; Write always sends to the full
  /// 110-byte address.
  unsigned int m_peerAddressLength;
};

/// How the neighbour with this IPv4 address (text; may carry ":port") is
/// reached, from "/proc/net/arp" and, behind a bridge "br<digit>", the output
/// of "/sbin/bridge fdb show br <bridge>".
///
/// A bridge whose name holds anything but letters, digits and `_.:-`, or
/// longer than 15 characters, is never looked up: such a name would reach
/// the shell, so 0 is returned and nothing is run. Thread-safe.
/// \return 2 when reached through a role interface ("ap", "client" or "mesh"
/// and a digit); 1 through any other; 0 when unknown (also for null).
/// \throws std::runtime_error("popen() failed!") when the bridge tool cannot
/// be started.
QEL_UTIL_EXPORT int CheckIPv4Address(const char* address);

}  // namespace qel_util

#endif  // QEL_UTIL_NET_H_
