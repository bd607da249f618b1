// Self-checks of the loudness and true-peak meters: a stereo 1 kHz tone at -23 dBFS reads -23 LUFS
// on every time scale, and a tone at a quarter of the rate sampled 45 degrees off its crests reads
// its amplitude, 3 dB above its samples. Expectations are the tones' known levels.

#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/loudness.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

CheckOutcome ToneReadsItsLoudness() {
    const int rate = 48000;
    const double amplitude = std::pow(10.0, -23.0 / 20.0);
    std::vector<float> tone(static_cast<std::size_t>(rate) * 10);
    for (std::size_t n = 0; n < tone.size(); ++n)
        tone[n] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * static_cast<double>(n % 48) / 48.0));
    const float* channels[2] = {tone.data(), tone.data()};
    Itu1770 meter(rate, 2);
    meter.Process(channels, 2, static_cast<int>(tone.size()));
    const double integrated = meter.GetIntegrated(), momentary = meter.GetMomentary(), shortTerm = meter.GetShortTerm();
    const bool ok =
        std::fabs(integrated + 23.0) <= 0.1 && std::fabs(momentary + 23.0) <= 0.1 && std::fabs(shortTerm + 23.0) <= 0.1;
    return {ok, Format("integrated %.3f, momentary %.3f, short-term %.3f LUFS (expect -23 +-0.1)", integrated,
                       momentary, shortTerm)};
}

CheckOutcome PeakBetweenSamplesIsFound() {
    const int rate = 48000;
    std::vector<float> tone(static_cast<std::size_t>(rate) / 10);
    for (std::size_t n = 0; n < tone.size(); ++n)
        tone[n] = static_cast<float>(
            0.5 * std::sin(std::numbers::pi / 2.0 * static_cast<double>(n % 4) + std::numbers::pi / 4.0));
    const float* channels[1] = {tone.data()};
    TruePeak meter(rate, 1);
    meter.Process(channels, 1, static_cast<int>(tone.size()));
    const double db = ToDb(meter.GetTruePeak()), sampleDb = ToDb(meter.GetSamplePeak(0));
    const bool ok = db >= -6.02 - 0.4 && db <= -6.02 + 0.2;
    return {ok, Format("true peak %.3f dBTP (expect -6.02 +0.2/-0.4), sample peak %.3f dBFS", db, sampleDb)};
}

}  // namespace

void AddLoudnessChecks(CheckSuite& suite) {
    suite.Add("loudness", "1 kHz at -23 dBFS reads -23 LUFS", ToneReadsItsLoudness);
    suite.Add("loudness", "peak between samples of a quarter-rate tone", PeakBetweenSamplesIsFound);
}

}  // namespace dsp::checks
