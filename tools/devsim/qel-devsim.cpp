// qel-devsim: runs a program as if on the device. In private namespaces the
// kernel command line, the eMMC CID, the RPMB hardware-ID record, the
// firmware version script, I2C buses, the boot-loader environment, a bridged
// network and /dev/log are what the device would give, without changing the
// host. It is no sandbox for a program run as root. See qel-devsim(1).

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "device_files.h"
#include "network.h"
#include "options.h"
#include "program.h"
#include "sandbox.h"
#include "syslog_listener.h"
#include "user_paths.h"

namespace qel_devsim {
namespace {

constexpr int kSimulatorFailed = 125, kCannotRun = 126, kNotFound = 127;
const std::string kScratch = "/dev/.qel-devsim";

// Exit statuses as a shell gives them: a signal's death is 128 + signal.
int StatusOf(int wait) {
  return WIFEXITED(wait) ? WEXITSTATUS(wait) : 128 + WTERMSIG(wait);
}

// The signals that stop a run: the first ends the program with SIGTERM, a
// second with SIGKILL.
constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int s : kStopSignals) sigaddset(&set, s);
  return set;
}

struct Run {
  Options options;
  sigset_t mask;             // the caller's, for the program
  KeptDirs kept;             // --keep's folders, held open
  std::string program;       // absolute path
  std::string nativeLibs;    // emulators of this machine
  std::string armhfLibs;     // "" unless the program is armhf
  FILE* syslogFile = nullptr;
  bool syslogMade = false;   // the file is new
};

// An empty directory of our own at `dir`, or the kept folder `keep` (held
// open as `held`) bound there.
std::string PrivateDir(const std::string& dir, const char* options, int held,
                       const std::string& keep) {
  std::string why;
  struct stat st;
  if (stat(dir.c_str(), &st) != 0)
    why = PlaceFile(kScratch, dir + "/.qel-devsim", "");  // makes the path
  if (why.empty()) why = held < 0 ? MountTmpfs(dir, options) : BindKept(held, keep, dir);
  return why;
}

// Each loader resolves $LIB to its own library directory, so a native
// program, an armhf one under qemu and their children all find emulators
// of their own architecture through the same LD_PRELOAD.
std::string StagePreload(const Run& run) {
  std::string preload;
  const std::pair<std::string, std::string> dirs[] = {
      {"lib/" QEL_DEVSIM_MULTIARCH, run.nativeLibs}, {"lib64", run.nativeLibs},
      {"lib", run.nativeLibs}, {"lib/arm-linux-gnueabihf", run.armhfLibs}};
  for (const auto& dir : dirs) {
    if (dir.second.empty() || dir.first == "lib/") continue;
    if (!MakeDirs(kScratch + "/" + dir.first).empty()) continue;
    for (const char* name : kEmulators)
      symlink((dir.second + "/" + name).c_str(),
              (kScratch + "/" + dir.first + "/" + name).c_str());
  }
  for (const char* name : kEmulators)
    preload += (preload.empty() ? "" : ":") + kScratch + "/$LIB/" + name;
  return preload;
}

std::string SetUpDevice(const Run& run) {
  const Options& o = run.options;
  std::string why;
  auto step = [&why](const std::string& result) {
    if (why.empty()) why = result;
  };
  step(PrivateDev());
  step(MakeDirs(kScratch));
  step(PrivateDir("/var/run", kRunTmpfs, run.kept.run, o.keepDir + "/run"));
  step(PrivateDir("/home/root/log", kLogTmpfs, run.kept.log, o.keepDir + "/log"));
  if (!why.empty()) return why;
  sethostname("qel-device", 10);

  std::string barcode = o.barcode;
  if (access("/usr/bin/fw_setenv", X_OK) == 0) {
    step(SetUpBootEnvironment(kScratch,
                              o.envFile.empty() ? kScratch + "/uboot.env" : o.envFile,
                              o.barcode, &barcode));
  } else if (!o.envFile.empty()) {
    return "--env needs /usr/bin/fw_setenv (Debian: libubootenv-tool)";
  }
  const std::string cmdline =
      o.cmdlineGiven ? o.cmdline
                     : "console=ttyS0,115200 root=/dev/mmcblk0p2 rootwait" +
                           (barcode.empty() ? "" : " barcode=" + barcode) +
                           (o.nohwid ? " NOHWID" : "");
  step(PlaceFile(kScratch, "/proc/cmdline", cmdline + "\n"));
  step(PlaceFile(kScratch, "/sys/bus/mmc/devices/mmc0:0001/cid",
                 o.cid.empty() ? CidForSerial(o.serial) : o.cid));
  step(PlaceScript(kScratch, "/usr/bin/ubi_get_volume_versions.sh",
                   FirmwareScript(o.firmware)));
  const std::string image = o.rpmbImage.empty() ? kScratch + "/rpmb.img" : o.rpmbImage;
  if (o.rpmbImage.empty())  // 512 blocks, as many as the reader reaches
    step(WriteFile(image, HardwareIdRecord("HWID=" + o.hwid) + std::string(511 * 256, '\0')));
  step(WriteFile("/dev/mmcblk0rpmb", ""));
  setenv("QEL_RPMB_IMAGE", image.c_str(), 1);
  if (!o.rpmbResult.empty()) setenv("QEL_RPMB_RESULTS", o.rpmbResult.c_str(), 1);
  setenv("QEL_I2C_EMULATOR_ADAPTERS", o.i2c.c_str(), 1);
  for (size_t at = 0; at < o.i2c.size();) {
    const size_t comma = std::min(o.i2c.find(',', at), o.i2c.size());
    if (comma > at) step(WriteFile("/dev/i2c-" + o.i2c.substr(at, comma - at), ""));
    at = comma + 1;
  }
  std::string output;
  step(LoopbackUp());
  if (why.empty() && o.network && Shell("exec 2>&1\n" + NetworkScript(o.neighbours), &output) != 0)
    why = "setting up the network: " + output;
  if (why.empty() && o.network) {
    std::string list;
    for (const Neighbour& n : o.neighbours)
      list += " " + n.address + "=" + std::to_string(n.answer);
    std::fprintf(stderr, "qel-devsim: neighbours (CheckIPv4Address):%s\n",
                 list.c_str());
  }
  const std::string preload = StagePreload(run);
  const char* old = std::getenv("LD_PRELOAD");
  setenv("LD_PRELOAD", (preload + (old ? ":" + std::string(old) : "")).c_str(), 1);
  // A sanitized program wants its runtime first among preloaded objects.
  const char* asan = std::getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS",
         ((asan ? std::string(asan) + ":" : "") + "verify_asan_link_order=0").c_str(), 1);
  return why;
}

[[noreturn]] void ExecProgram(const Run& run, const sigset_t& mask) {
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  std::vector<std::string> args = run.options.program;
  std::string path = run.program;
  if (!run.armhfLibs.empty()) {
    // qemu would load the emulators itself; the guest gets them instead.
    // The guest's C library comes from the root like its loader, not from a
    // multiarch libc6:armhf that the loader's cache would find first.
    const char* set = std::getenv("QEMU_SET_ENV");
    const char* given = std::getenv("QEL_ARMHF_SYSROOT");
    const char* libraries = std::getenv("LD_LIBRARY_PATH");
    const std::string root = given ? given : "/usr/arm-linux-gnueabihf";
    setenv("QEMU_SET_ENV", ("LD_PRELOAD=" + std::string(std::getenv("LD_PRELOAD")) +
                            ",LD_LIBRARY_PATH=" + (libraries ? std::string(libraries) + ":" : "") +
                            root + "/lib" +
                            (set ? "," + std::string(set) : "")).c_str(), 1);
    unsetenv("LD_PRELOAD");
    // "-0" keeps the program's own argv[0].
    const std::string name = args[0];
    args[0] = run.program;
    args.insert(args.begin(), {"qemu-arm", "-L", root, "-0", name});
    path = FindProgram("qemu-arm");
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  execv(path.c_str(), argv.data());
  std::fprintf(stderr, "qel-devsim: %s: %s\n", path.c_str(), std::strerror(errno));
  _exit(errno == ENOENT ? kNotFound : kCannotRun);
}

// One line per datagram: the raw text in a file, "level ident[pid]: message"
// on standard error.
void ShowSyslog(const Run& run, std::string raw) {
  if (!raw.empty() && raw.back() == '\n') raw.pop_back();
  if (run.syslogFile) {
    std::fprintf(run.syslogFile, "%s\n", raw.c_str());
    std::fflush(run.syslogFile);
    return;
  }
  static const char* const kLevels[] = {"emerg", "alert", "crit", "err",
                                        "warning", "notice", "info", "debug"};
  const SyslogLine line = ParseSyslogLine(raw);
  const std::string pid = line.pid ? "[" + std::to_string(line.pid) + "]" : "";
  if (line.priority < 0)
    std::fprintf(stderr, "syslog| %s\n", raw.c_str());
  else
    std::fprintf(stderr, "syslog| %s %s%s: %s\n", kLevels[line.priority & 7],
                 line.ident.c_str(), pid.c_str(), line.message.c_str());
}

// Pid 1 of the device: sets it up, starts the program, shows its syslog and
// reaps every process until none is left (daemons included). A stop signal
// ends them all with SIGTERM, a second one with SIGKILL; one that came
// during set-up (blocked since the tool started) keeps the program from
// starting at all.
[[noreturn]] void Init(const Run& run) {
  if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    std::fprintf(stderr, "qel-devsim: mounting /proc: %s\n", std::strerror(errno));
    _exit(kSimulatorFailed);
  }
  const std::string why = SetUpDevice(run);
  SyslogListener syslog;
  if (!why.empty() || !syslog.Error().empty()) {
    std::fprintf(stderr, "qel-devsim: %s\n", (why.empty() ? syslog.Error() : why).c_str());
    _exit(kSimulatorFailed);
  }
  sigset_t signals = StopSignals(), pending;
  sigaddset(&signals, SIGCHLD);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  sigpending(&pending);
  for (int s : kStopSignals)
    if (sigismember(&pending, s)) _exit(128 + s);
  const int events = signalfd(-1, &signals, SFD_CLOEXEC);
  std::fflush(nullptr);
  const pid_t program = fork();
  if (program == 0) ExecProgram(run, run.mask);
  int status = kSimulatorFailed, stops = 0;
  for (bool children = program > 0; children;) {
    pollfd ready[] = {{syslog.Fd(), POLLIN, 0}, {events, POLLIN, 0}};
    poll(ready, 2, -1);
    for (const std::string& line : syslog.Take(0, std::chrono::milliseconds(0)))
      ShowSyslog(run, line);
    signalfd_siginfo info;
    if (!(ready[1].revents & POLLIN) || read(events, &info, sizeof info) <= 0) continue;
    if (info.ssi_signo != SIGCHLD) kill(-1, ++stops == 1 ? SIGTERM : SIGKILL);
    int wait = 0;
    for (pid_t pid; (pid = waitpid(-1, &wait, WNOHANG)) != 0;) {
      if (pid < 0) { children = false; break; }
      if (pid == program) status = StatusOf(wait);
    }
  }
  for (const std::string& line : syslog.Take(0, std::chrono::milliseconds(0)))
    ShowSyslog(run, line);
  std::fflush(nullptr);
  _exit(status);
}

pid_t g_child = 0;
void Forward(int signal) { kill(g_child, signal); }

// Runs `body` in a child, passes the stop signals on to it and gives its
// exit status. They stay blocked (since the tool started) until the child
// exists: one that comes meanwhile waits for a handler that has somewhere
// to send it, and the child inherits no handler at all. The child dies with
// its parent, so killing the tool, even with SIGKILL, ends the namespaces
// and everything in them.
int InChild(void (*body)(const Run&), const Run& run) {
  int alive[2];
  if (pipe2(alive, O_CLOEXEC) != 0) return std::perror("qel-devsim: pipe"), kSimulatorFailed;
  std::fflush(nullptr);
  g_child = fork();
  if (g_child == 0) {
    close(alive[1]);
    // A parent that died before the request leaves the pipe without a writer.
    pollfd parent{alive[0], POLLIN, 0};
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || poll(&parent, 1, 0) != 0)
      _exit(kSimulatorFailed);
    close(alive[0]);
    body(run);
  }
  close(alive[0]);
  if (g_child < 0) {
    close(alive[1]);
    return std::perror("qel-devsim: fork"), kSimulatorFailed;
  }
  struct sigaction forward {};
  forward.sa_handler = Forward;
  for (int s : kStopSignals) sigaction(s, &forward, nullptr);
  const sigset_t stop = StopSignals();
  sigprocmask(SIG_UNBLOCK, &stop, nullptr);
  int status = 0;
  while (waitpid(g_child, &status, 0) < 0 && errno == EINTR) {}
  close(alive[1]);
  return StatusOf(status);
}

// Owns the namespaces and starts their init. A process that made a PID
// namespace can start no threads (a leak checker's at exit wants one), so
// the caller stays outside.
[[noreturn]] void Device(const Run& run) {
  const std::string why = EnterNamespaces({true, true, true});
  if (!why.empty()) {
    std::fprintf(stderr, "qel-devsim: cannot make private namespaces: %s\n", why.c_str());
    _exit(kSimulatorFailed);
  }
  _exit(InChild(Init, run));
}

// What the user named must be what it seems before anything is made.
std::string CheckUserPaths(const Options& o) {
  std::string why;
  if (!o.rpmbImage.empty()) why = CheckRegularFile(o.rpmbImage, false);
  if (why.empty() && !o.envFile.empty()) why = CheckRegularFile(o.envFile, true);
  if (why.empty() && !o.envFile.empty()) why = CheckPlainPath(o.envFile);
  if (why.empty() && !o.syslogFile.empty()) why = CheckRegularFile(o.syslogFile, true);
  return why;
}

// Before the device: the emulators, qemu-user for an armhf program, the
// kept folders and the syslog file (whose folder may be a kept one).
int Prepare(Run& run, std::vector<std::string>* made) {
  Options& o = run.options;
  run.nativeLibs = NativeEmulatorDir();
  if (run.nativeLibs.empty()) {
    std::fprintf(stderr, "qel-devsim: the emulators (%s, %s) are neither beside the"
                 " tool nor in " QEL_DEVSIM_FULL_LIBDIR "/qel_util\n",
                 kEmulators[0], kEmulators[1]);
    return kSimulatorFailed;
  }
  if (NeedsArmEmulator(run.program)) {
    run.armhfLibs = ArmhfEmulatorDir(o.armhfLibs);
    const char* missing = FindProgram("qemu-arm").empty()
                              ? "qemu-arm (Debian: qemu-user)"
                          : run.armhfLibs.empty()
                              ? "the armhf emulators (--armhf-libs DIR, Debian's"
                                " qel-util-devsim-emulators:armhf, or"
                                " scripts/armhf.sh beside this build)"
                              : nullptr;
    if (missing) {
      std::fprintf(stderr, "qel-devsim: %s is an armhf program and needs %s\n",
                   run.program.c_str(), missing);
      return kSimulatorFailed;
    }
  }
  std::string why = CheckUserPaths(o);
  if (why.empty() && !o.keepDir.empty()) why = OpenKeptDirs(o.keepDir, &run.kept, made);
  if (why.empty() && !o.syslogFile.empty()) {
    const size_t slash = o.syslogFile.rfind('/');
    if (slash != std::string::npos && slash != 0)
      why = MakeDirs(o.syslogFile.substr(0, slash), 0755, made);
    run.syslogMade = access(o.syslogFile.c_str(), F_OK) != 0;
    if (why.empty() && !(run.syslogFile = std::fopen(o.syslogFile.c_str(), "we")))
      why = o.syslogFile + ": " + std::strerror(errno);
  }
  if (why.empty()) return 0;
  std::fprintf(stderr, "qel-devsim: %s\n", why.c_str());
  return kSimulatorFailed;
}

int Main(int argc, char** argv) {
  Run run;
  // Held from here on (see InChild); the program gets the caller's mask.
  const sigset_t stop = StopSignals();
  sigprocmask(SIG_BLOCK, &stop, &run.mask);
  const std::string problem = ParseOptions(argc, argv, &run.options);
  if (problem == "help") return std::fputs(kUsage, stdout), 0;
  if (!problem.empty()) {
    std::fprintf(stderr, "qel-devsim: %s\n%s", problem.c_str(), kUsage);
    return kSimulatorFailed;
  }
  Options& o = run.options;
  run.program = FindProgram(o.program[0]);
  if (run.program.empty()) {
    std::fprintf(stderr, "qel-devsim: %s: not found\n", o.program[0].c_str());
    return kNotFound;
  }
  for (std::string* path : {&o.envFile, &o.keepDir, &o.rpmbImage, &o.syslogFile})
    *path = Absolute(*path);
  std::vector<std::string> made;
  int status = Prepare(run, &made);
  if (status == 0) status = InChild(Device, run);
  // A run that failed leaves no folder of its making; one that ran keeps
  // what its program wrote (rmdir removes only empty folders).
  if (status == kSimulatorFailed) {
    if (run.syslogMade && run.syslogFile && std::ftell(run.syslogFile) == 0) {
      std::fclose(run.syslogFile);
      run.syslogFile = nullptr;
      unlink(o.syslogFile.c_str());
    }
    for (auto dir = made.rbegin(); dir != made.rend(); ++dir) rmdir(dir->c_str());
  }
  return status;
}

}  // namespace
}  // namespace qel_devsim

int main(int argc, char** argv) { return qel_devsim::Main(argc, argv); }
