// Turns a crash dump of a libqel_util service (the dump file, or the
// LOG_CRIT lines that carried it to syslog) into functions, source files
// and lines, with the inlined functions, by the binaries at the paths the
// dump names and their debug information found by build-id.

#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "crashdump/dump_text.h"
#include "crashdump/symbolizer.h"

namespace {

const char kUsage[] =
    "usage: qel-crashdump [--sysroot DIR] [--debug-dir DIR]... [FILE]\n"
    "Prints the function, source file and line of each frame of the crash\n"
    "dumps in FILE (a dump file or syslog lines; standard input without FILE\n"
    "or with -).\n"
    "  --sysroot DIR    the dump's binaries lie under DIR (a board's root\n"
    "                   file system, unpacked packages)\n"
    "  --debug-dir DIR  look for debug information in DIR/.build-id first\n"
    "                   (before /usr/lib/debug, under the sysroot if given)\n";

// `path` made absolute: elfutils takes a relative debug folder as relative
// to each binary's own folder.
std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char here[4096];
  return getcwd(here, sizeof here) != nullptr ? std::string(here) + "/" + path : path;
}

// Prints the frames gathered for one record and forgets them.
void Flush(qel_crashdump::Symbolizer& symbolizer,
           std::vector<qel_crashdump::FrameText>& frames) {
  for (const std::string& line : symbolizer.Describe(frames))
    std::printf("%s\n", line.c_str());
  frames.clear();
}

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {{"sysroot", required_argument, nullptr, 's'},
                                    {"debug-dir", required_argument, nullptr, 'd'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  qel_crashdump::SymbolizerOptions options;
  std::vector<std::string> debugDirs;
  for (int choice; (choice = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (choice) {
      case 's':
        options.sysroot = Absolute(optarg);
        while (options.sysroot.size() > 1 && options.sysroot.back() == '/')
          options.sysroot.pop_back();
        break;
      case 'd':
        debugDirs.push_back(Absolute(optarg));
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        return 0;
      default:
        std::fputs(kUsage, stderr);
        return 2;
    }
  }
  if (argc - optind > 1) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::string name = optind < argc ? argv[optind] : "-";
  std::ifstream file;
  if (name != "-") {
    file.open(name);
    struct stat status;
    if (!file || stat(name.c_str(), &status) != 0) {
      std::fprintf(stderr, "qel-crashdump: %s: %s\n", name.c_str(), std::strerror(errno));
      return 2;
    }
    options.dumpWritten = qel_crashdump::NanosecondsOf(status.st_mtim);
  }
  std::istream& input = name == "-" ? std::cin : file;
  options.debugSearch.folders = debugDirs;
  options.debugSearch.folders.push_back(options.sysroot + "/usr/lib/debug");

  qel_crashdump::Symbolizer symbolizer(options);
  std::vector<qel_crashdump::FrameText> frames;
  bool anyFrame = false;
  for (std::string line; std::getline(input, line);) {
    qel_crashdump::DumpLine parsed = qel_crashdump::ParseDumpLine(line);
    switch (parsed.kind) {
      case qel_crashdump::LineKind::kHeader:
      case qel_crashdump::LineKind::kSeparator:
        Flush(symbolizer, frames);
        std::printf("%s\n", parsed.text.c_str());
        break;
      case qel_crashdump::LineKind::kFrame:
        frames.push_back(parsed.frame);
        anyFrame = true;
        break;
      case qel_crashdump::LineKind::kOther:
        break;
    }
  }
  Flush(symbolizer, frames);
  if (!anyFrame) {
    std::fprintf(stderr, "qel-crashdump: %s holds no crash dump frames\n", name.c_str());
    return 1;
  }
  return 0;
}
