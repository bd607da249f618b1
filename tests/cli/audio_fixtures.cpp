#include "audio_fixtures.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace kesta_test {

int IntegerBits(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_PCM_S8: return 8;
        case SF_FORMAT_PCM_16: return 16;
        case SF_FORMAT_PCM_24: return 24;
        case SF_FORMAT_PCM_32: return 32;
        default: return 0;
    }
}

double Quantise(double x, int bits) {
    const double scale = std::ldexp(1.0, bits - 1);
    return std::clamp(std::nearbyint(x * scale), -scale, scale - 1.0) / scale;
}

std::vector<double> Sine(int64_t frames, int rate, double hz, double amplitude, double offset, int bits) {
    std::vector<double> samples(static_cast<std::size_t>(frames));
    for (int64_t n = 0; n < frames; ++n) {
        const double x = offset + amplitude * std::sin(2.0 * std::numbers::pi * hz * double(n) / rate);
        samples[std::size_t(n)] = bits > 0 ? Quantise(x, bits) : x;
    }
    return samples;
}

Audio StereoTone16() {
    Audio audio;
    audio.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    audio.rate = 48000;
    audio.channels.push_back(Sine(48000, 48000, 1000.0, 0.5, 0.0, 16));
    audio.channels.push_back(Sine(48000, 48000, 440.0, 0.25, 0.25, 16));
    audio.channels[1][1234] = -0.75;
    return audio;
}

Audio ToneAndSilence24Flac() {
    Audio audio;
    audio.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
    audio.rate = 44100;
    audio.channels.push_back(Sine(22050, 44100, 997.0, 0.9, 0.0, 24));
    audio.channels.push_back(std::vector<double>(22050, 0.0));
    return audio;
}

Levels MeasureLevels(const std::vector<double>& samples) {
    long double squares = 0.0L, sum = 0.0L;
    Levels levels;
    for (double x : samples) {
        levels.peak = std::max(levels.peak, std::fabs(x));
        squares += (long double)x * x;
        sum += x;
    }
    levels.rms = double(std::sqrt(squares / samples.size()));
    levels.mean = double(sum / samples.size());
    return levels;
}

double Db(double linear) { return 20.0 * std::log10(linear); }

void WriteAudio(const std::filesystem::path& path, const Audio& audio) {
    SF_INFO info{};
    info.samplerate = audio.rate;
    info.channels = int(audio.channels.size());
    info.format = audio.format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) throw std::runtime_error("cannot write fixture " + path.string() + ": " + sf_strerror(nullptr));
    if (!audio.title.empty()) sf_set_string(file, SF_STR_TITLE, audio.title.c_str());

    const int bits = IntegerBits(audio.format);
    const std::size_t channels = audio.channels.size(), frames = std::size_t(audio.Frames());
    if (bits > 0) {
        std::vector<int> interleaved(channels * frames);
        for (std::size_t i = 0; i < frames; ++i)
            for (std::size_t c = 0; c < channels; ++c)
                interleaved[i * channels + c] =
                    int(std::llround(audio.channels[c][i] * std::ldexp(1.0, bits - 1)) * (int64_t(1) << (32 - bits)));
        sf_writef_int(file, interleaved.data(), sf_count_t(frames));
    } else {
        std::vector<double> interleaved(channels * frames);
        for (std::size_t i = 0; i < frames; ++i)
            for (std::size_t c = 0; c < channels; ++c) interleaved[i * channels + c] = audio.channels[c][i];
        sf_writef_double(file, interleaved.data(), sf_count_t(frames));
    }
    sf_close(file);
}

Audio ReadAudio(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) throw std::runtime_error("cannot read " + path.string() + ": " + sf_strerror(nullptr));
    Audio audio;
    audio.format = info.format;
    audio.rate = info.samplerate;
    if (const char* title = sf_get_string(file, SF_STR_TITLE)) audio.title = title;
    audio.channels.assign(std::size_t(info.channels), std::vector<double>(std::size_t(info.frames)));

    const int bits = IntegerBits(info.format);
    const std::size_t channels = std::size_t(info.channels), frames = std::size_t(info.frames);
    if (bits > 0) {
        std::vector<int> interleaved(channels * frames);
        sf_readf_int(file, interleaved.data(), sf_count_t(frames));
        for (std::size_t i = 0; i < frames; ++i)
            for (std::size_t c = 0; c < channels; ++c)
                audio.channels[c][i] = double(interleaved[i * channels + c] / (int64_t(1) << (32 - bits))) /
                                       std::ldexp(1.0, bits - 1);
    } else {
        std::vector<double> interleaved(channels * frames);
        sf_readf_double(file, interleaved.data(), sf_count_t(frames));
        for (std::size_t i = 0; i < frames; ++i)
            for (std::size_t c = 0; c < channels; ++c) audio.channels[c][i] = interleaved[i * channels + c];
    }
    sf_close(file);
    return audio;
}

}  // namespace kesta_test
