#ifndef QEL_DEVSIM_NETWORK_H_
#define QEL_DEVSIM_NETWORK_H_

// A small bridged network as the device has one: bridge br0 with the role
// port client1 and the plain port eth1, the role device ap0 and the plain
// device eth0, and neighbours that CheckIPv4Address classes as asked.

#include <string>
#include <vector>

namespace qel_devsim {

struct Neighbour {
  std::string address;  // IPv4 address
  int answer = 0;       // 2: behind the role port, 1: on eth0, 0: unknown port
};

// "ADDRESS=role", "ADDRESS=other" or "ADDRESS=none"; "" when parsed.
std::string ParseNeighbour(const std::string& text, Neighbour* neighbour);

std::vector<Neighbour> DefaultNeighbours();

// Brings the loopback interface of the current network namespace up; "" when
// done, else why not. Needs no tool, so a plain private network works on a
// machine without iproute2.
std::string LoopbackUp();

// The shell script (ip, bridge) that builds the network in the current
// network namespace.
std::string NetworkScript(const std::vector<Neighbour>& neighbours);

}  // namespace qel_devsim

#endif  // QEL_DEVSIM_NETWORK_H_
