#include "audio_fixtures.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <stdexcept>

namespace kesta_test {

int IntegerBits(int format) {
    const int sub = format & SF_FORMAT_SUBMASK;  // PCM_S8 ... PCM_32 are 1 ... 4
    return sub == SF_FORMAT_PCM_U8 ? 8 : sub >= SF_FORMAT_PCM_S8 && sub <= SF_FORMAT_PCM_32 ? 8 * sub : 0;
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

double Db(double linear) {
    return 20.0 * std::log10(linear);
}

double LargestDifference(const Audio& a, const Audio& b) {
    double worst = 0.0;
    for (std::size_t c = 0; c < a.channels.size(); ++c)
        for (std::size_t i = 0; i < a.channels[c].size(); ++i)
            worst = std::max(worst, std::fabs(b.channels[c][i] - a.channels[c][i]));
    return worst;
}

void WriteAudio(const std::filesystem::path& path, const Audio& audio) {
    SF_INFO info{0, audio.rate, int(audio.channels.size()), audio.format, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr)
        throw std::runtime_error("cannot write fixture " + path.string() + ": " + sf_strerror(nullptr));
    if (!audio.title.empty()) sf_set_string(file, SF_STR_TITLE, audio.title.c_str());

    const std::size_t channels = audio.channels.size(), frames = std::size_t(audio.Frames());
    std::vector<double> x(channels * frames);
    for (std::size_t i = 0; i < frames; ++i)
        for (std::size_t c = 0; c < channels; ++c)
            x[i * channels + c] = audio.channels[c][i];
    if (const int bits = IntegerBits(audio.format); bits > 0) {
        std::vector<int> codes(x.size());
        for (std::size_t k = 0; k < x.size(); ++k)
            codes[k] = int(std::llround(x[k] * std::ldexp(1.0, bits - 1)) * (int64_t(1) << (32 - bits)));
        sf_writef_int(file, codes.data(), sf_count_t(frames));
    } else {
        sf_writef_double(file, x.data(), sf_count_t(frames));
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

    const std::size_t channels = std::size_t(info.channels), frames = std::size_t(info.frames);
    std::vector<double> x(channels * frames);
    if (const int bits = IntegerBits(info.format); bits > 0) {
        std::vector<int> codes(x.size());
        sf_readf_int(file, codes.data(), sf_count_t(frames));
        for (std::size_t k = 0; k < x.size(); ++k)
            x[k] = double(codes[k] / (int64_t(1) << (32 - bits))) / std::ldexp(1.0, bits - 1);
    } else {
        sf_readf_double(file, x.data(), sf_count_t(frames));
    }
    for (std::size_t i = 0; i < frames; ++i)
        for (std::size_t c = 0; c < channels; ++c)
            audio.channels[c][i] = x[i * channels + c];
    sf_close(file);
    return audio;
}

std::vector<double> ToneFrequencies(int channel) {
    return channel == 0 ? std::vector<double>{440.0, 1500.0} : std::vector<double>{660.0, 2500.0};
}

NoisyTake MakeNoisyTake(int format, double seconds, double leadInSeconds) {
    constexpr int kRate = 44100;
    const int64_t frames = std::llround(seconds * kRate);
    NoisyTake take;
    take.leadIn = std::llround(leadInSeconds * kRate);
    take.noisy.format = take.tones.format = format;
    take.noisy.rate = take.tones.rate = kRate;
    const int bits = IntegerBits(format);
    const double halfWidth = 0.01 * std::sqrt(3.0);  // uniform on [-w, w] has RMS w/sqrt(3)
    for (int c = 0; c < 2; ++c) {
        std::mt19937 random(1234u + unsigned(c));
        std::vector<double> noisy(static_cast<std::size_t>(frames)), tones(noisy.size(), 0.0);
        const std::vector<double> hz = ToneFrequencies(c);
        for (int64_t n = 0; n < frames; ++n) {
            const double noise = (double(random()) / 4294967295.0 * 2.0 - 1.0) * halfWidth;
            if (n >= take.leadIn)
                tones[std::size_t(n)] = 0.2 * std::sin(2.0 * std::numbers::pi * hz[0] * double(n) / kRate) +
                                        0.1 * std::sin(2.0 * std::numbers::pi * hz[1] * double(n) / kRate);
            const double x = tones[std::size_t(n)] + noise;
            noisy[std::size_t(n)] = bits > 0 ? Quantise(x, bits) : double(float(x));
        }
        take.noisy.channels.push_back(std::move(noisy));
        take.tones.channels.push_back(std::move(tones));
    }
    return take;
}

double RmsDb(const std::vector<double>& x, int64_t from, int64_t to) {
    long double sum = 0.0L;
    for (int64_t n = from; n < to; ++n)
        sum += (long double)x[std::size_t(n)] * x[std::size_t(n)];
    return 10.0 * std::log10(double(sum / (to - from)));
}

ToneFit FitTone(const std::vector<double>& x, int rate, double hz, int64_t from, int64_t to) {
    long double c = 0.0L, s = 0.0L;
    const double w = 2.0 * std::numbers::pi * hz / rate;
    for (int64_t n = from; n < to; ++n) {
        c += (long double)x[std::size_t(n)] * std::cos(w * double(n));
        s += (long double)x[std::size_t(n)] * std::sin(w * double(n));
    }
    const double scale = 2.0 / double(to - from);
    return {std::hypot(double(c) * scale, double(s) * scale), std::atan2(-double(s), double(c))};
}

double PhaseDifference(double a, double b) {
    return std::remainder(a - b, 2.0 * std::numbers::pi);
}

Audio SineMix(int channels, int rate, double seconds, const std::vector<double>& hz) {
    Audio audio;
    audio.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    audio.rate = rate;
    const auto frames = std::size_t(std::llround(seconds * rate));
    for (int c = 0; c < channels; ++c) {
        std::vector<double> x(frames, 0.0);
        for (std::size_t n = 0; n < frames; ++n) {
            for (double f : hz)
                x[n] += 0.2 / (c + 1) * std::sin(2.0 * std::numbers::pi * f * double(n) / rate + f / 1000.0 + c);
            x[n] = double(float(x[n]));  // exactly what the float file holds
        }
        audio.channels.push_back(std::move(x));
    }
    return audio;
}

ToneChange MeasureChange(const std::vector<double>& in, const std::vector<double>& out, int rate, double hz) {
    const auto frames = int64_t(std::min(in.size(), out.size()));
    const int64_t from = frames / 4, to = frames - frames / 4;
    const ToneFit before = FitTone(in, rate, hz, from, to), after = FitTone(out, rate, hz, from, to);
    return {20.0 * std::log10(after.amplitude / before.amplitude), PhaseDifference(after.phase, before.phase)};
}

}  // namespace kesta_test
