#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "net/abstract_address.h"
#include "qel_util/net.h"

namespace qel_util {

namespace {

constexpr int kBindAttempts = 3;
constexpr useconds_t kRetryPauseUs = 100000;

}  // namespace

UdpSocket::UdpSocket(const std::string& name) : m_fd(-1), m_name(name) {}

UdpSocket::~UdpSocket() {
  if (m_fd >= 0) close(m_fd);
}

int UdpSocket::Init() {
  // Keeping the old descriptor would keep its name bound, and every new bind
  // would then fail against ourselves.
  if (m_fd >= 0) {
    close(m_fd);
    m_fd = -1;
  }
  for (int attempt = 0; attempt < kBindAttempts; ++attempt) {
    // Commands the service runs through the shell must not inherit the
    // socket: a child outliving a restarted service would hold the name. Set
    // at creation, so that no other thread's fork can slip in before it.
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
      perror("UdpSocket: socket");
    } else {
      m_address = AbstractAddress(m_name);
      if (bind(m_fd, reinterpret_cast<const sockaddr*>(&m_address),
               kAbstractAddressLength) == 0) {
        fcntl(m_fd, F_SETFL, O_NONBLOCK);
        return 0;
      }
      // The report names why bind failed, not what close did.
      const int bindError = errno;
      close(m_fd);
      m_fd = -1;
      errno = bindError;
      perror("UdpSocket: bind");
    }
    // A name held by a socket that is just being closed, for example by a
    // restarting peer, is usually free a moment later.
    usleep(kRetryPauseUs);
  }
  return -1;
}

int UdpSocket::Write(const unsigned char* data, unsigned int length,
                     sockaddr_un* to, unsigned int toLength) {
  if (m_fd < 0) return -1;
  return static_cast<int>(sendto(m_fd, data, length, MSG_DONTWAIT,
                                 reinterpret_cast<const sockaddr*>(to),
                                 toLength));
}

int UdpSocket::Read(unsigned char* buffer, unsigned int size,
                    sockaddr_un* from, unsigned int* fromLength) {
  if (m_fd < 0) return -1;
  return static_cast<int>(recvfrom(m_fd, buffer, size, MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(from),
                                   fromLength));
}

int UdpSocket::get_fd() const { return m_fd; }

}  // namespace qel_util
