// Raster file I/O shared by the stages: contiguous reads with the size check,
// paths inside the job's folders, and the output files that batches of
// pixels fill one after another.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/error.h"

namespace com {

// A path formed as folder "/" name in a fixed buffer of 1000 bytes (longer
// paths are cut, and then fail to open).
struct Path {
    char text[1000];
    const char* c_str() const { return text; }
};

Path join_path(const char* folder, const char* name);

// Reads `count` samples starting at sample `first` of the open raster
// `stream` (named `path` for the message) in one seek and one read. The
// stream must then stand at byte 4*(first + count); otherwise "%s file size
// wrong %ld\n" (the path and the position reached, in full, standard error) is
// reported. A shorter file therefore stops the run, a longer one is
// accepted. count < 1 reads nothing.
lib::Status read_samples(FILE* stream, const char* path, int64_t first, int64_t count, float* out);

// Opens `path`, reads its samples [first, first + count) with read_samples
// and closes it. A missing file is reported by lib::fopen_zq.
lib::Status read_raster(const char* path, int64_t first, int64_t count, float* out);

// Opens an output file of the run with the stdio `mode` "w", "wb" (a new
// file, replacing what stands at `path`) or "ab" (appending). Outputs never
// write through a symbolic link: a link standing at the path is replaced by
// a new file for "w"/"wb", and refused for "ab". Anything else at the path
// that is not a regular file (a directory, a named pipe, a device) is
// reported with lib::not_regular, and the open never waits. A path that
// cannot be opened is reported with the message of lib::fopen_zq. Every
// output of every stage is opened here. The driver has made sure before the
// first stage that no output path is one of the run's inputs
// (sbas::refuse_outputs_over_inputs).
lib::Result<lib::File> open_output(const char* path, const char* mode);

// Streams whole rasters: for each name of `names` in order, reads
// folder "/" name whole (`pixels` samples, with the size check of
// read_samples) into one buffer and calls visit(k, samples) with the name's
// index. Memory holds one raster whatever the length of the list; the
// buffer is reused, so `samples` is valid only during the call. The first
// raster that cannot be read, or the first error `visit` returns (it may
// return a lib::Status), ends the walk with that error.
template <typename Visit>
lib::Status for_each_raster(const char* folder, const std::vector<std::string>& names, int64_t pixels,
                            Visit visit)
{
    const lib::Owned<float> samples(pixels);
    for (size_t k = 0; k < names.size(); ++k) {
        const Path path = join_path(folder, names[k].c_str());
        SBAS_TRY(read_raster(path.c_str(), 0, pixels, samples.get()));
        if constexpr (std::is_same_v<std::invoke_result_t<Visit&, size_t, const float*>, lib::Status>)
            SBAS_TRY(visit(k, static_cast<const float*>(samples.get())));
        else
            visit(k, static_cast<const float*>(samples.get()));
    }
    return {};
}

// The mode of a batch output file: "wb" for the batch that starts at pixel 0
// (a new run overwrites), "ab" for every later batch (appended in pixel order,
// so the file is a whole raster after the last batch).
const char* batch_mode(int64_t batch_first);

// Writes `count` samples to `path`, opened with open_output(path, mode).
// A failed write is reported as "%s could not be written\n".
lib::Status write_samples(const char* path, const char* mode, const float* samples, int64_t count);

// "%s could not be written\n" on standard error.
lib::Error write_error(const char* path);

// Writes `count` samples to folder "/" name, opened with batch_mode(first),
// through write_samples. In an MPI run, where several ranks write batches
// of one file, each writes its batch at its place (lib::write_at).
lib::Status write_batch(const char* folder, const char* name, int64_t batch_first, const float* samples,
                        int64_t count);

// write_batch with the whole path.
lib::Status write_batch_at(const char* path, int64_t batch_first, const float* samples, int64_t count);

// In an MPI run, once every rank has written its batches: the files written
// by write_batch cut to `pixels` samples (an earlier run may have left a
// longer file), by rank 0. Nothing to do in a run of one process.
lib::Status trim_spread_outputs(int64_t pixels);

}  // namespace com
