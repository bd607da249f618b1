// The parameter records' allocation and copy functions under fuzzed shapes: channel counts and FFT
// sizes anywhere in their types (negative, zero, in range, beyond the limits) and range lists of
// any length. The first byte picks the record family; every copy must match its source field for
// field and array for array (or be empty where the shape holds no arrays), and AddressSanitizer's
// leak check sees that everything allocated is released.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dsp/noclick.h"
#include "dsp/noclip.h"
#include "dsp/nohiss.h"
#include "dsp/nonoise.h"
#include "fuzz_input.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

int16_t Int16(kesta_fuzz::Input& in) {
    return int16_t(uint16_t(in.Byte() | (in.Byte() << 8)));
}

// Values in [-1, 1) from the fuzzer's seed.
template <class T>
void FillRows(T** rows, int channels, int n, uint32_t seed) {
    std::vector<float> noise(std::size_t(n > 0 ? n : 0));
    for (int c = 0; c < channels; ++c) {
        kesta_fuzz::FillNoise(noise.data(), noise.size(), seed + uint32_t(c));
        for (int k = 0; k < n; ++k)
            rows[c][k] = T(noise[std::size_t(k)]);
    }
}

template <class T>
bool SameRows(T* const* a, T* const* b, int channels, int n) {
    for (int c = 0; c < channels; ++c)
        if (std::memcmp(a[c], b[c], sizeof(T) * std::size_t(n)) != 0) return false;
    return true;
}

template <class T>
bool ZeroRow(const T* row, int n) {
    for (int k = 0; k < n; ++k)
        if (row[k] != T(0)) return false;
    return true;
}

// ---- Noise prints -------------------------------------------------------------------------------

using dsp::nonoise::NONOISE;

bool NoNoiseShape(const NONOISE& p) {
    return p.channels >= 1 && p.channels <= dsp::nonoise::kMaxChannels && p.fftSize >= 1 &&
           p.fftSize <= dsp::nonoise::kMaxFftSize;
}

bool SameNoNoise(const NONOISE& a, const NONOISE& b) {
    if (a.channels != b.channels || a.fftSize != b.fftSize || a.frameCount != b.frameCount ||
        a.reductionDb != b.reductionDb || a.overlap != b.overlap || a.maxSnapshots != b.maxSnapshots)
        return false;
    if (!NoNoiseShape(a)) return b.binRms == nullptr && b.dcMin == nullptr;
    const int C = a.channels, N = a.fftSize;
    return SameRows(&a.dcMin, &b.dcMin, 1, C) && SameRows(&a.dcMax, &b.dcMax, 1, C) &&
           SameRows(a.binMin, b.binMin, C, N) && SameRows(a.binMax, b.binMax, C, N) &&
           SameRows(a.binRms, b.binRms, C, N) && SameRows(&a.thresholdCurve, &b.thresholdCurve, 1, N);
}

void FuzzNoNoise(kesta_fuzz::Input& in) {
    NONOISE src;
    dsp::nonoise::SetDefaultParameter(&src);
    src.channels = int16_t(int8_t(in.Byte()));
    src.fftSize = Int16(in);
    src.frameCount = Int16(in);
    const int channel = int8_t(in.Byte());
    const uint32_t seed = in.Byte();
    dsp::nonoise::AllocateArrays(&src);
    Check(NoNoiseShape(src) == (src.binRms != nullptr));
    if (src.binRms != nullptr) {
        FillRows(src.binMin, src.channels, src.fftSize, seed);
        FillRows(src.binMax, src.channels, src.fftSize, seed + 100);
        FillRows(src.binRms, src.channels, src.fftSize, seed + 200);
        FillRows(&src.dcMin, 1, src.channels, seed + 300);
        FillRows(&src.dcMax, 1, src.channels, seed + 400);
        FillRows(&src.thresholdCurve, 1, src.fftSize, seed + 500);
    }

    NONOISE copy;
    dsp::nonoise::CopyNoNoise(&src, &copy, true);
    Check(SameNoNoise(src, copy));
    dsp::nonoise::CopyNoNoise(&src, &copy, false);  // into arrays of the same shape
    Check(SameNoNoise(src, copy));
    dsp::nonoise::FreeArrays(&copy);

    NONOISE* clone = dsp::nonoise::CloneNoNoise(&src);
    Check(SameNoNoise(src, *clone));
    dsp::nonoise::FreeArrays(clone);
    delete clone;

    NONOISE single;
    single.channels = 0;
    for (const bool allocate : {true, false}) {
        dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&src, &single, channel, allocate);
        Check(single.channels == 1 && single.fftSize == src.fftSize);
        if (!NoNoiseShape(src)) continue;
        const int N = src.fftSize;
        const bool exists = channel >= 0 && channel < src.channels;
        for (auto [from, to] :
             {std::pair{src.binMin, single.binMin}, {src.binMax, single.binMax}, std::pair{src.binRms, single.binRms}})
            Check(exists ? std::memcmp(from[channel], to[0], sizeof(double) * std::size_t(N)) == 0 : ZeroRow(to[0], N));
        Check(single.dcMin[0] == src.dcMin[0] && single.dcMax[0] == src.dcMax[0]);
    }
    dsp::nonoise::FreeArrays(&single);
    dsp::nonoise::FreeArrays(&src);
}

// ---- Hiss floors --------------------------------------------------------------------------------

using dsp::nohiss::NOHISS;

bool NoHissShape(const NOHISS& p) {
    return p.channels >= 1 && p.channels <= dsp::nohiss::kMaxChannels && p.fftSize >= 1 &&
           p.fftSize <= dsp::nohiss::kMaxFftSize;
}

NOHISS HissRecord(kesta_fuzz::Input& in) {
    NOHISS r;
    dsp::nohiss::SetDefaultParameter(&r);
    r.channels = int8_t(in.Byte());
    r.fftSize = Int16(in);
    r.kneeDb = float(in.Byte());
    dsp::nohiss::AllocateArrays(&r);
    Check(NoHissShape(r) == (r.floorRows != nullptr));
    if (r.floorRows != nullptr) {
        const uint32_t seed = in.Byte();
        FillRows(r.floorRows, r.channels, r.fftSize, seed);
        FillRows(r.thresholdRows, r.channels, r.fftSize, seed + 100);
        FillRows(&r.floorLevel, 1, r.channels, seed + 200);
    }
    return r;
}

void CheckHissCopy(const NOHISS& src, const NOHISS& dst) {
    Check(dst.channels == src.channels && dst.fftSize == src.fftSize && dst.kneeDb == src.kneeDb);
    if (src.floorRows != nullptr) {
        const int C = src.channels, N = src.fftSize;
        Check(SameRows(src.floorRows, dst.floorRows, C, N) && SameRows(src.thresholdRows, dst.thresholdRows, C, N) &&
              SameRows(&src.floorLevel, &dst.floorLevel, 1, C));
    } else if (NoHissShape(dst) && dst.floorRows != nullptr) {
        for (int c = 0; c < dst.channels; ++c)
            Check(ZeroRow(dst.floorRows[c], dst.fftSize) && ZeroRow(dst.thresholdRows[c], dst.fftSize));
    }
}

void FuzzNoHiss(kesta_fuzz::Input& in) {
    NOHISS first = HissRecord(in), second = HissRecord(in);
    NOHISS dst;
    dsp::nohiss::SetDefaultParameter(&dst);
    dst.channels = 0;
    // Into an empty record, again into the same shape, then into another shape.
    for (const NOHISS* src : {&first, &first, &second, &first}) {
        dsp::nohiss::CopyParameter(src, &dst);
        CheckHissCopy(*src, dst);
    }
    for (NOHISS* r : {&first, &second, &dst})
        dsp::nohiss::FreeArrays(r);
}

// ---- Range lists --------------------------------------------------------------------------------

using Lists = std::vector<std::vector<dsp::utils::Range>>;

// Up to 40 lists of up to 255 ranges each, from the bytes.
Lists RangeLists(kesta_fuzz::Input& in) {
    Lists lists(in.Byte() % 41);
    for (auto& list : lists) {
        list.resize(in.Byte());
        for (std::size_t i = 0; i < list.size(); ++i)
            list[i] = {int64_t(i) * 97 - 5, int32_t(in.Byte()), int32_t(i & 1)};
    }
    return lists;
}

bool SameList(const std::vector<dsp::utils::Range>& a, const std::vector<dsp::utils::Range>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].start != b[i].start || a[i].length != b[i].length || a[i].done != b[i].done) return false;
    return true;
}

// dst's lists after a copy from src: one per channel, src's where src has one, empty beyond.
void CheckLists(const Lists& src, const Lists& dst, int channels, bool empty) {
    Check(dst.size() == std::size_t(channels > 0 ? channels : 0));
    for (std::size_t c = 0; c < dst.size(); ++c)
        Check(empty || c >= src.size() ? dst[c].empty() : SameList(src[c], dst[c]));
}

void FuzzNoClick(kesta_fuzz::Input& in) {
    using dsp::noclick::NOCLICK;
    NOCLICK src, dst;
    src.channels = int8_t(in.Byte());
    dst.channels = int8_t(in.Byte());
    src.complexity = in.Byte();
    src.foundClicks = RangeLists(in);
    src.repairClicks = RangeLists(in);
    dsp::noclick::AllocateArrays(&dst);
    for (int round = 0; round < 2; ++round) {
        const bool clear = in.Byte() & 1;
        dsp::noclick::CopyParameter(&src, &dst, clear);
        Check(dst.channels == src.channels && dst.complexity == src.complexity);
        CheckLists(src.repairClicks, dst.repairClicks, src.channels, false);
        CheckLists(src.foundClicks, dst.foundClicks, src.channels, clear);
    }
    dsp::noclick::FreeArrays(&dst);
    Check(dst.foundClicks.empty() && dst.repairClicks.empty());
}

void FuzzNoClip(kesta_fuzz::Input& in) {
    using dsp::noclip::NOCLIPPING;
    NOCLIPPING src, dst;
    dsp::noclip::SetDefaultParameter(&src);
    src.channels = int8_t(in.Byte());
    src.fillInMargin = int8_t(in.Byte());
    dsp::noclip::AllocateArrays(&src);
    src.foundClips = RangeLists(in);
    src.repairClips = RangeLists(in);
    src.minLevel.resize(in.Byte() % 41, -0.5f);
    for (int round = 0; round < 2; ++round) {
        const bool empty = in.Byte() & 1;
        dsp::noclip::CopyParameter(&src, &dst, empty);
        Check(dst.channels == src.channels && dst.fillInMargin == src.fillInMargin);
        const std::size_t channels = std::size_t(src.channels > 0 ? src.channels : 0);
        for (const auto* list : {&dst.minLevel, &dst.maxLevel})
            Check(list->size() == channels);
        Check(dst.runKind.size() == channels && dst.runCount.size() == channels && dst.runStart.size() == channels);
        for (std::size_t c = 0; c < channels && c < src.repairClips.size(); ++c)
            Check(SameList(src.repairClips[c], dst.repairClips[c]));
        for (std::size_t c = 0; c < channels && c < src.foundClips.size(); ++c)
            Check(empty ? dst.foundClips[c].empty() : SameList(src.foundClips[c], dst.foundClips[c]));
    }
    dsp::noclip::CopyParameter(&dst, &dst, true);  // onto itself: only the found lists empty
    for (const auto& list : dst.foundClips)
        Check(list.empty());
    dsp::noclip::FreeArrays(&dst);
    dsp::noclip::FreeArrays(&src);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    kesta_fuzz::Input in(data, size);
    switch (in.Byte() % 4) {
        case 0:
            FuzzNoNoise(in);
            break;
        case 1:
            FuzzNoHiss(in);
            break;
        case 2:
            FuzzNoClick(in);
            break;
        default:
            FuzzNoClip(in);
            break;
    }
    return 0;
}
