#include "support/tiny_job.h"

namespace testing_support {

TinyJob::TinyJob(int64_t width, int64_t length) : width_(width), length_(length)
{
    make_dir(dir_ / "ifg");
    make_dir(dir_ / "result");
    write_text(dir_ / "header.txt", "WIDTH " + std::to_string(width) + "\nFILE_LENGTH " + std::to_string(length) +
                                        "\nX_FIRST 100.0\nY_FIRST 30.0\nX_STEP 0.01\nY_STEP -0.01\n");
}

void TinyJob::add_ifg(const std::string& name, const std::vector<float>& samples)
{
    write_floats(dir_ / ("ifg/" + name), samples);
    names_.push_back(name);
}

std::string TinyJob::config(const std::string& extra) const
{
    std::string list;
    for (const auto& name : names_) list += name + "\n";
    write_text(dir_ / "list.txt", list);
    const std::string text = "resultfolder " + (dir_ / "result") + "\nheaderfile " + (dir_ / "header.txt") +
                             "\nfilelist " + (dir_ / "list.txt") + "\ndatafolder " + (dir_ / "ifg") +
                             "\nif_check_loop_closure 0\nif_apply_filter 0\n" + extra;
    write_text(dir_ / "config.txt", text);
    return dir_ / "config.txt";
}

}  // namespace testing_support
