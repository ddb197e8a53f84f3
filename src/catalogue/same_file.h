// Telling whether two paths name the same file: by device and inode, so that
// another spelling of a path, a hard link or a symbolic link is caught.
// sbas-ts and sbas-view both refuse an output that is one of their inputs.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>

namespace com {

// The files a command reads, by identity, each with the path it was given by.
using FileIdentities = std::map<std::pair<dev_t, ino_t>, std::string>;

// Adds the file `path` leads to and, when `path` is a symbolic link, the link
// itself. A path that does not exist adds nothing.
void add_file(FileIdentities& files, const std::string& path);

// The path of the file of `files` that `output` is, or nullptr. The file at
// `output` itself is compared (a link there is the link); with `through_link`
// the file a link there leads to is compared too.
const std::string* same_file(const FileIdentities& files, const std::string& output, bool through_link);

}  // namespace com
