#include "support/sandbox.h"

#include <dirent.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "devsim/network.h"

namespace qel_test {
namespace {

constexpr int kSkipStatus = 77;
constexpr int kSetupFailedStatus = 76;

// The tools' sandbox, with /mnt as scratch and /run and /home emptied.
std::string PrepareFileSystem() {
  std::string why;
  for (const char* dir : {"/mnt", "/run", "/home"})
    if (why.empty()) why = qel_devsim::MountTmpfs(dir);
  return why.empty() ? qel_devsim::PrivateDev() : why;
}

int WaitForExit(pid_t pid) {
  int status = -1;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
  return status;
}

[[noreturn]] void RunChild(const std::function<void()>& body,
                           const SandboxOptions& options) {
  std::string why = qel_devsim::EnterNamespaces({options.network, options.pid});
  if (options.pid && why.empty()) {
    pid_t inner = fork();  // only children enter the new PID namespace
    if (inner > 0) {
      int status = WaitForExit(inner);
      _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    }
    if (inner < 0 || mount("proc", "/proc", "proc", 0, nullptr) != 0)
      why = "a PID namespace with its /proc: " + std::string(std::strerror(errno));
  }
  if (why.empty()) why = PrepareFileSystem();
  if (why.empty() && options.network) why = qel_devsim::LoopbackUp();
  if (!why.empty()) {
    std::fprintf(stderr, "sandbox: %s\n", why.c_str());
    _exit(kSetupFailedStatus);
  }
  const std::string before = OpenDescriptors();
  body();  // one that throws dies by std::terminate, which names what
  EXPECT_EQ(before, OpenDescriptors()) << "descriptors leaked in the sandbox";
  std::fflush(nullptr);
  _exit(testing::Test::HasFailure() ? 1
        : testing::Test::IsSkipped() ? kSkipStatus : 0);
}

// Tries every namespace in a child, which leaves why not in shared memory.
std::string Probe() {
  constexpr size_t kSize = 512;
  void* shared = mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return std::string("mmap: ") + std::strerror(errno);
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    std::string why = qel_devsim::EnterNamespaces({true, true});
    if (why.empty()) why = PrepareFileSystem();
    std::strncpy(static_cast<char*>(shared), why.c_str(), kSize - 1);
    _exit(0);
  }
  const std::string why = pid < 0 ? std::string("fork failed")
                                  : (WaitForExit(pid), static_cast<char*>(shared));
  munmap(shared, kSize);
  return why;
}

}  // namespace

const std::string& SandboxUnavailable() {
  static const std::string reason = Probe();
  return reason;
}

void RunInSandbox(const std::function<void()>& body, SandboxOptions options) {
  std::fflush(nullptr);
  pid_t pid = fork();
  ASSERT_GE(pid, 0) << std::strerror(errno);
  if (pid == 0) RunChild(body, options);
  int status = WaitForExit(pid);
  ASSERT_TRUE(WIFEXITED(status)) << "the sandboxed body died with signal "
                                 << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  if (WEXITSTATUS(status) == kSkipStatus) GTEST_SKIP() << "skipped inside";
  ASSERT_NE(WEXITSTATUS(status), kSetupFailedStatus)
      << "the sandbox could not be set up (see above)";
  EXPECT_EQ(WEXITSTATUS(status), 0)
      << "the sandboxed body failed (its messages are above)";
}

int Reap(pid_t pid) {
  int status = 0;
  pid_t done = 0;
  for (int i = 0; pid > 0 && i < 6000 && (done = waitpid(pid, &status, WNOHANG)) == 0; ++i)
    usleep(10000);
  if (done == 0) {
    if (pid > 0 && kill(pid, SIGKILL) == 0) ADD_FAILURE() << "process " << pid << " hung";
    done = waitpid(pid, &status, 0);
  }
  return done < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 3000 && !done(); ++i) usleep(10000);
  return done();
}

std::string OpenDescriptors() {
  std::string list;
  DIR* dir = opendir("/proc/self/fd");
  while (dirent* entry = dir ? readdir(dir) : nullptr) {
    char target[512] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(dir) &&
        readlink(link.c_str(), target, sizeof target - 1) >= 0)
      list += std::string(entry->d_name) + " -> " + target + "\n";
  }
  if (dir) closedir(dir);
  return list;
}

}  // namespace qel_test
