#ifndef QEL_DEVSIM_SANDBOX_H_
#define QEL_DEVSIM_SANDBOX_H_

// Private namespaces and the file-system fixtures laid over a device's fixed
// paths. Every function returns "" on success, else what failed and why.

#include <string>
#include <vector>

namespace qel_devsim {

struct Namespaces {
  bool network = false;  // new network namespace ("lo" is left down)
  bool pid = false;      // children of the caller start a new PID namespace
  bool uts = false;      // a host name of its own
};

// Makes the caller root of a user namespace of its own when it is not root,
// then unshares mount and IPC namespaces (and the ones asked for) and makes
// every mount private, so nothing done later reaches the host.
std::string EnterNamespaces(const Namespaces& namespaces);

// Sizes of the private file systems: a program filling one meets ENOSPC
// there instead of eating the host's memory. "/dev" also holds the fixtures
// and the upper layers of every overlay.
constexpr const char* kDevTmpfs = "mode=0755,size=64m,nr_inodes=16384";
constexpr const char* kShmTmpfs = "mode=1777,size=64m,nr_inodes=4096";
constexpr const char* kRunTmpfs = "mode=0755,size=16m,nr_inodes=4096";
constexpr const char* kLogTmpfs = "mode=0755,size=64m,nr_inodes=4096";

// A tmpfs over `dir`; files placed below it later are written directly.
std::string MountTmpfs(const std::string& dir, const char* options = "mode=0755");
std::string Bind(const std::string& from, const std::string& to);

// "/dev" becomes a tmpfs holding the host's null, zero, full, random,
// urandom, tty, ptmx, pts and the std* links, so "/dev/log" and device
// nodes of our own can be made there.
std::string PrivateDev();

// A new file gets `mode`; an existing one keeps its own and is written only
// when it is a regular file.
std::string WriteFile(const std::string& path, const std::string& content,
                      unsigned mode = 0644);
std::string ReadFile(const std::string& path);  // "" when unreadable
// Each missing folder of `path`, outermost first, also listed in `made`.
std::string MakeDirs(const std::string& path, unsigned mode = 0755,
                     std::vector<std::string>* made = nullptr);

// Lays `content` at `target`: a file in `scratch` (a private tmpfs) bound
// over an existing file; a missing one is written where it belongs, under an
// overlay (layers in `scratch`) when that is on the host's file systems.
std::string PlaceFile(const std::string& scratch, const std::string& target,
                      const std::string& content, unsigned mode = 0644);
// The same as an executable shell script ("#!/bin/sh" unless it has "#!").
std::string PlaceScript(const std::string& scratch, const std::string& target,
                        const std::string& script);

// Exit status of `command` run by /bin/sh (-1 if it could not), and output.
int Shell(const std::string& command, std::string* output = nullptr);

// `text` as one single-quoted shell word.
std::string ShellQuote(const std::string& text);

}  // namespace qel_devsim

#endif  // QEL_DEVSIM_SANDBOX_H_
