// The print decoder under hostile bytes. The first byte chooses how the rest is taken: as a whole
// file (bit 0 set), or as a file whose checksum is recomputed first, as a program that edits a
// print would do; without that the fuzzer would rarely get past the checksum. A print the decoder
// accepts is then used as a reading run uses it, and the processed audio must stay finite.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "dsp/nohiss.h"
#include "dsp/nonoise.h"
#include "errors.h"
#include "fuzz_input.h"
#include "prints/noise_print_file.h"

namespace {

constexpr std::size_t kChecksumBytes = 4;
constexpr std::size_t kMagicBytes = 8;

void ExpectFinite(float* const* channels, int count, int frames) {
    for (int c = 0; c < count; ++c)
        for (int i = 0; i < frames; ++i)
            if (!std::isfinite(channels[c][i])) std::abort();
}

// Two frames' worth of noise through the processor the print was made for.
template <typename Process>
void Run(Process& process, int channels, int fftSize) {
    const int frames = 2 * fftSize + 7;
    std::vector<std::vector<float>> audio(static_cast<std::size_t>(channels),
                                          std::vector<float>(static_cast<std::size_t>(frames)));
    std::vector<float*> pointers;
    for (int c = 0; c < channels; ++c) {
        kesta_fuzz::FillNoise(audio[std::size_t(c)].data(), std::size_t(frames), uint32_t(c + 1));
        pointers.push_back(audio[std::size_t(c)].data());
    }
    process.Resume();
    process.Process(pointers.data(), pointers.data(), channels, frames);
    ExpectFinite(pointers.data(), channels, frames);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    if ((data[0] & 1) == 0 && bytes.size() >= kMagicBytes + kChecksumBytes) {
        const uint32_t crc =
            kesta::Crc32(std::string_view(bytes).substr(kMagicBytes, bytes.size() - kMagicBytes - kChecksumBytes));
        for (std::size_t k = 0; k < kChecksumBytes; ++k)
            bytes[bytes.size() - kChecksumBytes + k] = char((crc >> (8 * k)) & 0xFF);
    }
    kesta::PrintFile print;
    try {
        print = kesta::DecodePrintFile(bytes, "fuzz.knp");
    } catch (const kesta::CliError& refused) {
        const std::string line = refused.Message();
        if (line.empty() || line.find('\n') != std::string::npos) std::abort();
        return 0;
    }
    if (print.noise) {
        dsp::nonoise::NoNoiseProcess process(print.noise.get());
        Run(process, print.channels, print.fftSize);
    } else {
        dsp::nohiss::ComputeThresholdsFromFloor(print.hiss.get());
        dsp::nohiss::NoHissProcess process(print.hiss.get());
        Run(process, print.channels, print.fftSize);
    }
    return 0;
}
