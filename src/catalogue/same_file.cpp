#include "catalogue/same_file.h"

#include <sys/stat.h>

namespace com {

void add_file(FileIdentities& files, const std::string& path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) files.emplace(std::pair{st.st_dev, st.st_ino}, path);
    if (lstat(path.c_str(), &st) == 0) files.emplace(std::pair{st.st_dev, st.st_ino}, path);
}

const std::string* same_file(const FileIdentities& files, const std::string& output, bool through_link)
{
    struct stat st {};
    if (lstat(output.c_str(), &st) == 0) {
        const auto found = files.find(std::pair{st.st_dev, st.st_ino});
        if (found != files.end()) return &found->second;
    }
    if (through_link && stat(output.c_str(), &st) == 0) {
        const auto found = files.find(std::pair{st.st_dev, st.st_ino});
        if (found != files.end()) return &found->second;
    }
    return nullptr;
}

}  // namespace com
