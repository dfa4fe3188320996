#ifndef QEL_DEVSIM_USER_PATHS_H_
#define QEL_DEVSIM_USER_PATHS_H_

// The files and folders a user names on the command line live on the host,
// and the tool often runs as root: each is checked before anything is made,
// and the kept folders are held open so that a link planted in them cannot
// send root's files elsewhere. Each function returns "" or what is wrong.

#include <string>
#include <vector>

namespace qel_devsim {

// `path` is a regular file (or missing, when `mayBeMissing`). Never opens
// it, so a FIFO cannot hang the caller and a device is never touched.
std::string CheckRegularFile(const std::string& path, bool mayBeMissing);

// `path` holds neither white space nor a control character, which would
// break the line of a configuration file that names it.
std::string CheckPlainPath(const std::string& path);

// The folders kept by --keep DIR: DIR/run and DIR/log, made as needed (each
// new folder listed in `made`), as O_PATH descriptors. Each must be a real
// folder, not a link, owned by the caller and writable by no one else.
struct KeptDirs {
  int run = -1;
  int log = -1;
};
std::string OpenKeptDirs(const std::string& dir, KeptDirs* kept,
                         std::vector<std::string>* made);

// Binds the kept folder `path`, held open as `held` since before the mount
// namespace was made, over `target`: opened again without following a
// link, it must still be the same folder.
std::string BindKept(int held, const std::string& path, const std::string& target);

}  // namespace qel_devsim

#endif  // QEL_DEVSIM_USER_PATHS_H_
