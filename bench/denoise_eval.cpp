// Noise reduction on real recordings: the noisy corpus and its scores (bench/denoise_compare
// drives it).
//   kesta_denoise_eval mix CLEAN.wav OUT.wav TYPE SNR_DB LEAD_SECONDS [inverted]
//       OUT: LEAD_SECONDS of noise alone, then CLEAN plus noise of TYPE (white, pink, brown, hum,
//       fan) at SNR_DB below CLEAN's RMS; OUT.clean.wav: CLEAN with the same lead of silence.
//       With `inverted`, the same noise is subtracted instead of added.
//   kesta_denoise_eval score CLEAN.wav NOISY.wav OUT.wav LEAD_SECONDS
//       prints ΔSI-SDR, Δ segmental SNR (20 ms frames, each clamped to −10 ... 35 dB) over the
//       programme after the lead, and the level of OUT in the programme's pauses (50 ms windows
//       more than 40 dB below the programme's 95th-percentile level) relative to NOISY's there.
//   kesta_denoise_eval lines CLEAN.wav NOISY.wav OUT.wav OUT_INVERTED.wav
//       for the hum type's lines (50 Hz and its harmonics to 1 kHz), each measured over the whole
//       file by a Hann-windowed projection onto the line's frequency (a band of about 1.5/length
//       Hz), the level against the input noise's (NOISY − CLEAN) there, in dB, of
//         - the residual noise OUT − CLEAN. It also holds whatever the method took from the
//           programme at the line's frequency, so it cannot fall below the programme's own level
//           there (printed as `floor`: what removing everything at the line would leave);
//         - the noise the method let through, (OUT − OUT_INVERTED)/2, where OUT_INVERTED is the
//           method's output for the mix with the noise inverted (the phase-inversion separation of
//           Hagerman and Olofsson): what the method does to the programme cancels, what it leaves
//           of the line does not.
//       Prints for each measure the worst (highest) and mean change over the lines, then the
//       floor, then each line's change by the second measure.
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

#include "support/signals.h"

namespace {

struct Audio {
    int rate = 0;
    int channels = 0;
    std::vector<float> samples;  // interleaved
};

Audio Read(const std::string& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        std::exit(1);
    }
    Audio a{info.samplerate, info.channels, std::vector<float>(std::size_t(info.frames * info.channels))};
    sf_readf_float(file, a.samples.data(), info.frames);
    sf_close(file);
    return a;
}

void Write(const std::string& path, const Audio& a) {
    SF_INFO info{};
    info.samplerate = a.rate;
    info.channels = a.channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
    sf_writef_float(file, a.samples.data(), sf_count_t(a.samples.size() / std::size_t(a.channels)));
    sf_close(file);
}

// One channel of noise of the given type, unit RMS.
std::vector<double> Noise(const std::string& type, std::size_t n, int rate, uint64_t seed) {
    kesta::test::Random random(seed);
    std::vector<double> x(n);
    const double pi = std::numbers::pi;
    if (type == "white") {
        for (double& v : x)
            v = random.Gaussian();
    } else if (type == "pink") {  // Kellet's refined filter on white noise
        double b[7] = {};
        for (double& v : x) {
            const double w = random.Gaussian();
            b[0] = 0.99886 * b[0] + w * 0.0555179;
            b[1] = 0.99332 * b[1] + w * 0.0750759;
            b[2] = 0.96900 * b[2] + w * 0.1538520;
            b[3] = 0.86650 * b[3] + w * 0.3104856;
            b[4] = 0.55000 * b[4] + w * 0.5329522;
            b[5] = -0.7616 * b[5] - w * 0.0168980;
            v = b[0] + b[1] + b[2] + b[3] + b[4] + b[5] + b[6] + w * 0.5362;
            b[6] = w * 0.115926;
        }
    } else if (type == "brown") {  // leaky integration (corner near 10 Hz)
        double y = 0.0;
        const double leak = std::exp(-2.0 * pi * 10.0 / rate);
        for (double& v : x)
            v = y = leak * y + random.Gaussian();
    } else if (type == "hum") {  // 50 Hz and harmonics to 1 kHz, falling 1/h, over white at −35 dB
        const double phase0 = random.Uniform();
        for (std::size_t i = 0; i < n; ++i) {
            double v = 0.0;
            for (int h = 1; h <= 20; ++h)
                v += std::sin(2.0 * pi * (50.0 * h * double(i) / rate + phase0 * h)) / h;
            x[i] = v + 0.02 * random.Gaussian();
        }
    } else if (type == "fan") {  // white through two resonances (120 Hz, 900 Hz), swelling ±3 dB at 0.2 Hz
        double s1[2] = {}, s2[2] = {};
        auto resonator = [&](double* s, double f, double q, double in) {
            const double r = std::exp(-pi * f / q / rate), c = 2.0 * r * std::cos(2.0 * pi * f / rate);
            const double y = in + c * s[0] - r * r * s[1];
            s[1] = s[0];
            s[0] = y;
            return y * (1.0 - r);
        };
        for (std::size_t i = 0; i < n; ++i) {
            const double w = random.Gaussian();
            const double swell = std::pow(10.0, 3.0 / 20.0 * std::sin(2.0 * pi * 0.2 * double(i) / rate));
            x[i] = swell * (resonator(s1, 120.0, 4.0, w) + 0.5 * resonator(s2, 900.0, 2.0, w) + 0.05 * w);
        }
    } else {
        std::fprintf(stderr, "unknown noise type %s\n", type.c_str());
        std::exit(2);
    }
    double sum = 0.0;
    for (double v : x)
        sum += v * v;
    const double rms = std::sqrt(sum / double(n));
    for (double& v : x)
        v /= rms;
    return x;
}

int Mix(const std::string& cleanPath, const std::string& outPath, const std::string& type, double snrDb, double lead,
        bool inverted) {
    const Audio clean = Read(cleanPath);
    const int C = clean.channels;
    const std::size_t leadFrames = std::size_t(lead * clean.rate), frames = clean.samples.size() / std::size_t(C);
    double sum = 0.0;
    for (float v : clean.samples)
        sum += double(v) * v;
    const double noiseRms =
        std::sqrt(sum / double(clean.samples.size())) * std::pow(10.0, -snrDb / 20.0) * (inverted ? -1.0 : 1.0);
    Audio padded{clean.rate, C, std::vector<float>((leadFrames + frames) * std::size_t(C), 0.0f)};
    std::copy(clean.samples.begin(), clean.samples.end(), padded.samples.begin() + std::ptrdiff_t(leadFrames * C));
    Audio noisy = padded;
    for (int c = 0; c < C; ++c) {
        const std::vector<double> n = Noise(type, leadFrames + frames, clean.rate, 1000 + c);
        for (std::size_t i = 0; i < n.size(); ++i)
            noisy.samples[i * C + c] += float(noiseRms * n[i]);
    }
    Write(outPath, noisy);
    Write(outPath + ".clean.wav", padded);
    return 0;
}

double SiSdr(const std::vector<double>& s, const std::vector<double>& y) {
    double sy = 0.0, ss = 0.0;
    for (std::size_t i = 0; i < s.size(); ++i)
        sy += s[i] * y[i], ss += s[i] * s[i];
    const double a = sy / ss;
    double target = 0.0, error = 0.0;
    for (std::size_t i = 0; i < s.size(); ++i) {
        target += a * s[i] * a * s[i];
        error += (y[i] - a * s[i]) * (y[i] - a * s[i]);
    }
    return 10.0 * std::log10(target / std::max(error, 1e-30));
}

double SegSnr(const std::vector<double>& s, const std::vector<double>& y, std::size_t frame) {
    double total = 0.0;
    int count = 0;
    for (std::size_t i = 0; i + frame <= s.size(); i += frame) {
        double sig = 0.0, err = 0.0;
        for (std::size_t j = i; j < i + frame; ++j)
            sig += s[j] * s[j], err += (y[j] - s[j]) * (y[j] - s[j]);
        total += std::clamp(10.0 * std::log10(std::max(sig, 1e-30) / std::max(err, 1e-30)), -10.0, 35.0);
        ++count;
    }
    return total / std::max(count, 1);
}

int Score(const std::string& cleanPath, const std::string& noisyPath, const std::string& outPath, double lead) {
    const Audio clean = Read(cleanPath), noisy = Read(noisyPath), out = Read(outPath);
    const int C = clean.channels;
    const std::size_t frames = std::min({clean.samples.size(), noisy.samples.size(), out.samples.size()}) / C;
    const std::size_t from = std::size_t(lead * clean.rate);
    double dSi = 0.0, dSeg = 0.0;
    for (int c = 0; c < C; ++c) {
        std::vector<double> s, x, y;
        for (std::size_t i = from; i < frames; ++i) {
            s.push_back(clean.samples[i * C + c]);
            x.push_back(noisy.samples[i * C + c]);
            y.push_back(out.samples[i * C + c]);
        }
        dSi += (SiSdr(s, y) - SiSdr(s, x)) / C;
        const std::size_t seg = std::size_t(clean.rate / 50);
        dSeg += (SegSnr(s, y, seg) - SegSnr(s, x, seg)) / C;
    }
    // Pauses of the programme (lead included): 50 ms windows well below its level.
    const std::size_t w = std::size_t(clean.rate / 20);
    std::vector<double> level, noisyE, outE;
    for (std::size_t i = 0; i + w <= frames; i += w) {
        double e = 0.0, en = 0.0, eo = 0.0;
        for (std::size_t j = i * C; j < (i + w) * C; ++j)
            e += double(clean.samples[j]) * clean.samples[j], en += double(noisy.samples[j]) * noisy.samples[j],
                eo += double(out.samples[j]) * out.samples[j];
        level.push_back(e), noisyE.push_back(en), outE.push_back(eo);
    }
    std::vector<double> sorted = level;
    std::sort(sorted.begin(), sorted.end());
    const double threshold = sorted[sorted.size() * 95 / 100] * 1e-4;
    double pn = 0.0, po = 0.0;
    for (std::size_t i = 0; i < level.size(); ++i)
        if (level[i] <= threshold) pn += noisyE[i], po += outE[i];
    std::printf("%.3f %.3f %.3f\n", dSi, dSeg, pn > 0.0 ? 10.0 * std::log10(std::max(po, 1e-30) / pn) : 0.0);
    return 0;
}

// The power at `frequency` of a Hann-windowed projection over the whole of x (double throughout).
double LinePower(const std::vector<double>& x, double frequency, int rate) {
    const double pi = std::numbers::pi, n = double(x.size());
    double re = 0.0, im = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double w = 0.5 - 0.5 * std::cos(2.0 * pi * (double(i) + 0.5) / n);
        const double phase = 2.0 * pi * std::fmod(frequency * double(i) / rate, 1.0);
        re += w * x[i] * std::cos(phase), im -= w * x[i] * std::sin(phase);
    }
    return re * re + im * im;
}

int Lines(const std::string& cleanPath, const std::string& noisyPath, const std::string& outPath,
          const std::string& invertedPath) {
    const Audio clean = Read(cleanPath), noisy = Read(noisyPath), out = Read(outPath), inv = Read(invertedPath);
    const int C = clean.channels;
    const std::size_t frames =
        std::min({clean.samples.size(), noisy.samples.size(), out.samples.size(), inv.samples.size()}) / C;
    constexpr int kLines = 20;
    // Per line: the input noise, the residual, the separated noise, the programme.
    double power[4][kLines] = {};
    std::vector<double> x[4];
    for (int c = 0; c < C; ++c) {
        for (auto& v : x)
            v.assign(frames, 0.0);
        for (std::size_t i = 0; i < frames; ++i) {
            const std::size_t j = i * C + c;
            x[0][i] = double(noisy.samples[j]) - clean.samples[j];
            x[1][i] = double(out.samples[j]) - clean.samples[j];
            x[2][i] = 0.5 * (double(out.samples[j]) - inv.samples[j]);
            x[3][i] = clean.samples[j];
        }
        for (int m = 0; m < 4; ++m)
            for (int h = 1; h <= kLines; ++h)
                power[m][h - 1] += LinePower(x[m], 50.0 * h, clean.rate);
    }
    auto db = [&](int m, int h) {
        return 10.0 * std::log10(std::max(power[m][h], 1e-30) / std::max(power[0][h], 1e-30));
    };
    double worst[4] = {-INFINITY, -INFINITY, -INFINITY, -INFINITY}, mean[4] = {};
    for (int m = 1; m < 4; ++m)
        for (int h = 0; h < kLines; ++h)
            worst[m] = std::max(worst[m], db(m, h)), mean[m] += db(m, h) / kLines;
    std::printf("%.1f %.1f %.1f %.1f %.1f", worst[1], mean[1], worst[2], mean[2], worst[3]);
    for (int h = 0; h < kLines; ++h)
        std::printf(" %.0f", db(2, h));
    std::printf("\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "mix" && (argc == 7 || (argc == 8 && std::string(argv[7]) == "inverted")))
        return Mix(argv[2], argv[3], argv[4], std::atof(argv[5]), std::atof(argv[6]), argc == 8);
    if (mode == "score" && argc == 6) return Score(argv[2], argv[3], argv[4], std::atof(argv[5]));
    if (mode == "lines" && argc == 6) return Lines(argv[2], argv[3], argv[4], argv[5]);
    std::fprintf(stderr,
                 "usage: kesta_denoise_eval mix CLEAN OUT TYPE SNR LEAD [inverted] | score CLEAN NOISY OUT LEAD | "
                 "lines CLEAN NOISY OUT OUT_INVERTED\n");
    return 2;
}
