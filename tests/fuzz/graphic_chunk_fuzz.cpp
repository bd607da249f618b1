// The graphic equaliser under a hostile settings chunk and indexed parameters: the first bytes
// choose the chunk's declared size, the sample rate (and whether the accuracy may be large) and the
// channel count, then up to 140 bytes
// are the chunk, then (index, value) pairs go through SetParameter between processing calls. The
// output of finite input must stay finite whatever was set.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dsp/graphic.h"
#include "fuzz_input.h"

namespace {

constexpr int kChunkBytes = 140;
constexpr int kRates[] = {8000, 22050, 44100, 48000, 96000, 192000};
constexpr int kFrames = 64;

void ProcessAndCheck(dsp::Graphic& eq, int channels, uint32_t seed) {
    std::vector<std::vector<float>> audio(static_cast<std::size_t>(channels), std::vector<float>(kFrames));
    std::vector<float*> pointers;
    for (int c = 0; c < channels; ++c) {
        kesta_fuzz::FillNoise(audio[std::size_t(c)].data(), kFrames, seed + uint32_t(c));
        pointers.push_back(audio[std::size_t(c)].data());
    }
    eq.Process(pointers.data(), pointers.data(), channels, kFrames);
    float in[2] = {0.25f, -0.5f}, out[2] = {};
    eq.ProcessOneSample(in, out);
    for (int c = 0; c < channels; ++c)
        for (float v : audio[std::size_t(c)])
            if (!std::isfinite(v)) std::abort();
    for (int c = 0; c < channels; ++c)
        if (!std::isfinite(out[c])) std::abort();
    if (eq.GetLatency() < 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    kesta_fuzz::Input input(data, size);
    const int declared = int(int8_t(input.Byte())) * 2;  // -256 ... 254: negative, short, whole, long
    const uint8_t rateByte = input.Byte();
    const int rate = kRates[(rateByte & 0x7F) % 6];
    // Most runs design a short impulse, so the fuzzer runs many settings per second; the top bit of
    // the rate byte keeps the chunk's own accuracy (up to 8192, a slow design).
    const bool anyAccuracy = (rateByte & 0x80) != 0;
    const int channels = 1 + input.Byte() % 2;
    std::vector<uint8_t> chunk(kChunkBytes + 128, 0);
    const std::size_t given = input.Left() < std::size_t(kChunkBytes) ? input.Left() : std::size_t(kChunkBytes);
    for (std::size_t i = 0; i < given; ++i)
        chunk[i] = input.Byte();

    if (!anyAccuracy) {
        const float shortDesign = 10.0f + float(chunk[0]);
        std::memcpy(chunk.data(), &shortDesign, sizeof shortDesign);
    }

    dsp::Graphic eq;
    eq.SetSampleRate(rate);
    eq.SetChannels(channels);
    const int copied = eq.SetChunk(chunk.data(), declared, false);
    if (copied < 0 || copied > kChunkBytes) std::abort();
    for (int i = 0; i < 35; ++i) {
        float lo = 0, hi = 0;
        eq.GetBounds(i, lo, hi);
        const float v = eq.GetParameter(i);
        if (i != 3 && !(v >= lo && v <= hi)) std::abort();  // index 3 is a command, never stored
    }
    ProcessAndCheck(eq, channels, 1);
    for (int round = 0; round < 4 && input.Left() >= 5; ++round) {
        const int index = int(int8_t(input.Byte()));
        eq.SetParameter(index, input.Float());
        if (input.Byte() & 1) continue;  // several changes before the next processing call
        ProcessAndCheck(eq, channels, uint32_t(round + 2));
    }
    ProcessAndCheck(eq, channels, 9);
    return 0;
}
