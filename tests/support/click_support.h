#pragma once
// Click tools as a host drives them, shared by the click tests, benchmark and evaluation: the
// detection pass over a whole signal, the repair of a list of ranges with the output aligned to the
// input, and seeded click damage with the list of what was inserted.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "dsp/noclick.h"
#include "support/signals.h"

namespace kesta::test {

using RangeLists = std::vector<std::vector<dsp::utils::Range>>;

// A record with the defaults for `channels` at `rate`, its lists allocated.
dsp::noclick::NOCLICK ClickRecord(int channels, double rate = 44100.0, double threshold = 55.0);

// FindClicks over frames [start, start + length) of x (the pass reads GetLatency() frames past the
// selection: x's own frames, zeros beyond its end), fed in blocks of at most `block` frames. Returns
// the sorted found clicks per channel.
RangeLists FindAllClicks(const Channels& x, const dsp::noclick::NOCLICK& record, long long start, long long length,
                         int block = 2048);
inline RangeLists FindAllClicks(const Channels& x, const dsp::noclick::NOCLICK& record, int block = 2048) {
    return FindAllClicks(x, record, 0, static_cast<long long>(x[0].size()), block);
}

// ReplaceClicks over all of x with `ranges` to repair (in `record`, which receives the done marks),
// streamed in blocks of `block` frames, or in random blocks of up to -block frames when block < 0.
// Returns the output aligned with x (the latency removed).
Channels RepairAll(const Channels& x, dsp::noclick::NOCLICK& record, const RangeLists& ranges, int block = 2048);

// Each sorted list with every range extended by `tail` frames, then overlapping or touching ranges
// joined into one.
RangeLists MergeOverlapping(const RangeLists& lists, int tail = 0);

struct InsertedClick {
    int channel;
    std::size_t start;
    int length;
};

// Adds `count` clicks to x, spread over [margin, frames - margin) at least `spacing` apart: lengths
// 1 ... 20, largest sample 6 to 30 times the clean signal's RMS over the 1024 frames around the
// click (in its channel), random signs and a decaying shape. Returns them in order of start.
std::vector<InsertedClick> InsertClicks(Channels& x, int count, uint64_t seed, std::size_t margin = 4096,
                                        std::size_t spacing = 2000);

// Share of inserted clicks that some found range overlaps, and share of found ranges that overlap
// an inserted click.
struct DetectionScore {
    double recall = 0.0;
    double precision = 0.0;
    int found = 0;
};
DetectionScore ScoreDetection(const std::vector<InsertedClick>& inserted, const RangeLists& found);

}  // namespace kesta::test
