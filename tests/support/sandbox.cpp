#include "support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
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

bool Bind(const std::string& from, const std::string& to, int flags = 0) {
  return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | flags, nullptr) == 0;
}

std::string Tmpfs(const std::string& dir, const char* mode = "mode=0755") {
  return mount("tmpfs", dir.c_str(), "tmpfs", 0, mode) == 0
             ? "" : Failed("tmpfs on " + dir);
}

std::string EnterNamespaces(const SandboxOptions& options) {
  const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
  auto put = [](const char* path, const std::string& text) {
    return (std::ofstream(path) << text).flush().good();
  };
  if (uid != "0") {  // root inside a user namespace of our own
    if (unshare(CLONE_NEWUSER) != 0)
      return Failed("unshare(CLONE_NEWUSER)") +
             (errno == EINVAL ? " (the process is not single-threaded, e.g."
                                " under qemu-user; run as root)" : "");
    put("/proc/self/setgroups", "deny");
    if (!put("/proc/self/uid_map", "0 " + uid + " 1") ||
        !put("/proc/self/gid_map", "0 " + gid + " 1"))
      return Failed("mapping the user");
  }
  if (unshare(CLONE_NEWNS | CLONE_NEWIPC | (options.network ? CLONE_NEWNET : 0) |
              (options.pid ? CLONE_NEWPID : 0)) != 0)
    return Failed("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Failed("making / private");
  return "";
}

// "/dev" becomes a tmpfs, where a test can own "/dev/log", with the host's
// nodes bound in from a stage.
std::string PrepareFileSystem() {
  std::string why;
  for (const char* dir : {"/mnt", "/run", "/home"})
    if (why.empty()) why = Tmpfs(dir);
  const std::string stage = "/mnt/.hostdev";
  if (why.empty() && (mkdir(stage.c_str(), 0755) || !Bind("/dev", stage, MS_REC)))
    why = Failed("binding /dev");
  if (!why.empty() || !(why = Tmpfs("/dev")).empty()) return why;
  for (std::string node : {"null", "zero", "full", "random", "urandom", "tty",
                           "ptmx"}) {
    close(open(("/dev/" + node).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (!Bind(stage + "/" + node, "/dev/" + node)) return Failed("bind " + node);
  }
  mkdir("/dev/pts", 0755);
  Bind(stage + "/pts", "/dev/pts", MS_REC);
  mkdir("/dev/shm", 01777);
  Tmpfs("/dev/shm", "mode=1777");
  const char* links[][2] = {{"", "fd"}, {"/0", "stdin"}, {"/1", "stdout"},
                            {"/2", "stderr"}};
  for (auto& link : links)
    symlink((std::string("/proc/self/fd") + link[0]).c_str(),
            (std::string("/dev/") + link[1]).c_str());
  umount2(stage.c_str(), MNT_DETACH);
  rmdir(stage.c_str());
  return "";
}

int WaitForExit(pid_t pid) {
  int status = -1;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
  return status;
}

[[noreturn]] void RunChild(const std::function<void()>& body,
                           const SandboxOptions& options) {
  std::string why = EnterNamespaces(options);
  if (options.pid && why.empty()) {
    pid_t inner = fork();  // only children enter the new PID namespace
    if (inner > 0) {
      int status = WaitForExit(inner);
      _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    }
    if (inner < 0 || mount("proc", "/proc", "proc", 0, nullptr) != 0)
      why = Failed("a PID namespace with its /proc");
  }
  if (why.empty()) why = PrepareFileSystem();
  if (why.empty() && options.network && Shell("ip link set lo up") != 0)
    why = "cannot bring lo up";
  if (!why.empty()) {
    std::fprintf(stderr, "sandbox: %s\n", why.c_str());
    _exit(kSetupFailedStatus);
  }
  const std::string before = OpenDescriptors();
  try {
    body();
  } catch (const std::exception& e) {
    ADD_FAILURE() << "the sandboxed body threw: " << e.what();
  } catch (...) {
    ADD_FAILURE() << "the sandboxed body threw";
  }
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
  if (shared == MAP_FAILED) return Failed("mmap");
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    std::string why = EnterNamespaces({true, true});
    if (why.empty()) why = PrepareFileSystem();
    std::strncpy(static_cast<char*>(shared), why.c_str(), kSize - 1);
    _exit(0);
  }
  const std::string why =
      pid < 0 ? Failed("fork") : (WaitForExit(pid), static_cast<char*>(shared));
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

std::string ScratchPath(const std::string& name) { return "/mnt/" + name; }

bool WriteFile(const std::string& path, const std::string& content,
               unsigned mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  bool ok = fd >= 0 && fchmod(fd, mode) == 0 &&
            write(fd, content.data(), content.size()) == ssize_t(content.size());
  if (!ok) ADD_FAILURE() << Failed("writing " + path);
  if (fd >= 0) close(fd);
  return ok;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
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
  const std::string why = Tmpfs(dir);
  EXPECT_EQ(why, "");
  return why.empty();
}

bool MountFile(const std::string& target, const std::string& content,
               unsigned mode) {
  static int count = 0;
  const std::string scratch = ScratchPath(".fixture" + std::to_string(++count));
  auto parent = [](const std::string& path) {
    return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
  };
  struct stat st;
  std::string dir = target;
  while (stat(dir.c_str(), &st) != 0) dir = parent(dir);
  if (dir == target) {
    if (!WriteFile(scratch, content, mode)) return false;
    if (Bind(scratch, target)) return true;
    ADD_FAILURE() << Failed("binding over " + target);
    return false;
  }
  bool sandboxed = false;  // on a private tmpfs already
  for (std::string root : {"/mnt/", "/run/", "/home/", "/dev/"})
    sandboxed |= (dir + "/").compare(0, root.size(), root) == 0;
  if (!sandboxed) {  // an overlay keeps the new file off the host
    if (!MakeDirs(scratch + "/upper") || !MakeDirs(scratch + "/work"))
      return false;
    const std::string layers = "lowerdir=" + dir + ",upperdir=" + scratch +
                               "/upper,workdir=" + scratch + "/work";
    if (mount("overlay", dir.c_str(), "overlay", 0, layers.c_str()) != 0) {
      ADD_FAILURE() << Failed("overlay on " + dir);
      return false;
    }
  }
  return MakeDirs(parent(target)) && WriteFile(target, content, mode);
}

bool MountScript(const std::string& target, const std::string& script) {
  return MountFile(target, script.compare(0, 2, "#!") == 0
                               ? script : "#!/bin/sh\n" + script, 0755);
}

int Shell(const std::string& command, std::string* output) {
  std::fflush(nullptr);
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char chunk[4096];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
    text.append(chunk, n);
  const int status = pclose(pipe);
  if (output != nullptr) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
