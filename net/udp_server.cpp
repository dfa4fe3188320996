#include "net/abstract_address.h"
#include "qel_util/net.h"

namespace qel_util {

UdpServer::UdpServer(const std::string& name)
    : UdpSocket(name), m_peerAddressLength(0) {}

UdpServer::~UdpServer() = default;

int UdpServer::Write(const unsigned char* data, unsigned int length) {
  if (m_peerAddressLength == 0) return -1;
  return UdpSocket::Write(data, length, &m_peerAddress, m_peerAddressLength);
}

int UdpServer::Read(unsigned char* buffer, unsigned int size) {
  // A Read that receives nothing leaves the address untouched, so it must
  // leave the length too: otherwise a server that has not heard from anyone
  // yet would answer to an address that was never filled in.
  const unsigned int knownPeerLength = m_peerAddressLength;
  m_peerAddressLength = kAbstractAddressLength;
  const int received =
      UdpSocket::Read(buffer, size, &m_peerAddress, &m_peerAddressLength);
  if (received < 0) m_peerAddressLength = knownPeerLength;
  return received;
}

}  // namespace qel_util
