#include "user_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sandbox.h"

namespace qel_devsim {

std::string CheckRegularFile(const std::string& path, bool mayBeMissing) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    return errno == ENOENT && mayBeMissing ? "" : path + ": " + std::strerror(errno);
  return S_ISREG(st.st_mode) ? "" : path + ": not a regular file";
}

std::string CheckPlainPath(const std::string& path) {
  for (unsigned char c : path)
    if (c <= ' ' || c == 0x7f)
      return path + ": a path with white space or control characters";
  return "";
}

namespace {

// The folder `name` below `dir` (made when missing), held open without
// following a link.
std::string OpenOwnFolder(int dir, const std::string& shown, const char* name,
                          int* fd, std::vector<std::string>* made) {
  if (mkdirat(dir, name, 0755) == 0)
    made->push_back(shown);
  else if (errno != EEXIST)
    return "mkdir " + shown + ": " + std::strerror(errno);
  *fd = openat(dir, name, O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
  struct stat st;
  if (*fd < 0)
    return shown + ": " + (errno == ENOTDIR || errno == ELOOP
                               ? "not a folder (a link?)"
                               : std::strerror(errno));
  if (fstat(*fd, &st) == 0 && st.st_uid == getuid() && (st.st_mode & 022) == 0) return "";
  close(*fd);
  *fd = -1;
  return shown + ": not owned by this user alone (owner and mode)";
}

}  // namespace

std::string OpenKeptDirs(const std::string& dir, KeptDirs* kept,
                         std::vector<std::string>* made) {
  std::string why = MakeDirs(dir, 0755, made);
  if (!why.empty()) return why;
  const int fd = open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return dir + ": " + std::strerror(errno);
  why = OpenOwnFolder(fd, dir + "/run", "run", &kept->run, made);
  if (why.empty()) why = OpenOwnFolder(fd, dir + "/log", "log", &kept->log, made);
  close(fd);
  return why;
}

std::string BindKept(int held, const std::string& path, const std::string& target) {
  const int fd = open(path.c_str(), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
  struct stat now, then;
  std::string why;
  if (fd < 0 || fstat(fd, &now) != 0 || fstat(held, &then) != 0)
    why = path + ": " + std::strerror(errno);
  else if (now.st_dev != then.st_dev || now.st_ino != then.st_ino)
    why = path + ": replaced while the device was set up";
  else
    why = Bind("/proc/self/fd/" + std::to_string(fd), target);
  if (fd >= 0) close(fd);
  return why;
}

}  // namespace qel_devsim
