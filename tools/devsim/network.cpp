#include "network.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qel_devsim {

std::string ParseNeighbour(const std::string& text, Neighbour* neighbour) {
  const size_t equals = text.find('=');
  const std::string address = text.substr(0, equals);
  const std::string kind = equals == std::string::npos ? "" : text.substr(equals + 1);
  in_addr parsed;
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1)
    return "not an IPv4 address: " + address;
  if (kind != "role" && kind != "other" && kind != "none")
    return "want ADDRESS=role|other|none, not " + text;
  neighbour->address = address;
  neighbour->answer = kind == "role" ? 2 : kind == "other" ? 1 : 0;
  return "";
}

std::string LoopbackUp() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  const bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
                  (request.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
  const std::string why = up ? "" : std::string("bringing lo up: ") + std::strerror(errno);
  if (fd >= 0) close(fd);
  return why;
}

std::vector<Neighbour> DefaultNeighbours() {
  return {{"192.168.10.2", 2}, {"192.168.10.3", 1}, {"192.168.10.4", 0}};
}

std::string NetworkScript(const std::vector<Neighbour>& neighbours) {
  std::string script =
      "set -e\n"
      "ip link add br0 type bridge\nip link set br0 up\n"
      "for dev in ap0 client1 eth0 eth1; do\n"
      "  ip link add \"$dev\" type veth peer name \"p-$dev\"\n"
      "  ip link set \"p-$dev\" up; ip link set \"$dev\" up\ndone\n"
      "ip link set client1 master br0; ip link set eth1 master br0\n";
  int index = 0;
  for (const Neighbour& n : neighbours) {
    char mac[18];
    ++index;
    std::snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", index >> 8 & 0xff,
                  index & 0xff);
    // Behind the bridge the forwarding database names the port; a neighbour
    // with no entry there is one the device cannot place.
    script += "ip neigh add " + n.address + " lladdr " + mac + " dev " +
              (n.answer == 1 ? "eth0" : "br0") + " nud permanent\n";
    if (n.answer == 2)
      script += std::string("bridge fdb add ") + mac + " dev client1 master static\n";
  }
  return script;
}

}  // namespace qel_devsim
