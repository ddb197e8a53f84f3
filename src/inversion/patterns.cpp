// Grouping the pixels of a batch by validity pattern.
//
// A pixel's reduced system depends only on which interferograms hold data
// there, not on their values, so every pixel with the same valid
// interferograms has the same design matrix, weights and estimator. The
// validity bits of every pixel of the block are taken interferogram by
// interferogram (each row of the stack is read in order), and the
// incomplete pixels go through an open-addressing hash table keyed by their
// bits and their count: a pattern is numbered when its first pixel is met,
// and a counting pass lists the pixels of each pattern in increasing order.
#include "inversion/patterns.h"

#include <algorithm>
#include <bit>

#include "numerics/lanes.h"
#include "numerics/validity.h"

namespace sbas {
namespace {

// One step of a 64-bit hash over the words of a key.
uint64_t mix(uint64_t h, uint64_t v)
{
    h ^= v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h * 0xff51afd7ed558ccdULL;
}

// Sets bit k % 64 of word k / 64 (valid[(k / 64) * size + i]) for the
// pixels i of the block valid in interferogram k.
SBAS_VECTOR_CLONES
void validity_bits(float* const* stack, int64_t interferograms, lib::Block block, uint64_t* valid)
{
    const int64_t size = block.end - block.first;
    for (int64_t k = 0; k < interferograms; ++k) {
        uint64_t* word = valid + (k / 64) * size;
        const uint64_t bit = uint64_t{1} << (k % 64);
        const float* row = stack[k] + block.first;
        for (int64_t i = 0; i < size; ++i) word[i] |= lib::isvalid(row[i]) ? bit : 0;
    }
}

}  // namespace

int64_t PixelGroups::interferograms(int64_t q, int64_t total, int64_t* ifgs) const
{
    const uint64_t* key = bits.get() + q * words;
    int64_t rows = 0;
    for (int64_t k = 0; k < total; ++k)
        if (key[k / 64] >> (k % 64) & 1) ifgs[rows++] = k;
    return rows;
}

PixelGroups group_pixels(float* const* stack, const int* count, int64_t interferograms, int64_t complete,
                         int64_t unknowns, int64_t constraint_rows, lib::Block block)
{
    PixelGroups g;
    const int64_t size = block.end - block.first;
    g.complete = lib::Owned<int64_t>(size);
    lib::Owned<int64_t> incomplete(size);
    int64_t incomplete_count = 0;
    for (int64_t p = block.first; p < block.end; ++p) {
        const int64_t n = count[p];
        if (unknowns > n + constraint_rows) continue;
        if (n == complete) g.complete[g.complete_count++] = p;
        else incomplete[incomplete_count++] = p;
    }
    if (incomplete_count == 0) return g;

    // Validity bits of every pixel of the block, word-major so that each
    // interferogram's row is scanned in order.
    const int64_t words = std::max<int64_t>((interferograms + 63) / 64, 1);
    g.words = words;
    lib::Owned<uint64_t> valid(words * size);
    validity_bits(stack, interferograms, block, valid.get());
    auto key = [&](int64_t i, uint64_t* out) {
        const int64_t p = incomplete[i];
        int64_t left = count[p];
        for (int64_t w = 0; w < words; ++w) {
            uint64_t v = left > 0 ? valid[w * size + p - block.first] : 0;
            // Past the first count[p] valid interferograms no row is built.
            while (std::popcount(v) > left) v &= ~(uint64_t{1} << (63 - std::countl_zero(v)));
            left -= std::popcount(v);
            out[w] = v;
        }
    };

    // Open addressing over the patterns, in the order of their first pixel.
    int64_t capacity = 16;
    while (capacity < 2 * incomplete_count) capacity *= 2;
    lib::Owned<int64_t> table(capacity);
    for (int64_t i = 0; i < capacity; ++i) table[i] = -1;
    g.bits = lib::Owned<uint64_t>(incomplete_count * words);
    g.n = lib::Owned<int64_t>(incomplete_count);
    lib::Owned<int64_t> pattern_of(incomplete_count), sizes(incomplete_count + 1);
    for (int64_t i = 0; i < incomplete_count; ++i) {
        uint64_t* candidate = g.bits.get() + g.pattern_count * words;
        key(i, candidate);
        const int64_t n = count[incomplete[i]];
        uint64_t h = mix(0, static_cast<uint64_t>(n));
        for (int64_t w = 0; w < words; ++w) h = mix(h, candidate[w]);
        int64_t slot = static_cast<int64_t>(h >> 7) & (capacity - 1);
        for (;; slot = (slot + 1) & (capacity - 1)) {
            const int64_t q = table[slot];
            if (q < 0) {
                table[slot] = g.pattern_count;
                g.n[g.pattern_count] = n;
                pattern_of[i] = g.pattern_count++;
                break;
            }
            if (g.n[q] == n && std::equal(candidate, candidate + words, g.bits.get() + q * words)) {
                pattern_of[i] = q;
                break;
            }
        }
        ++sizes[pattern_of[i] + 1];
    }
    // Members by counting: pixels stay in increasing order within a pattern.
    g.start = lib::Owned<int64_t>(g.pattern_count + 1);
    for (int64_t q = 0; q < g.pattern_count; ++q) g.start[q + 1] = g.start[q] + sizes[q + 1];
    g.members = lib::Owned<int64_t>(incomplete_count);
    lib::Owned<int64_t> fill(g.pattern_count);
    for (int64_t i = 0; i < incomplete_count; ++i) {
        const int64_t q = pattern_of[i];
        g.members[g.start[q] + fill[q]++] = incomplete[i];
    }
    return g;
}

}  // namespace sbas
