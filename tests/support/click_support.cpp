#include "support/click_support.h"

#include <algorithm>
#include <cmath>

namespace kesta::test {

using dsp::noclick::NOCLICK;
using dsp::utils::Range;

NOCLICK ClickRecord(int channels, double rate, double threshold) {
    NOCLICK r;
    dsp::noclick::SetDefaultParameter(&r);
    r.channels = channels;
    r.sampleRate = static_cast<float>(rate);
    r.threshold = threshold;
    dsp::noclick::AllocateArrays(&r);
    return r;
}

RangeLists FindAllClicks(const Channels& x, const NOCLICK& record, long long start, long long length, int block) {
    dsp::noclick::FindClicks find(&record);
    const int channels = static_cast<int>(x.size());
    const long long frames = static_cast<long long>(x[0].size());
    Channels buffer(x.size(), Signal(static_cast<std::size_t>(block)));
    std::vector<float*> data;
    for (Signal& b : buffer)
        data.push_back(b.data());
    find.SetSelection(start, length);
    find.Start(nullptr);
    for (long long pos = start; !find.IsCompleted();) {
        for (std::size_t c = 0; c < x.size(); ++c)
            for (int i = 0; i < block; ++i)
                buffer[c][i] = pos + i < frames ? x[c][static_cast<std::size_t>(pos + i)] : 0.0f;
        pos += find.Analyze(data.data(), channels, block);
    }
    find.Done();
    return find.GetParam()->foundClicks;
}

Channels RepairAll(const Channels& x, NOCLICK& record, const RangeLists& ranges, int block) {
    dsp::noclick::ReplaceClicks fix(&record);
    fix.GetParam()->repairClicks = ranges;
    const std::size_t frames = x[0].size(), latency = static_cast<std::size_t>(fix.GetLatency());
    Channels padded = x;
    for (Signal& s : padded)
        s.resize(frames + latency, 0.0f);
    fix.SetSelection(0, static_cast<long long>(frames));
    fix.Start();
    const int channels = static_cast<int>(x.size());
    auto process = [&](float** in, float** out, int n) { fix.Process(in, out, channels, n); };
    Channels y = block > 0 ? RunInBlocks(padded, process, block) : RunInRandomBlocks(padded, process, -block, 99);
    fix.Done();
    record.repairClicks = fix.GetParam()->repairClicks;
    for (Signal& s : y)
        s.erase(s.begin(), s.begin() + static_cast<std::ptrdiff_t>(latency));
    return y;
}

RangeLists MergeOverlapping(const RangeLists& lists, int tail) {
    RangeLists merged(lists.size());
    for (std::size_t c = 0; c < lists.size(); ++c)
        for (Range r : lists[c]) {
            r.length += tail;
            std::vector<Range>& out = merged[c];
            if (!out.empty() && r.start <= out.back().start + out.back().length) {
                const long long end = std::max(out.back().start + out.back().length, r.start + r.length);
                out.back().length = static_cast<int32_t>(end - out.back().start);
            } else {
                out.push_back(r);
            }
        }
    return merged;
}

std::vector<InsertedClick> InsertClicks(Channels& x, int count, uint64_t seed, std::size_t margin,
                                        std::size_t spacing) {
    Random random(seed);
    const std::size_t frames = x[0].size();
    std::vector<InsertedClick> clicks;
    // Evenly spread slots with a random offset inside each keep clicks apart by at least `spacing`.
    const std::size_t slot = (frames - 2 * margin) / static_cast<std::size_t>(count);
    for (int k = 0; k < count; ++k) {
        const int channel = random.UniformInt(0, static_cast<int>(x.size()) - 1);
        const int length = random.UniformInt(1, 20);
        const std::size_t room = slot > spacing ? slot - spacing : 1;
        const std::size_t start = margin + k * slot + static_cast<std::size_t>(random.Uniform() * room);
        Signal& s = x[static_cast<std::size_t>(channel)];
        double energy = 0.0;
        for (std::size_t i = start - 512; i < start + 512; ++i)
            energy += static_cast<double>(s[i]) * s[i];
        const double rms = std::max(std::sqrt(energy / 1024.0), 1e-4);
        const double peak = rms * (6.0 + 24.0 * random.Uniform());
        const double sign = random.Uniform() < 0.5 ? -1.0 : 1.0;
        double shape[20], largest = 0.0;
        for (int i = 0; i < length; ++i) {
            shape[i] = std::exp(-3.0 * i / length) * (i % 2 == 0 ? 1.0 : -0.6) * (0.7 + 0.3 * random.Uniform());
            largest = std::max(largest, std::fabs(shape[i]));
        }
        for (int i = 0; i < length; ++i)  // the largest sample of the click is `peak`
            s[start + i] += static_cast<float>(sign * peak * shape[i] / largest);
        clicks.push_back({channel, start, length});
    }
    return clicks;
}

DetectionScore ScoreDetection(const std::vector<InsertedClick>& inserted, const RangeLists& found) {
    auto overlaps = [](const InsertedClick& k, const Range& r) {
        return r.start < static_cast<long long>(k.start) + k.length &&
               static_cast<long long>(k.start) < r.start + r.length;
    };
    DetectionScore score;
    int hit = 0, genuine = 0;
    for (const InsertedClick& k : inserted)
        hit += std::any_of(found[k.channel].begin(), found[k.channel].end(),
                           [&](const Range& r) { return overlaps(k, r); });
    for (std::size_t c = 0; c < found.size(); ++c)
        for (const Range& r : found[c]) {
            ++score.found;
            genuine += std::any_of(inserted.begin(), inserted.end(), [&](const InsertedClick& k) {
                return k.channel == static_cast<int>(c) && overlaps(k, r);
            });
        }
    score.recall = inserted.empty() ? 1.0 : static_cast<double>(hit) / inserted.size();
    score.precision = score.found == 0 ? 1.0 : static_cast<double>(genuine) / score.found;
    return score;
}

}  // namespace kesta::test
