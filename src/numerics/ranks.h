// One job spread over the processes of an MPI launch.
//
// A run started by an MPI launcher (mpirun, srun) is one rank of R; the
// stages whose work divides by pixels or by interferograms give each rank
// its share, and every output file is the one a single process writes.
// A plain run never starts MPI: the launcher's environment is looked at
// before MPI_Init, so a run without mpirun sees no change and no delay, and
// a build without MPI has R = 1 always.
//
// Only rank 0 writes to standard output and standard error. What another
// rank writes to standard error (a batch's lines) is kept and handed to
// rank 0, which writes it in the order a single process would have: the log
// of an MPI run reads like any other. Errors are agreed on: every rank
// returns the error of the lowest item (interferogram, batch) that failed on
// any rank, so every rank leaves the stage at the same point and rank 0
// writes the one message.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "numerics/error.h"

namespace lib {

// This process's place in the launch: rank 0 of 1 in a plain run.
struct Ranks {
    int rank = 0;
    int size = 1;
};

// Starts MPI when the process was started by an MPI launcher and MPI was
// built in, and sets up the hand-over of standard error of ranks above 0;
// returns the place. Called once, first thing, by the entry point.
Ranks start_ranks(int* argc, char*** argv);

// Ends MPI when start_ranks started it; every rank calls it once, last.
void stop_ranks();

// The place start_ranks found (rank 0 of 1 before it is called).
Ranks ranks();

// True when more than one rank shares the job.
inline bool spread() { return ranks().size > 1; }

// The error of the lowest item that failed on any rank: every rank passes
// the index of its first failed item (any value when `local` is ok) and its
// status; every rank returns the same status. With one rank: `local`.
Status agree(int64_t failed_item, Status local);

// A round is a step in which rank r handles the r-th item of the round
// (rounds are used where items must be reported in order, such as pixel
// batches). begin_round forgets what this rank wrote to standard error
// outside rounds (the banner, which rank 0 writes). At end_round rank 0
// writes what ranks 1, 2, ... wrote to standard error during the round, in
// rank order, up to and including the first rank whose status is an error;
// then every rank returns that error, or ok. A rank without an item in the
// round passes ok.
void begin_round();
Status end_round(Status local);

// Waits for every rank.
void barrier();

// Sums, minima and maxima of values over the ranks (in place, every rank
// gets the result); no-ops with one rank.
void sum_over_ranks(int64_t* values, int64_t count);

// Rank `root`'s bytes on every rank (resized to them).
void broadcast(std::vector<char>& bytes, int root);

// Running state handed on from rank to rank: `bytes` to rank `to`, and the
// bytes rank `from` sends (blocking; a rank sends as many messages to a
// rank as that rank receives from it, in the same order).
void send_to(int to, const std::vector<char>& bytes);
std::vector<char> receive_from(int from);

// The stretches [first, end) of `elements` (element_bytes each) that ranks
// above 0 computed, copied into rank 0's array: stretch s was computed by
// rank owner[s]. Every rank calls it with the same stretches.
void collect(char* elements, size_t element_bytes, const std::vector<int64_t>& first,
             const std::vector<int64_t>& end, const std::vector<int>& owner);

// Writes `count` floats at sample `first` of the file at `path` (created
// when missing, never truncated), from this rank, where other ranks write
// other stretches of the same file: MPI-IO at the stretch's offset, safe on
// the parallel file systems of clusters. Reports "%s could not be
// written\n".
Status write_at(const char* path, int64_t first, const float* samples, int64_t count);

}  // namespace lib
