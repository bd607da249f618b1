// The DNZ record's free functions and the frame length for a sample rate.

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "dsp/dnz.h"

namespace dsp::dnz {

namespace {

std::size_t DictionaryFloats(const DNZ* p) {
    return std::size_t(p->noiseAtoms) * std::size_t(p->fftSize / 2 + 1);
}

void CopyScalars(const DNZ* src, DNZ* dst) {
    float** dictionary = dst->noiseDictionary;
    float* ceiling = dst->noiseCeiling;
    *dst = *src;
    dst->noiseDictionary = dictionary;
    dst->noiseCeiling = ceiling;
}

}  // namespace

void SetDefaultParameter(DNZ* p) {
    float** dictionary = p->noiseDictionary;
    float* ceiling = p->noiseCeiling;
    *p = DNZ{};
    p->noiseDictionary = dictionary;
    p->noiseCeiling = ceiling;
}

bool IsValidShape(const DNZ* p) {
    const int n = p->fftSize;
    return p->channels >= 1 && p->channels <= kMaxChannels && n >= kMinFftSize && n <= kMaxFftSize &&
           (n & (n - 1)) == 0 && p->noiseAtoms >= 1 && p->noiseAtoms <= kMaxAtoms && p->signalAtoms >= 1 &&
           p->signalAtoms <= kMaxAtoms;
}

void AllocateArrays(DNZ* p) {
    p->noiseDictionary = nullptr;
    p->noiseCeiling = nullptr;
    if (!IsValidShape(p)) return;
    p->noiseCeiling = new float[std::size_t(p->channels)]();
    p->noiseDictionary = new float*[std::size_t(p->channels)]();
    for (int c = 0; c < p->channels; ++c)
        p->noiseDictionary[c] = new float[DictionaryFloats(p)]();
}

void FreeArrays(DNZ* p) {
    delete[] p->noiseCeiling;
    p->noiseCeiling = nullptr;
    if (p->noiseDictionary == nullptr) return;
    for (int c = 0; c < std::clamp<int>(p->channels, 0, kMaxChannels); ++c)
        delete[] p->noiseDictionary[c];
    delete[] p->noiseDictionary;
    p->noiseDictionary = nullptr;
}

void CopyDNZ(const DNZ* src, DNZ* dst, bool allocate) {
    CopyScalars(src, dst);
    if (allocate) AllocateArrays(dst);
    if (src->noiseDictionary == nullptr || dst->noiseDictionary == nullptr || !IsValidShape(src)) return;
    if (src->noiseCeiling != nullptr && dst->noiseCeiling != nullptr)
        std::copy_n(src->noiseCeiling, src->channels, dst->noiseCeiling);
    for (int c = 0; c < src->channels; ++c)
        std::copy_n(src->noiseDictionary[c], DictionaryFloats(src), dst->noiseDictionary[c]);
}

DNZ* CloneDNZ(const DNZ* src) {
    DNZ* copy = new DNZ{};
    CopyDNZ(src, copy, true);
    return copy;
}

OwnedDNZ& OwnedDNZ::operator=(const OwnedDNZ& other) {
    if (this == &other) return *this;
    DNZ copy{};
    CopyDNZ(&other.record, &copy, true);
    FreeArrays(&record);
    record = copy;
    return *this;
}

int FrameLengthFor(int sampleRate) {
    int n = 512;
    while (n < 8192 && std::abs(2.0 * n / sampleRate - 0.046) < std::abs(double(n) / sampleRate - 0.046))
        n *= 2;
    return n;
}

}  // namespace dsp::dnz
