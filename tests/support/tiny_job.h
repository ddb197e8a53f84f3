// A tiny hand-made job for tests: a header, a data folder of rasters written
// sample by sample, a list, a result folder and a configuration file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/child.h"

namespace testing_support {

class TinyJob {
public:
    TinyJob(int64_t width, int64_t length);

    // Writes ifg/<name> with `samples` and appends the name to the list.
    void add_ifg(const std::string& name, const std::vector<float>& samples);

    // Writes the list file from the names added so far (one per line, ending
    // with one line feed) and config.txt: the four paths, the stages that are
    // not under test switched off, then `extra` (later lines win). Returns
    // the configuration's path.
    std::string config(const std::string& extra = "") const;

    std::string path(const std::string& name) const { return dir_ / name; }
    std::string result(const std::string& name) const { return dir_ / ("result/" + name); }
    const std::string& folder() const { return dir_.path(); }
    int64_t width() const { return width_; }
    int64_t length() const { return length_; }

private:
    TempDir dir_;
    int64_t width_;
    int64_t length_;
    std::vector<std::string> names_;
};

}  // namespace testing_support
