#include "sandbox.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace qel_devsim {
namespace {

std::string Failed(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

// The directories this process covered with a tmpfs: files below them are
// private already and need no overlay.
std::vector<std::string>& PrivateRoots() {
  static std::vector<std::string> roots;
  return roots;
}

bool IsPrivate(const std::string& dir) {
  for (const std::string& root : PrivateRoots())
    if ((dir + "/").compare(0, root.size() + 1, root + "/") == 0) return true;
  return false;
}

std::string Parent(const std::string& path) {
  return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
}

}  // namespace

std::string EnterNamespaces(const Namespaces& namespaces) {
  const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
  auto put = [](const char* path, const std::string& text) {
    return (std::ofstream(path) << text).flush().good();
  };
  if (uid != "0") {  // root inside a user namespace of our own
    if (unshare(CLONE_NEWUSER) != 0)
      return Failed("unshare(CLONE_NEWUSER)") +
             (errno == EINVAL ? " (the process is not single-threaded, e.g."
                                " under qemu-user; run as root)"
              : errno == EPERM || errno == ENOSPC
                  ? " (unprivileged user namespaces are off here; run as"
                    " root or allow them: sysctl kernel.unprivileged_userns_clone=1)"
                  : "");
    put("/proc/self/setgroups", "deny");
    if (!put("/proc/self/uid_map", "0 " + uid + " 1") ||
        !put("/proc/self/gid_map", "0 " + gid + " 1"))
      return Failed("mapping the user");
  }
  if (unshare(CLONE_NEWNS | CLONE_NEWIPC |
              (namespaces.network ? CLONE_NEWNET : 0) |
              (namespaces.pid ? CLONE_NEWPID : 0) |
              (namespaces.uts ? CLONE_NEWUTS : 0)) != 0)
    return Failed("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Failed("making / private");
  return "";
}

std::string MountTmpfs(const std::string& dir, const char* options) {
  if (mount("tmpfs", dir.c_str(), "tmpfs", 0, options) != 0)
    return Failed("tmpfs on " + dir);
  PrivateRoots().push_back(dir);
  return "";
}

std::string Bind(const std::string& from, const std::string& to) {
  return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0
             ? "" : Failed("binding " + from + " over " + to);
}

std::string PrivateDev() {
  // The host's nodes stay reachable through a descriptor of the old /dev.
  const int host = open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (host < 0) return Failed("/dev");
  const std::string from = "/proc/self/fd/" + std::to_string(host) + "/";
  std::string why = MountTmpfs("/dev", kDevTmpfs);
  for (std::string node : {"null", "zero", "full", "random", "urandom", "tty",
                           "ptmx"}) {
    close(open(("/dev/" + node).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (why.empty()) why = Bind(from + node, "/dev/" + node);
  }
  mkdir("/dev/pts", 0755);
  Bind(from + "pts", "/dev/pts");  // none in some containers
  mkdir("/dev/shm", 01777);
  if (why.empty()) why = MountTmpfs("/dev/shm", kShmTmpfs);
  close(host);
  const char* links[][2] = {{"", "fd"}, {"/0", "stdin"}, {"/1", "stdout"},
                            {"/2", "stderr"}};
  for (auto& link : links)
    symlink((std::string("/proc/self/fd") + link[0]).c_str(),
            (std::string("/dev/") + link[1]).c_str());
  return why;
}

std::string WriteFile(const std::string& path, const std::string& content,
                      unsigned mode) {
  // Only a new file gets `mode`: an existing one may be the user's, and it is
  // written only when it is a regular file, never a device node or a FIFO
  // named by mistake (O_NONBLOCK keeps a FIFO from hanging the open).
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  const bool made = fd >= 0;
  if (!made && errno == EEXIST)
    fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    close(fd);
    return "writing " + path + ": not a regular file";
  }
  bool ok = fd >= 0 && (!made || fchmod(fd, mode) == 0) && ftruncate(fd, 0) == 0 &&
            write(fd, content.data(), content.size()) == ssize_t(content.size());
  std::string why = ok ? "" : Failed("writing " + path);
  if (fd >= 0) close(fd);
  return why;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::string MakeDirs(const std::string& path, unsigned mode,
                     std::vector<std::string>* made) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), mode) == 0) {
      if (made) made->push_back(part);
    } else if (errno != EEXIST) {
      return Failed("mkdir " + part);
    }
    if (slash == std::string::npos) return "";
  }
}

std::string PlaceFile(const std::string& scratch, const std::string& target,
                      const std::string& content, unsigned mode) {
  static int count = 0;
  const std::string file = scratch + "/.fixture" + std::to_string(++count);
  struct stat st;
  std::string dir = target;
  while (stat(dir.c_str(), &st) != 0) dir = Parent(dir);
  std::string why;
  if (dir == target) {
    if ((why = WriteFile(file, content, mode)).empty()) why = Bind(file, target);
    return why;
  }
  if (!IsPrivate(dir)) {  // an overlay keeps the new file off the host
    if (!(why = MakeDirs(file + "/upper")).empty() ||
        !(why = MakeDirs(file + "/work")).empty())
      return why;
    const std::string layers = "lowerdir=" + dir + ",upperdir=" + file +
                               "/upper,workdir=" + file + "/work";
    if (mount("overlay", dir.c_str(), "overlay", 0, layers.c_str()) != 0)
      return Failed("overlay on " + dir);
  }
  if (!(why = MakeDirs(Parent(target))).empty()) return why;
  return WriteFile(target, content, mode);
}

std::string PlaceScript(const std::string& scratch, const std::string& target,
                        const std::string& script) {
  return PlaceFile(scratch, target,
                   script.compare(0, 2, "#!") == 0 ? script : "#!/bin/sh\n" + script,
                   0755);
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

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace qel_devsim
