// Every processor under fuzzed settings, block sizes and audio. The bytes choose the class, the
// sample rate and the channel count, then the settings (raw floats through SetParameter for the
// classes with indexed parameters, values across and beyond their ranges for record fields), then
// a run of blocks: each a size of 1 to 4096 frames and a kind of audio (noise of any level up to
// full scale, a full-scale square wave, DC, silence, denormals, an impulse). The output of finite
// input must be finite, and never above the ceiling of a class that has one (the limiter's, full
// scale for linear interpolation, sqrt 2 of it for an equal-power crossfade).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include "dsp/adaptive_noise.h"
#include "dsp/desk_filter.h"
#include "dsp/frequency_analysis.h"
#include "dsp/graphic.h"
#include "dsp/hard_limit.h"
#include "dsp/noclick.h"
#include "dsp/noclip.h"
#include "dsp/nohiss.h"
#include "dsp/nonoise.h"
#include "dsp/parametric.h"
#include "dsp/resample.h"
#include "dsp/silence.h"
#include "dsp/stereo_expander.h"
#include "fuzz_input.h"

namespace {

constexpr int kRates[] = {8000, 11025, 22050, 44100, 48000, 65537, 96000, 192000};
constexpr int kMaxBlock = 4096;
constexpr int kMaxFrames = 3 * kMaxBlock;

void Check(bool ok) {
    if (!ok) std::abort();
}

// A value from `lo` - 10 % to `hi` + 10 % of the range (in 256 steps), so both ends and a little
// beyond are reached.
float Spread(kesta_fuzz::Input& in, float lo, float hi) {
    const float margin = 0.1f * (hi - lo);
    return lo - margin + (hi - lo + 2 * margin) * float(in.Byte()) / 255.0f;
}

// One processor behind a common call: in and out are `channels` pointers to `frames` floats, out
// gets what the call produces (up to Room(frames)); returns the frames written.
struct Runner {
    std::function<int(float** in, float** out, int frames)> run;
    std::function<int(int frames)> room = [](int frames) { return frames; };
    float ceiling = std::numeric_limits<float>::infinity();
    std::shared_ptr<void> keep;  // the object and whatever it points into
};

template <class T>
std::shared_ptr<T> Keep(Runner& r, std::shared_ptr<T> object) {
    r.keep = object;
    return object;
}

// Raw (index, value) pairs through SetParameter, indices a little beyond the valid ones.
template <class T>
void SetIndexed(T& p, kesta_fuzz::Input& in, int count) {
    const int rounds = in.Byte() % 12;
    for (int i = 0; i < rounds; ++i) {
        const int index = int(in.Byte()) % (count + 4) - 2;
        p.SetParameter(index, in.Float());
    }
}

Runner HardLimitRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto p = Keep(r, std::make_shared<dsp::HardLimit>());
    p->SetChannels(channels);
    p->SetSampleRate(rate);
    SetIndexed(*p, in, dsp::HardLimit::kParameterCount);
    p->Resume();
    r.ceiling = float(std::pow(10.0, double(p->GetParameter(dsp::HardLimit::kCeiling)) / 20.0));
    r.run = [p](float** x, float** y, int n) {
        p->Process(x, y, n);
        return n;
    };
    return r;
}

Runner StereoExpanderRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto p = Keep(r, std::make_shared<dsp::StereoExpanderDSP>());
    p->SetChannels(channels);
    p->SetSampleRate(rate);
    // Stored as given, with no range check: the host's part is a value within the bounds.
    for (int index = 0; index < dsp::StereoExpanderDSP::kParameterCount; ++index) {
        float lo = 0.0f, hi = 0.0f;
        p->GetBounds(index, lo, hi);
        p->SetParameter(index, lo + (hi - lo) * float(in.Byte()) / 255.0f);
    }
    p->Resume();
    r.run = [p](float** x, float** y, int n) {
        p->Process(x, y, n);
        return n;
    };
    return r;
}

template <class T>
void ProcessWith(Runner& r, std::shared_ptr<T> p, int channels) {
    r.run = [p, channels](float** x, float** y, int n) {
        p->Process(x, y, channels, n);
        return n;
    };
}

Runner ParametricRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto p = Keep(r, std::make_shared<dsp::Parametric>());
    p->SetChannels(channels);
    p->SetParameter(dsp::Parametric::kRangeSampleRate, float(rate));
    p->SetSampleRate(rate);
    SetIndexed(*p, in, dsp::Parametric::kParameterCount);
    p->Resume();
    ProcessWith(r, p, channels);
    return r;
}

Runner GraphicRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto p = Keep(r, std::make_shared<dsp::Graphic>());
    p->SetChannels(channels);
    p->SetSampleRate(rate);
    p->SetParameter(dsp::Graphic::kAccuracy, 10.0f + float(in.Byte()));  // short designs: many runs per second
    for (int i = in.Byte() % 12; i > 0; --i) {
        const int index = int(in.Byte()) % (dsp::Graphic::kFirstBand + dsp::Graphic::kMaxBands + 2);
        if (index != dsp::Graphic::kAccuracy) p->SetParameter(index, in.Float());
    }
    p->UpdateImpulses();
    ProcessWith(r, p, channels);
    return r;
}

Runner DeskFilterRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto filters = Keep(r, std::make_shared<std::vector<dsp::fDeskFilter>>(std::size_t(channels)));
    const auto kind = static_cast<dsp::eFilterKindType>(in.Byte() % 4);
    const bool precise = in.Byte() & 1, stateVariable = in.Byte() & 1;
    // The sections take their settings unclamped (the notch's design is exact for any band), so
    // the host's part is a band inside the spectrum: a centre below Nyquist and a bandwidth
    // (frequency / q) under half the rate. A single-precision section also needs a design that
    // float can hold: its coefficients are rounded to float, and a corner or centre below about
    // 1/1000 of the rate puts a pole within float's resolution of z = 1, where the rounding lands
    // it on the unit circle (the state-variable form then divides by zero). The double-precision
    // class takes the whole range.
    const float lowest = precise ? 1.0f : float(rate) / 500.0f;
    const float frequency = lowest + (0.49f * float(rate) - lowest) * float(in.Byte()) / 255.0f;
    const float gain = -48.0f + 96.0f * float(in.Byte()) / 255.0f;
    const float q = std::max(0.05f + 100.0f * float(in.Byte()) / 255.0f, frequency / (0.45f * float(rate)));
    for (dsp::fDeskFilter& f : *filters) {
        f.ShiftGears(kind, precise, false);
        f.setStateVariable(stateVariable);
        f.Setup(float(rate), frequency, gain, q, 0.0f, 0.0f);
    }
    r.run = [filters](float** x, float** y, int n) {
        for (std::size_t c = 0; c < filters->size(); ++c) {
            std::copy_n(x[c], n, y[c]);
            (*filters)[c].processInplace(y[c], n);
        }
        return n;
    };
    return r;
}

// One single-channel converter per channel; every one writes the same number of frames.
template <class T>
void ProcessEach(Runner& r, std::shared_ptr<std::vector<T>> converters) {
    r.run = [converters](float** x, float** y, int n) {
        int written = 0;
        for (std::size_t c = 0; c < converters->size(); ++c)
            written = (*converters)[c].Process(x[c], y[c], n);
        return written;
    };
}

Runner ResampleRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto converters = Keep(r, std::make_shared<std::vector<dsp::Resample>>(std::size_t(channels)));
    const int to = kRates[in.Byte() % std::size(kRates)];
    const int order = int(Spread(in, 3.0f, 511.0f));
    const float floor = Spread(in, 20.0f, 200.0f), shift = Spread(in, 0.0f, 1.0f);
    for (dsp::Resample& c : *converters) {
        c.SetSampleRates(rate, to);
        c.SetFilterOrder(order);
        c.SetNoiseFloor(floor);
        c.SetNyquistShift(shift);
        c.Initialize();
    }
    ProcessEach(r, converters);
    r.room = [converters](int n) { return (*converters)[0].GetOutputBufferSize(n); };
    return r;
}

Runner AdaptiveRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto p = Keep(r, std::make_shared<dsp::AdaptiveNoise>(channels, rate));
    p->SetReductionDb(Spread(in, 0.0f, 120.0f));
    p->SetResidualOutput(in.Byte() & 1);
    p->ParameterChanged();
    p->Resume();
    ProcessWith(r, p, channels);
    return r;
}

// A capture-shaped record: bins that rise and fall with the bytes, min <= rms <= max.
Runner NoNoiseRunner(kesta_fuzz::Input& in, int, int channels) {
    using dsp::nonoise::NONOISE;
    Runner r;
    auto record = std::shared_ptr<NONOISE>(new NONOISE, [](NONOISE* p) {
        dsp::nonoise::FreeArrays(p);
        delete p;
    });
    dsp::nonoise::SetDefaultParameter(record.get());
    record->channels = int16_t(channels);
    record->fftSize = int16_t(32 << (in.Byte() % 7));
    record->overlap = int16_t(3 + in.Byte() % 6);
    dsp::nonoise::AllocateArrays(record.get());
    for (int c = 0; c < channels; ++c)
        for (int k = 0; k < record->fftSize; ++k) {
            const double level = 1e-4 * (1 + (in.Byte() ^ k) % 50);
            record->binMin[c][k] = level * Spread(in, 0.0f, 1.0f);
            record->binRms[c][k] = level;
            record->binMax[c][k] = level * (1.0 + Spread(in, 0.0f, 4.0f));
        }
    record->reductionDb = Spread(in, 0.0f, 100.0f);
    record->smoothingPercent = Spread(in, 0.0f, 100.0f);
    record->transitionDb = Spread(in, 0.0f, 40.0f);
    record->precisionExponent = Spread(in, 0.0f, 4.0f);
    record->thresholdOffset = Spread(in, 0.0f, 10.0f);
    record->outputMode = int16_t(1 + (in.Byte() & 1));
    auto p = std::make_shared<dsp::nonoise::NoNoiseProcess>(record.get());
    p->Resume();
    r.keep = std::make_shared<std::pair<decltype(record), decltype(p)>>(record, p);
    ProcessWith(r, p, channels);
    return r;
}

Runner NoHissRunner(kesta_fuzz::Input& in, int rate, int channels) {
    using dsp::nohiss::NOHISS;
    Runner r;
    auto record = std::shared_ptr<NOHISS>(new NOHISS, [](NOHISS* p) {
        dsp::nohiss::FreeArrays(p);
        delete p;
    });
    dsp::nohiss::SetDefaultParameter(record.get());
    record->channels = channels;
    record->sampleRate = rate;
    record->fftSize = 32 << (in.Byte() % 7);
    record->overlap = int16_t(2 + in.Byte() % 8);
    dsp::nohiss::AllocateArrays(record.get());
    for (int c = 0; c < channels; ++c)
        for (int k = 0; k < record->fftSize; ++k)
            record->floorRows[c][k] = 1e-4 * (1 + in.Byte() % 100);
    dsp::nohiss::ComputeThresholdsFromFloor(record.get(), Spread(in, -20.0f, 20.0f), in.Byte() % 8);
    record->reductionDb = Spread(in, 0.0f, 100.0f);
    record->smoothingPercent = Spread(in, 0.0f, 100.0f);
    record->kneeDb = Spread(in, 0.0f, 40.0f);
    record->outputMode = 1 + (in.Byte() & 1);
    auto p = std::make_shared<dsp::nohiss::NoHissProcess>(record.get());
    p->Resume();
    r.keep = std::make_shared<std::pair<decltype(record), decltype(p)>>(record, p);
    ProcessWith(r, p, channels);
    return r;
}

// Sorted ranges of up to 255 frames anywhere in the run.
std::vector<std::vector<dsp::utils::Range>> Ranges(kesta_fuzz::Input& in, int channels) {
    std::vector<std::vector<dsp::utils::Range>> lists(static_cast<std::size_t>(channels));
    for (auto& list : lists) {
        int64_t at = 0;
        for (int i = in.Byte() % 8; i > 0; --i) {
            at += 1 + 64 * int64_t(in.Byte());
            list.push_back({at, 1 + int32_t(in.Byte()), 0});
        }
    }
    return lists;
}

Runner ReplaceClicksRunner(kesta_fuzz::Input& in, int rate, int channels) {
    using namespace dsp::noclick;
    Runner r;
    NOCLICK record;
    SetDefaultParameter(&record);
    record.channels = channels;
    record.sampleRate = float(rate);
    record.complexity = int32_t(Spread(in, 0.0f, 100.0f));
    AllocateArrays(&record);
    record.repairClicks = Ranges(in, channels);
    auto p = Keep(r, std::make_shared<ReplaceClicks>(&record));
    p->SetSelection(0, kMaxFrames);
    p->Start();
    ProcessWith(r, p, channels);
    return r;
}

Runner RepairClippingRunner(kesta_fuzz::Input& in, int rate, int channels) {
    using namespace dsp::noclip;
    Runner r;
    NOCLIPPING record;
    SetDefaultParameter(&record);
    record.channels = channels;
    record.sampleRate = float(rate);
    record.gainDb = Spread(in, -100.0f, 24.0f);
    record.useFFT = in.Byte() & 1;
    record.fftSize = 8 << (in.Byte() % 6);
    record.useLimiter = in.Byte() & 1;
    record.fillInMargin = int32_t(Spread(in, 0.0f, 64.0f));
    AllocateArrays(&record);
    record.repairClips = Ranges(in, channels);
    auto p = Keep(r, std::make_shared<RepairClipping>(&record));
    p->SetSelection(0, kMaxFrames);
    p->Start();
    ProcessWith(r, p, channels);
    return r;
}

// Linear interpolation between samples never leaves their range, so full-scale input is a ceiling.
Runner LinearResampleRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto converters =
        Keep(r, std::make_shared<std::vector<dsp::LinearResample>>(
                    std::size_t(channels), dsp::LinearResample(rate, kRates[in.Byte() % std::size(kRates)])));
    const bool eat = in.Byte() & 1;
    const double fraction = Spread(in, 0.0f, 1.0f);
    for (dsp::LinearResample& c : *converters) {
        c.SetEatLatency(eat);
        c.SetState(fraction);
    }
    r.ceiling = 1.0f;
    ProcessEach(r, converters);
    r.room = [converters](int n) { return (*converters)[0].GetProducedFramesByConversion(n); };
    return r;
}

// A drawn curve of raw points: any frequency or gain, the class ignores or holds what is out of
// range. A short filter mostly, now and then the long default.
Runner FFTFiltRunner(kesta_fuzz::Input& in, int rate, int channels) {
    Runner r;
    auto p = Keep(r, std::make_shared<dsp::FFTFilt>());
    std::vector<dsp::FFTFiltPoint> curve(in.Byte() % 8);
    for (dsp::FFTFiltPoint& point : curve) {
        point.frequency = in.Float();
        point.gainDb = in.Float();
    }
    const int taps = 8 * int(in.Byte());
    p->Init(channels, rate, curve, taps);
    r.run = [p, channels](float** x, float** y, int n) {
        p->Process(x, y, channels, n);
        return n;
    };
    return r;
}

// Ranges anywhere in (and beyond) the stream, crossfades of any length: the equal-power fade
// a cos + b sin never leaves sqrt(2) of full scale.
Runner DeleteSilenceRunner(kesta_fuzz::Input& in, int, int channels) {
    Runner r;
    const std::vector<dsp::utils::Range> ranges = Ranges(in, 1).front();
    const int fade = int(Spread(in, 0.0f, 2048.0f));
    auto p =
        Keep(r, std::make_shared<dsp::nosilence::DeleteSilence>(ranges, 0, kMaxFrames + kMaxBlock, fade, channels));
    p->Start();
    r.ceiling = 1.4143f;
    r.run = [p, channels](float** x, float** y, int n) {
        p->Process(x, y, channels, n);
        return p->GetLastOutputFrames();
    };
    return r;
}

using Make = Runner (*)(kesta_fuzz::Input&, int rate, int channels);
// New classes go at the end, so the kept inputs keep driving the classes they were found on.
constexpr Make kClasses[] = {HardLimitRunner,  StereoExpanderRunner, ParametricRunner,     GraphicRunner,
                             DeskFilterRunner, ResampleRunner,       AdaptiveRunner,       NoNoiseRunner,
                             NoHissRunner,     ReplaceClicksRunner,  RepairClippingRunner, LinearResampleRunner,
                             FFTFiltRunner,    DeleteSilenceRunner};

// One block of the kind the byte names.
void FillBlock(std::vector<std::vector<float>>& x, int frames, uint8_t kind, uint8_t level, uint32_t seed) {
    for (std::size_t c = 0; c < x.size(); ++c) {
        float* s = x[c].data();
        switch (kind % 6) {
            case 0:
                kesta_fuzz::FillNoise(s, std::size_t(frames), seed + uint32_t(c));
                for (int i = 0; i < frames; ++i)
                    s[i] *= float(level) / 255.0f;
                break;
            case 1:
                for (int i = 0; i < frames; ++i)
                    s[i] = (i / (1 + level % 64)) % 2 ? -1.0f : 1.0f;
                break;
            case 2:
                std::fill_n(s, frames, level & 1 ? -1.0f : 1.0f);
                break;
            case 3:
                std::fill_n(s, frames, 0.0f);
                break;
            case 4:
                kesta_fuzz::FillNoise(s, std::size_t(frames), seed + uint32_t(c));
                for (int i = 0; i < frames; ++i)
                    s[i] *= 1e-3f * std::numeric_limits<float>::min();
                break;
            default:
                std::fill_n(s, frames, 0.0f);
                s[level % frames] = 1.0f;
                break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    kesta_fuzz::Input in(data, size);
    const Make make = kClasses[in.Byte() % std::size(kClasses)];
    const int rate = kRates[in.Byte() % std::size(kRates)];
    const int channels = 1 + in.Byte() % 2;
    Runner runner = make(in, rate, channels);

    std::vector<std::vector<float>> x(static_cast<std::size_t>(channels), std::vector<float>(kMaxBlock));
    std::vector<std::vector<float>> y(static_cast<std::size_t>(channels));
    std::vector<float*> inputs(static_cast<std::size_t>(channels)), outputs(static_cast<std::size_t>(channels));
    for (int done = 0, block = 0; done < kMaxFrames && (block == 0 || in.Left() > 0); ++block) {
        const int frames = 1 + int(in.Byte() | (in.Byte() << 8)) % kMaxBlock;
        const uint8_t kind = in.Byte(), level = in.Byte();
        FillBlock(x, frames, kind, level, uint32_t(block));
        const int room = runner.room(frames);
        for (int c = 0; c < channels; ++c) {
            y[std::size_t(c)].assign(std::size_t(room), 0.0f);
            inputs[std::size_t(c)] = x[std::size_t(c)].data();
            outputs[std::size_t(c)] = y[std::size_t(c)].data();
        }
        const int written = runner.run(inputs.data(), outputs.data(), frames);
        Check(written >= 0 && written <= room);
        for (int c = 0; c < channels; ++c)
            for (int i = 0; i < written; ++i) {
                const float v = y[std::size_t(c)][std::size_t(i)];
                Check(std::isfinite(v) && std::fabs(v) <= runner.ceiling);
            }
        done += frames;
    }
    return 0;
}
