// Writes the fuzz seed corpora into DIR/print, DIR/chunk, DIR/audio, DIR/processor and DIR/record:
// valid prints of both kinds with captured-looking statistics (and the leading byte that asks the
// decoder target to recompute the checksum), chunks of a few typical settings, short files of every
// container and encoding family the tool reads (and one cut short), a run of blocks for every
// processor class, and a record of each family.

#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "dsp/graphic.h"
#include "prints/noise_print_file.h"

namespace {

void Write(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// A short two-tone file in `format`, or nothing when this libsndfile cannot write it.
void WriteAudio(const std::filesystem::path& path, int format, int channels) {
    SF_INFO info{};
    info.samplerate = 44100;
    info.channels = channels;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) return;
    std::vector<float> frames(std::size_t(600 * channels));
    for (std::size_t i = 0; i < frames.size(); ++i)
        frames[i] = 0.5f * std::sin(0.05f * float(i)) + 0.25f * std::sin(0.31f * float(i % 7));
    sf_writef_float(file, frames.data(), 600);
    sf_close(file);
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
    for (const char* kind : {"audio", "processor", "record"})
        std::filesystem::create_directories(dir / kind);

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

    const struct {
        const char* name;
        int format;
        int channels;
    } files[] = {
        {"pcm16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2},
        {"float.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1},
        {"adpcm.wav", SF_FORMAT_WAV | SF_FORMAT_IMA_ADPCM, 1},
        {"pcm24.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 2},
        {"flac16.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 2},
        {"vorbis.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 2},
        {"opus.opus", SF_FORMAT_OGG | SF_FORMAT_OPUS, 1},
        {"double.caf", SF_FORMAT_CAF | SF_FORMAT_DOUBLE, 2},
        {"ulaw.au", SF_FORMAT_AU | SF_FORMAT_ULAW, 1},
        {"pcm32.w64", SF_FORMAT_W64 | SF_FORMAT_PCM_32, 2},
        {"pcm16.rf64", SF_FORMAT_RF64 | SF_FORMAT_PCM_16, 1},
        {"mp3.mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 1},
        {"wavex.wav", SF_FORMAT_WAVEX | SF_FORMAT_PCM_16, 2},
    };
    for (const auto& file : files)
        WriteAudio(dir / "audio" / file.name, file.format, file.channels);
    {
        // A WAV whose header announces more than it holds.
        const auto whole = dir / "audio" / "pcm16.wav";
        std::ifstream in(whole, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        Write(dir / "audio" / "cut-short.wav", bytes.substr(0, bytes.size() / 2));
    }

    // Processor runs: class, rate, channels, then bytes the class reads as settings, then three
    // blocks (size low, size high, kind, level) of noise, a square wave and an impulse.
    for (int cls = 0; cls < 14; ++cls) {
        std::string seed = {char(cls), char(3), char(1)};
        for (int i = 0; i < 40; ++i)
            seed += char(0x80 + ((i * 37) & 0x3F));
        seed += std::string{char(0x00), char(0x04), char(0),    char(200),  char(0x11), char(0),
                            char(1),    char(7),    char(0x00), char(0x01), char(5),    char(9)};
        Write(dir / "processor" / ("class-" + std::to_string(cls)), seed);
    }

    // Records: family, then shapes in range (2 channels, 64 bins) and list sizes.
    const std::string records[] = {
        {char(0), char(2), char(64), char(0), char(3), char(0), char(1), char(9)},
        {char(1), char(2), char(64), char(0), char(5), char(1), char(3), char(32), char(0), char(6), char(2)},
        {char(2), char(2), char(3), char(16), char(2), char(4), char(1), char(2), char(2), char(5), char(9), char(0)},
        {char(3), char(2), char(64), char(3), char(2), char(1), char(4), char(2), char(3), char(3), char(1), char(0)},
    };
    for (std::size_t i = 0; i < std::size(records); ++i)
        Write(dir / "record" / ("family-" + std::to_string(i)), records[i]);
    return 0;
}
