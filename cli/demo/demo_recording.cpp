#include "demo_recording.h"

#include <algorithm>
#include <cmath>

namespace kesta {

namespace {

constexpr double kPi = 3.14159265358979323846;

// A small generator of our own, so the recording is the same on every platform.
class Random {
public:
    explicit Random(uint64_t seed) : mState(seed * 0x9E3779B97F4A7C15ull + 1) {}
    double Uniform() {  // [0, 1)
        uint64_t z = (mState += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return double((z ^ (z >> 31)) >> 11) / 9007199254740992.0;
    }
    double Between(double low, double high) { return low + (high - low) * Uniform(); }
    double Gauss() {
        const double u = 1.0 - Uniform(), v = Uniform();
        return std::sqrt(-2.0 * std::log(u)) * std::cos(2.0 * kPi * v);
    }

private:
    uint64_t mState;
};

// A second-order section, direct form I (low- and high-pass by the usual bilinear design).
struct Biquad {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0, x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    static Biquad Pass(double hz, double rate, bool high) {
        const double w = 2.0 * kPi * hz / rate, alpha = std::sin(w) / (2.0 * std::sqrt(0.5)), c = std::cos(w);
        const double a0 = 1.0 + alpha;
        Biquad f;
        f.b0 = (high ? (1.0 + c) : (1.0 - c)) / 2.0 / a0;
        f.b1 = (high ? -(1.0 + c) : (1.0 - c)) / a0;
        f.b2 = f.b0;
        f.a1 = -2.0 * c / a0;
        f.a2 = (1.0 - alpha) / a0;
        return f;
    }
    double operator()(double x) {
        const double y = b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
        x2 = x1, x1 = x, y2 = y1, y1 = y;
        return y;
    }
};

// A two-pole resonance at a formant.
struct Resonator {
    double c1, c2, gain, y1 = 0, y2 = 0;
    Resonator(double hz, double bandwidth, double rate) {
        const double r = std::exp(-kPi * bandwidth / rate);
        c1 = 2.0 * r * std::cos(2.0 * kPi * hz / rate);
        c2 = -r * r;
        gain = 1.0 - r;
    }
    double operator()(double x) {
        const double y = gain * x + c1 * y1 + c2 * y2;
        y2 = y1, y1 = y;
        return y;
    }
};

void Normalise(std::vector<double>& x, double peak) {
    double largest = 0.0;
    for (double v : x)
        largest = std::max(largest, std::fabs(v));
    if (largest > 0.0)
        for (double& v : x)
            v *= peak / largest;
}

// Notes of a melody and a bass line from `start` for `seconds`, each with harmonics falling
// 1/k^1.3, vibrato that sets in after the attack, a quick attack, a decay to a sustain level and a
// release. Each harmonic starts at a phase of its own: an instrument's partials are not locked in
// sine phase, and a room scatters them further; locked, they would add up to a sawtooth's cliff
// in every period, a drop of the note's whole swing within a few samples that no microphone
// delivers.
std::vector<double> Music(Random& random, double rate, int64_t frames, double start, double seconds) {
    std::vector<double> out(static_cast<std::size_t>(frames), 0.0);
    const int scale[] = {0, 3, 5, 7, 10, 12, 15};  // minor pentatonic over an octave and a bit
    const auto note = [&](double at, double length, double hz, double level, double brightness) {
        const int64_t first = int64_t(at * rate), count = int64_t((length + 0.08) * rate);
        const double vibratoHz = random.Between(4.8, 6.2), phase0 = random.Between(0.0, 2.0 * kPi);
        double partialPhase[13];
        for (double& p : partialPhase)
            p = random.Between(0.0, 2.0 * kPi);
        double phase = 0.0;
        for (int64_t i = 0; i < count && first + i < frames; ++i) {
            const double t = i / rate;
            const double vibrato = 0.006 * std::min(1.0, t / 0.25) * std::sin(2.0 * kPi * vibratoHz * t + phase0);
            phase += 2.0 * kPi * hz * (1.0 + vibrato) / rate;
            double envelope = std::min(1.0, t / 0.012) * (0.55 + 0.45 * std::exp(-t / 0.18));
            if (t > length) envelope *= std::exp(-(t - length) / 0.02);
            double sum = 0.0;
            for (int k = 1; k <= 12 && k * hz < rate * 0.45; ++k)
                sum += std::sin(k * phase + partialPhase[k]) / std::pow(double(k), brightness);
            out[std::size_t(first + i)] += level * envelope * sum;
        }
    };
    for (double t = start; t < start + seconds - 0.4;) {
        const double length = random.Between(0.22, 0.55);
        const int degree = scale[int(random.Uniform() * 7)];
        note(t, length, 440.0 * std::pow(2.0, degree / 12.0 - 0.5), 0.30, 1.3);
        t += length + random.Between(0.0, 0.06);
    }
    const int bass[] = {-12, -16, -9, -14};
    for (int k = 0; start + 1.2 * (k + 1) <= start + seconds; ++k)
        note(start + 1.2 * k, 1.1, 110.0 * std::pow(2.0, bass[k % 4] / 12.0 + 1.0), 0.22, 1.6);
    return out;
}

// The glottal flow at a point of the period (0 to 1): a raised-cosine opening over 40 % of the
// period, a quarter-cosine closing over the next 16 %, shut after.
double GlottalFlow(double phase) {
    constexpr double open = 0.40, closing = 0.16;
    if (phase < open) return 0.5 * (1.0 - std::cos(kPi * phase / open));
    if (phase < open + closing) return std::cos(0.5 * kPi * (phase - open) / closing);
    return 0.0;
}

// Words of two or three syllables: a voiced part (glottal pulses at a falling pitch through three
// formant resonances), some with an unvoiced onset (filtered noise), band-limited to 200 Hz to
// 3.6 kHz; pauses between the words.
//
// A glottal pulse is the airflow through the vocal folds over one period: it swells while they
// open (40 % of the period), falls faster as they close (16 %) and stays at nothing while they are
// shut. What a microphone hears is the flow's rate of change (the lips radiate its derivative),
// sharpest at the closure; that drives the resonances.
std::vector<double> Speech(Random& random, double rate, int64_t frames, double start, double seconds,
                           std::vector<Stretch>& pauses) {
    struct Vowel {
        double f1, f2, f3;
    };
    const Vowel vowels[] = {
        {730, 1090, 2440}, {270, 2290, 3010}, {300, 870, 2240}, {530, 1840, 2480}, {570, 840, 2410}};
    std::vector<double> out(static_cast<std::size_t>(frames), 0.0);
    double t = start;
    while (t < start + seconds - 0.8) {
        const int syllables = 2 + int(random.Uniform() * 2);
        const double pitch = random.Between(125.0, 165.0);
        for (int s = 0; s < syllables; ++s) {
            const double length = random.Between(0.14, 0.26);
            const int64_t first = int64_t(t * rate), count = int64_t(length * rate);
            const Vowel& v = vowels[int(random.Uniform() * 5)];
            Resonator r1(v.f1, 90, rate), r2(v.f2, 110, rate), r3(v.f3, 150, rate);
            Biquad hiss = Biquad::Pass(2500.0, rate, true);
            const int64_t unvoiced = random.Uniform() < 0.5 ? int64_t(random.Between(0.03, 0.06) * rate) : 0;
            double phase = 0.0, flow = 0.0;
            for (int64_t i = 0; i < count + unvoiced && first + i < frames; ++i) {
                double x = 0.0;
                if (i < unvoiced) {
                    x = 0.25 * hiss(random.Gauss()) * std::sin(kPi * double(i) / double(unvoiced));
                } else {
                    const double u = double(i - unvoiced) / double(count);
                    const double hz = pitch * (1.0 - 0.2 * (s + u) / syllables);
                    phase += hz / rate;
                    if (phase >= 1.0) phase -= 1.0;
                    const double opened = GlottalFlow(phase), change = opened - flow;
                    flow = opened;
                    const double envelope = std::sin(kPi * std::min(1.0, u * 1.1));
                    x = envelope * r3(r2(r1(change * 40.0)));
                }
                out[std::size_t(first + i)] += x;
            }
            t += length + double(unvoiced) / rate + random.Between(0.01, 0.04);
        }
        const double pause = random.Between(0.35, 0.6);
        // The pause as heard: after the last syllable's resonance has died away.
        pauses.push_back({int64_t((t + 0.04) * rate), int64_t((t + pause - 0.02) * rate)});
        t += pause;
    }
    Biquad low = Biquad::Pass(200.0, rate, true), high = Biquad::Pass(3600.0, rate, false);
    for (double& x : out)
        x = high(low(x));
    return out;
}

// Clamps x to +-level and lists the runs of samples the clamp changed (a run is one sign).
void Clip(std::vector<float>& x, float level, int channel, std::vector<InsertedClick>& runs) {
    for (std::size_t i = 0; i < x.size();) {
        std::size_t j = i;
        while (j < x.size() && std::fabs(x[j]) > level && (j == i || (x[j] > 0.0f) == (x[i] > 0.0f)))
            x[j] = std::clamp(x[j], -level, level), ++j;
        if (j > i) runs.push_back({channel, int64_t(i), int(j - i)});
        i = std::max(j, i + 1);
    }
}

}  // namespace

DemoRecording MakeDemoRecording(uint64_t seed) {
    DemoRecording r;
    const double rate = r.rate;
    const int64_t frames = int64_t(16.0 * rate);
    Random random(seed);

    // The programme: music 1.5 to 8.5 s, speech 9.5 to 15 s, nothing around them.
    std::vector<double> music = Music(random, rate, frames, 1.5, 7.0);
    Normalise(music, 0.82);
    std::vector<double> speech = Speech(random, rate, frames, 9.5, 5.5, r.pauses);
    Normalise(speech, 0.5);
    r.noiseOnly = {{int64_t(0.05 * rate), int64_t(1.45 * rate)},
                   {int64_t(8.62 * rate), int64_t(9.45 * rate)},
                   {int64_t(15.2 * rate), int64_t(15.95 * rate)}};
    const double pan[2][2] = {{1.0, 0.8}, {0.78, 1.0}};  // music, speech: left, right
    for (int c = 0; c < 2; ++c) {
        r.clean.emplace_back(std::size_t(frames));
        for (int64_t i = 0; i < frames; ++i)
            r.clean[std::size_t(c)][std::size_t(i)] =
                float(pan[0][c] * music[std::size_t(i)] + pan[1][c] * speech[std::size_t(i)]);
    }

    // Steady noise (brown-ish and broadband) and hiss (white above 4 kHz), each channel its own.
    r.noiseDbfs = -48.0;
    r.hissDbfs = -54.0;
    r.damaged = r.clean;
    for (int c = 0; c < 2; ++c) {
        Biquad rumble = Biquad::Pass(700.0, rate, false), hiss = Biquad::Pass(4000.0, rate, true);
        std::vector<double> noise(static_cast<std::size_t>(frames)), highs(static_cast<std::size_t>(frames));
        for (int64_t i = 0; i < frames; ++i) {
            const double white = random.Gauss();
            noise[std::size_t(i)] = rumble(random.Gauss()) * 2.0 + 0.35 * white;
            highs[std::size_t(i)] = hiss(random.Gauss());
        }
        double n2 = 0.0, h2 = 0.0;
        for (int64_t i = 0; i < frames; ++i)
            n2 += noise[std::size_t(i)] * noise[std::size_t(i)], h2 += highs[std::size_t(i)] * highs[std::size_t(i)];
        const double gn = std::pow(10.0, r.noiseDbfs / 20.0) / std::sqrt(n2 / frames);
        const double gh = std::pow(10.0, r.hissDbfs / 20.0) / std::sqrt(h2 / frames);
        for (int64_t i = 0; i < frames; ++i)
            r.damaged[std::size_t(c)][std::size_t(i)] += float(gn * noise[std::size_t(i)] + gh * highs[std::size_t(i)]);
    }

    // Clicks: a sharp, quickly decaying swing of 2 to 16 samples, on one channel or both; crackle:
    // many faint ticks of 1 to 3 samples.
    const auto insert = [&](std::vector<InsertedClick>& list, int count, int longest, double low, double high) {
        for (int k = 0; k < count; ++k) {
            const int64_t at = int64_t(random.Between(0.02, 15.98) * rate);
            const int length = 1 + int(random.Uniform() * longest);
            const double amplitude = random.Between(low, high) * (random.Uniform() < 0.5 ? -1.0 : 1.0);
            const int which = int(random.Uniform() * 3);  // 0, 1: one channel; 2: both
            for (int c = 0; c < 2; ++c) {
                if (which != 2 && which != c) continue;
                for (int i = 0; i < length; ++i)
                    r.damaged[std::size_t(c)][std::size_t(at + i)] +=
                        float(amplitude * std::exp(-2.5 * i / length) * (i % 3 == 1 ? -0.5 : 1.0));
                list.push_back({c, at, length});
            }
        }
    };
    insert(r.clicks, 16, 16, 0.15, 0.45);
    insert(r.crackle, 320, 3, 0.01, 0.04);
    const auto byStart = [](const InsertedClick& a, const InsertedClick& b) {
        return a.start != b.start ? a.start < b.start : a.channel < b.channel;
    };
    std::sort(r.clicks.begin(), r.clicks.end(), byStart);
    std::sort(r.crackle.begin(), r.crackle.end(), byStart);

    // Clipping, as a converter driven too hot: the loudest peaks flattened.
    r.clipLevel = 0.72;
    for (int c = 0; c < 2; ++c)
        Clip(r.damaged[std::size_t(c)], float(r.clipLevel), c, r.clippedRuns);
    std::sort(r.clippedRuns.begin(), r.clippedRuns.end(), byStart);
    return r;
}

}  // namespace kesta
