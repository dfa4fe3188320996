#include "net/abstract_address.h"
#include "qel_util/net.h"

namespace qel_util {

UdpClient::UdpClient(const std::string& name, const std::string& serverName)
    : UdpSocket(name), m_peerAddress(AbstractAddress(serverName)) {}

UdpClient::~UdpClient() = default;

int UdpClient::Init() { return UdpSocket::Init(); }

int UdpClient::Write(const unsigned char* data, unsigned int length) {
  return UdpSocket::Write(data, length, &m_peerAddress,
                          kAbstractAddressLength);
}

int UdpClient::Read(unsigned char* buffer, unsigned int size) {
  // Whoever answers becomes the destination: the server answers from the
  // address the client built, so in normal use nothing changes.
  m_peerAddressLength = kAbstractAddressLength;
  return UdpSocket::Read(buffer, size, &m_peerAddress, &m_peerAddressLength);
}

}  // namespace qel_util
