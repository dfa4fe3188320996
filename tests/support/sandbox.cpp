#include "support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qel_test {
namespace {

constexpr int kSkipStatus = 77;
constexpr int kSetupFailedStatus = 76;

std::string Failed(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

bool WriteWhole(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) ==
            static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

std::string EnterNamespaces(const SandboxOptions& options) {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid != 0) {
    // A non-root developer gets root inside a user namespace of its own.
    if (unshare(CLONE_NEWUSER) != 0) {
      // The kernel refuses a user namespace to a process with more than one
      // thread; under qemu-user the emulator's own threads are always there.
      if (errno == EINVAL)
        return Failed("unshare(CLONE_NEWUSER)") +
               " (the process is not single-threaded, e.g. under qemu-user;"
               " run as root)";
      return Failed("unshare(CLONE_NEWUSER)");
    }
    WriteWhole("/proc/self/setgroups", "deny");
    if (!WriteWhole("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1"))
      return Failed("uid_map");
    if (!WriteWhole("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
      return Failed("gid_map");
  }
  int flags = CLONE_NEWNS | CLONE_NEWIPC;
  if (options.network) flags |= CLONE_NEWNET;
  if (options.pid) flags |= CLONE_NEWPID;
  if (unshare(flags) != 0) return Failed("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Failed("making / private");
  return "";
}

std::string MountTmpfsAt(const char* dir) {
  if (mount("tmpfs", dir, "tmpfs", 0, "mode=0755") != 0)
    return Failed(std::string("tmpfs on ") + dir);
  return "";
}

// A private /dev keeps the host's device nodes but lets a test own /dev/log.
std::string PrivateDev() {
  const char* kStage = "/mnt/.hostdev";
  if (mkdir(kStage, 0755) != 0) return Failed("mkdir stage");
  if (mount("/dev", kStage, nullptr, MS_BIND | MS_REC, nullptr) != 0)
    return Failed("binding /dev");
  std::string why = MountTmpfsAt("/dev");
  if (!why.empty()) return why;
  for (const char* node : {"null", "zero", "full", "random", "urandom", "tty",
                           "ptmx"}) {
    std::string from = std::string(kStage) + "/" + node;
    std::string to = std::string("/dev/") + node;
    int fd = open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) close(fd);
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0)
      return Failed("binding " + to);
  }
  mkdir("/dev/pts", 0755);
  mount((std::string(kStage) + "/pts").c_str(), "/dev/pts", nullptr,
        MS_BIND | MS_REC, nullptr);
  mkdir("/dev/shm", 01777);
  mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777");
  symlink("/proc/self/fd", "/dev/fd");
  symlink("/proc/self/fd/0", "/dev/stdin");
  symlink("/proc/self/fd/1", "/dev/stdout");
  symlink("/proc/self/fd/2", "/dev/stderr");
  umount2(kStage, MNT_DETACH);
  rmdir(kStage);
  return "";
}

std::string PrepareFileSystem() {
  for (const char* dir : {"/mnt", "/run", "/home"}) {
    std::string why = MountTmpfsAt(dir);
    if (!why.empty()) return why;
  }
  return PrivateDev();
}

void LoopbackUp() {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  if (ioctl(fd, SIOCGIFFLAGS, &request) == 0) {
    request.ifr_flags |= IFF_UP;
    ioctl(fd, SIOCSIFFLAGS, &request);
  }
  close(fd);
}

int WaitForExit(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

[[noreturn]] void RunChild(const std::function<void()>& body,
                           const SandboxOptions& options) {
  std::string why = EnterNamespaces(options);
  if (options.pid && why.empty()) {
    // Only children of the caller enter the new PID namespace.
    pid_t inner = fork();
    if (inner < 0) {
      why = Failed("fork into the PID namespace");
    } else if (inner > 0) {
      int status = WaitForExit(inner);
      _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    } else if (mount("proc", "/proc", "proc", 0, nullptr) != 0) {
      why = Failed("mounting /proc");
    }
  }
  if (why.empty()) why = PrepareFileSystem();
  if (!why.empty()) {
    std::fprintf(stderr, "sandbox: %s\n", why.c_str());
    _exit(kSetupFailedStatus);
  }
  if (options.network) LoopbackUp();

  const std::string before = OpenDescriptors();
  try {
    body();
  } catch (const std::exception& e) {
    ADD_FAILURE() << "the sandboxed body threw: " << e.what();
  } catch (...) {
    ADD_FAILURE() << "the sandboxed body threw";
  }
  const std::string after = OpenDescriptors();
  EXPECT_EQ(before, after) << "descriptors leaked inside the sandbox";
  std::fflush(nullptr);
  if (::testing::Test::HasFailure()) _exit(1);
  _exit(::testing::Test::IsSkipped() ? kSkipStatus : 0);
}

std::string Probe() {
  int channel[2];
  if (pipe2(channel, O_CLOEXEC) != 0) return Failed("pipe");
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    close(channel[0]);
    close(channel[1]);
    return Failed("fork");
  }
  if (pid == 0) {
    close(channel[0]);
    SandboxOptions all;
    all.network = true;
    all.pid = true;
    std::string why = EnterNamespaces(all);
    if (why.empty()) why = PrepareFileSystem();
    if (write(channel[1], why.data(), why.size()) < 0) _exit(2);
    _exit(0);
  }
  close(channel[1]);
  std::string why;
  char chunk[256];
  ssize_t n;
  while ((n = read(channel[0], chunk, sizeof chunk)) > 0) why.append(chunk, n);
  close(channel[0]);
  WaitForExit(pid);
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
  ASSERT_TRUE(WIFEXITED(status))
      << "the sandboxed body died with signal "
      << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  if (WEXITSTATUS(status) == kSkipStatus) GTEST_SKIP() << "skipped inside";
  ASSERT_NE(WEXITSTATUS(status), kSetupFailedStatus)
      << "the sandbox could not be set up (see above)";
  EXPECT_EQ(WEXITSTATUS(status), 0)
      << "the sandboxed body failed (its messages are above)";
}

std::string ScratchPath(const std::string& name) { return "/mnt/" + name; }

bool WriteFile(const std::string& path, const std::string& content,
               unsigned mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) {
    ADD_FAILURE() << Failed("creating " + path);
    return false;
  }
  bool ok = write(fd, content.data(), content.size()) ==
            static_cast<ssize_t>(content.size());
  ok = fchmod(fd, mode) == 0 && ok;
  close(fd);
  if (!ok) ADD_FAILURE() << Failed("writing " + path);
  return ok;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool MakeDirs(const std::string& path, unsigned mode) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) {
      ADD_FAILURE() << Failed("mkdir " + part);
      return false;
    }
    if (slash == std::string::npos) return true;
  }
}

bool MountTmpfs(const std::string& dir) {
  std::string why = MountTmpfsAt(dir.c_str());
  if (!why.empty()) ADD_FAILURE() << why;
  return why.empty();
}

namespace {

bool OnSandboxTmpfs(const std::string& path) {
  for (const char* root : {"/mnt", "/run", "/home", "/dev"}) {
    size_t n = std::strlen(root);
    if (path.compare(0, n, root) == 0 && (path.size() == n || path[n] == '/'))
      return true;
  }
  return false;
}

// Makes `dir` writable without touching the host: an overlay whose upper
// layer lives in the scratch tmpfs.
bool OverlayDir(const std::string& dir) {
  static int count = 0;
  std::string base = ScratchPath(".overlay" + std::to_string(++count));
  if (!MakeDirs(base + "/upper") || !MakeDirs(base + "/work")) return false;
  std::string options = "lowerdir=" + dir + ",upperdir=" + base +
                        "/upper,workdir=" + base + "/work";
  if (mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) != 0) {
    ADD_FAILURE() << Failed("overlay on " + dir);
    return false;
  }
  return true;
}

std::string Parent(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool MountFile(const std::string& target, const std::string& content,
               unsigned mode) {
  static int count = 0;
  struct stat st;
  if (stat(target.c_str(), &st) != 0) {
    std::string ancestor = Parent(target);
    while (stat(ancestor.c_str(), &st) != 0) ancestor = Parent(ancestor);
    if (!OnSandboxTmpfs(ancestor) && !OverlayDir(ancestor)) return false;
    if (!MakeDirs(Parent(target))) return false;
    return WriteFile(target, content, mode);
  }
  std::string fixture = ScratchPath(".fixture" + std::to_string(++count));
  if (!WriteFile(fixture, content, mode)) return false;
  if (mount(fixture.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    ADD_FAILURE() << Failed("binding over " + target);
    return false;
  }
  return true;
}

bool MountScript(const std::string& target, const std::string& script) {
  std::string text = script.compare(0, 2, "#!") == 0 ? script
                                                     : "#!/bin/sh\n" + script;
  return MountFile(target, text, 0755);
}

int Shell(const std::string& command, std::string* output) {
  std::fflush(nullptr);
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) text.append(chunk, n);
  int status = pclose(pipe);
  if (output != nullptr) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string OpenDescriptors() {
  std::string list;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return list;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(dir)) continue;
    char target[512] = {};
    std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof target - 1) < 0) continue;
    list += std::string(entry->d_name) + " -> " + target + "\n";
  }
  closedir(dir);
  return list;
}

}  // namespace qel_test
