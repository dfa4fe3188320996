// Sends one request to qel-exampled over its message queue and prints the
// answer: a second process on the same System V key.
//
//   qel-exampled-client TEXT [--key KEY]

#include <poll.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qel_util/ipc.h"

namespace {

struct QueueMessage {
  long type;
  char text[256];
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s TEXT [--key KEY]\n", argv[0]);
    return 2;
  }
  const int key = argc > 3 ? std::strtol(argv[3], nullptr, 0) : 0x51E1;
  qel_util::cMsgQHandler answers(key, 2);
  QueueMessage request{1, {}};
  std::snprintf(request.text, sizeof request.text, "%s", argv[1]);
  answers.tx(&request, sizeof(long) + std::strlen(request.text) + 1, IPC_NOWAIT);

  pollfd ready{answers.get_fd(), POLLIN, 0};
  if (poll(&ready, 1, 3000) != 1) {
    std::fprintf(stderr, "no answer within 3 s\n");
    return 1;
  }
  QueueMessage answer{};
  if (answers.rx(&answer, sizeof answer - 1, IPC_NOWAIT | MSG_NOERROR) != 0) return 1;
  std::printf("%s\n", answer.text);
  return 0;
}
