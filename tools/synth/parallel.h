// The generator's one parallel loop: independent items (dates or
// interferograms) spread over threads, each item writing its own file.
#pragma once

#include <exception>
#include <mutex>
#include <string>

#include "synth/error.h"

namespace synth {

// Calls work(item, scratch) for every item of [0, count) on `threads`
// threads; each thread makes its scratch once with make_scratch(). An item
// that throws does not stop the others; afterwards the first message caught
// is thrown as Error. Items must not depend on each other.
template <class MakeScratch, class Work>
void for_each_item(int threads, int count, MakeScratch make_scratch, Work work)
{
    std::mutex lock;
    std::string first_error;
#pragma omp parallel num_threads(threads)
    {
        auto scratch = make_scratch();
#pragma omp for schedule(dynamic)
        for (int item = 0; item < count; ++item) {
            try {
                work(item, scratch);
            } catch (const std::exception& e) {
                const std::lock_guard<std::mutex> guard(lock);
                if (first_error.empty()) first_error = e.what();
            }
        }
    }
    require(first_error.empty(), first_error);
}

}  // namespace synth
