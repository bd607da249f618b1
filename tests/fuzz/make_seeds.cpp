// Writes the fuzz seed corpora into DIR/print and DIR/chunk: valid prints of both kinds with
// captured-looking statistics (and the leading byte that asks the decoder target to recompute the
// checksum), and chunks of a few typical settings.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "dsp/graphic.h"
#include "prints/noise_print_file.h"

namespace {

void Write(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::filesystem::create_directories(dir / "print");
    std::filesystem::create_directories(dir / "chunk");

    const int shapes[][2] = {{1, 16}, {2, 32}, {3, 64}};
    for (const auto& [channels, fftSize] : shapes) {
        kesta::NoNoisePtr noise = kesta::MakeNoNoise(channels, fftSize);
        noise->overlap = 4;
        kesta::NoHissPtr hiss = kesta::MakeNoHiss(channels, fftSize, 44100);
        hiss->overlap = 4;
        for (int c = 0; c < channels; ++c) {
            noise->dcMin[c] = noise->dcMax[c] = 0.001;
            hiss->floorLevel[c] = -60.0f;
            for (int k = 0; k < fftSize; ++k) {
                noise->binMin[c][k] = 0.001 * (k + 1);
                noise->binRms[c][k] = 0.002 * (k + 1);
                noise->binMax[c][k] = 0.004 * (k + 1);
                hiss->floorRows[c][k] = 0.001 * (c + k + 1);
            }
        }
        const std::string name = std::to_string(channels) + "x" + std::to_string(fftSize);
        for (const char lead : {'\0', '\1'}) {
            const std::string tag = lead ? "-as-is" : "";
            Write(dir / "print" / ("noise-" + name + tag), lead + kesta::EncodeNoisePrint(*noise, 44100, {0, 4410}));
            Write(dir / "print" / ("hiss-" + name + tag), lead + kesta::EncodeHissFloor(*hiss, {100, 5000}));
        }
    }

    // Chunk seeds: the three leading bytes (declared size 140, 44.1 kHz, stereo), then the chunk.
    const float settings[][3] = {{10.0f, 0.0f, 0.0f}, {64.0f, 6.0f, 1.0f}, {200.0f, -12.0f, 2.0f}};
    for (const auto& [accuracy, gain, layout] : settings) {
        dsp::Graphic eq;
        eq.SetParameter(0, accuracy);
        eq.SetParameter(34, layout);
        eq.SetParameter(1, gain);
        eq.SetParameter(6, gain);
        void* block = nullptr;
        const int bytes = eq.GetChunk(&block, false);
        std::string seed = {char(70), char(2), char(1)};
        seed.append(static_cast<const char*>(block), std::size_t(bytes));
        Write(dir / "chunk" / ("chunk-" + std::to_string(int(accuracy))), seed);
    }
    return 0;
}
