// The job's stream for outputs of another rate or length, for generators and for commands without
// an audio output, through small stages whose output is known sample for sample.

#include <sndfile.h>

#include <cmath>
#include <deque>

#include "cli_test.h"
#include "io/block_reader.h"
#include "pipeline/job.h"
#include "pipeline/progress.h"

namespace kesta_test {
namespace {

using kesta::AudioBlock;
using kesta::AudioOutput;
using kesta::BlockReader;
using kesta::Progress;
using kesta::Stage;

// Holds `frames` frames back: out[n] = in[n - frames].
class Delay : public Stage {
public:
    explicit Delay(int64_t frames) : mFrames(frames) {}
    int64_t Latency() const override { return mFrames; }
    void Process(float** channels, int channelCount, int frames) override {
        mHeld.resize(std::size_t(channelCount), std::deque<float>(std::size_t(mFrames), 0.0f));
        for (int c = 0; c < channelCount; ++c)
            for (int i = 0; i < frames; ++i) {
                mHeld[std::size_t(c)].push_back(channels[c][i]);
                channels[c][i] = mHeld[std::size_t(c)].front();
                mHeld[std::size_t(c)].pop_front();
            }
    }

private:
    int64_t mFrames;
    std::vector<std::deque<float>> mHeld;
};

// Each frame `times` times, at `times` the rate.
class Repeat : public kesta::ResizingStage {
public:
    explicit Repeat(int times) : mTimes(times) {}
    int64_t Latency() const override { return 0; }
    int OutputRate(int rate) const override { return rate * mTimes; }
    int64_t OutputFrames(int64_t frames) const override { return frames * mTimes; }
    std::size_t MaxOutputFrames(std::size_t frames) const override { return frames * std::size_t(mTimes); }
    std::size_t Convert(const float* const* in, float* const* out, int channels, std::size_t frames) override {
        for (int c = 0; c < channels; ++c)
            for (std::size_t i = 0; i < frames * std::size_t(mTimes); ++i)
                out[c][i] = in[c][i / std::size_t(mTimes)];
        return frames * std::size_t(mTimes);
    }

private:
    int mTimes;
};

// Every other frame (the first, the third, ...) at half the rate, `latency` output frames late.
class EveryOther : public kesta::ResizingStage {
public:
    explicit EveryOther(int64_t latency) : mLatency(latency) {}
    int64_t Latency() const override { return mLatency; }
    int OutputRate(int rate) const override { return rate / 2; }
    int64_t OutputFrames(int64_t frames) const override { return (frames + 1) / 2; }
    std::size_t MaxOutputFrames(std::size_t frames) const override { return frames / 2 + 1; }
    std::size_t Convert(const float* const* in, float* const* out, int channels, std::size_t frames) override {
        std::size_t made = 0;
        for (std::size_t i = 0; i < frames; ++i, ++mPosition) {
            if (mPosition % 2 != 0) continue;
            mHeld.resize(std::size_t(channels), std::deque<float>(std::size_t(mLatency), 0.0f));
            for (int c = 0; c < channels; ++c) {
                mHeld[std::size_t(c)].push_back(in[c][i]);
                out[c][made] = mHeld[std::size_t(c)].front();
                mHeld[std::size_t(c)].pop_front();
            }
            ++made;
        }
        return made;
    }

private:
    int64_t mLatency;
    int64_t mPosition = 0;
    std::vector<std::deque<float>> mHeld;
};

class StreamTest : public CliTest {
protected:
    // A stereo float file of `frames` frames whose every sample is distinct, with cue points.
    Audio Ramp(int64_t frames, const std::vector<uint32_t>& markers) const {
        Audio audio;
        audio.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        audio.channels.assign(2, std::vector<double>(std::size_t(frames)));
        for (int64_t i = 0; i < frames; ++i) {
            audio.channels[0][std::size_t(i)] = double(i) / double(frames);
            audio.channels[1][std::size_t(i)] = -0.5 * double(i) / double(frames);
        }
        SF_INFO info{};
        info.samplerate = audio.rate;
        info.channels = 2;
        info.format = audio.format;
        SNDFILE* file = sf_open(P("in.wav").c_str(), SFM_WRITE, &info);
        SF_CUES cues{};
        cues.cue_count = uint32_t(markers.size());
        for (std::size_t i = 0; i < markers.size(); ++i) {
            cues.cue_points[i].indx = int32_t(i + 1);
            cues.cue_points[i].position = markers[i];
            cues.cue_points[i].sample_offset = markers[i];
            cues.cue_points[i].fcc_chunk = 0x61746164;  // "data"
        }
        if (!markers.empty()) sf_command(file, SFC_SET_CUE, &cues, sizeof(cues));
        for (int64_t i = 0; i < frames; ++i) {
            const float frame[2] = {float(audio.channels[0][std::size_t(i)]), float(audio.channels[1][std::size_t(i)])};
            sf_writef_float(file, frame, 1);
        }
        sf_close(file);
        return audio;
    }

    static std::vector<uint32_t> Markers(const std::filesystem::path& path) {
        std::vector<uint32_t> found;
        SF_INFO info{};
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
        SF_CUES cues{};
        if (file && sf_command(file, SFC_GET_CUE, &cues, sizeof(cues)) == SF_TRUE)
            for (uint32_t i = 0; i < cues.cue_count; ++i)
                found.push_back(cues.cue_points[i].sample_offset);
        if (file) sf_close(file);
        return found;
    }
};

TEST_F(StreamTest, ResizingStagesGiveTheRateAndExactLengthTheyDeclare) {
    // Lengths around the read block (4096) and the stages' latencies, odd and even.
    for (const int64_t frames : {1, 2, 9, 4095, 10001}) {
        SCOPED_TRACE(frames);
        const Audio in = Ramp(frames, {0, uint32_t(frames / 2)});
        // A delayed in-place stage, a rate tripled, one in place after it, and every other frame kept,
        // 7 frames late: the first, the third, ... frame of the tripled input, at 1.5 times the rate.
        Delay delay(100), late(33);
        Repeat triple(3);
        EveryOther half(7);
        const std::vector<Stage*> stages = {&delay, &triple, &late, &half};
        BlockReader reader(P("in.wav"));
        kesta::OutputOptions options;
        options.force = true;
        AudioOutput output(P("out.wav"), reader, {{P("in.wav"), reader.Identity()}}, options, stages);
        Progress progress("test", std::nullopt, 48000, false);
        const int64_t written = kesta::StreamStages(reader, output, stages, progress);
        output.Commit();

        const Audio out = ReadAudio(dir / "out.wav");
        const int64_t expected = (3 * frames + 1) / 2;
        EXPECT_EQ(written, expected);
        ASSERT_EQ(out.Frames(), expected);
        EXPECT_EQ(out.rate, 72000);
        double largest = 0.0;
        for (std::size_t c = 0; c < 2; ++c)
            for (int64_t i = 0; i < expected; ++i)
                largest = std::max(largest, std::fabs(out.channels[c][std::size_t(i)] -
                                                      float(in.channels[c][std::size_t(2 * i / 3)])));
        EXPECT_EQ(largest, 0.0);
        EXPECT_EQ(Markers(dir / "out.wav"), (std::vector<uint32_t>{0, uint32_t((3 * (frames / 2) + 1) / 2)}));
    }
}

TEST_F(StreamTest, AGeneratorWritesExactlyItsFramesThroughTheStages) {
    class Count : public kesta::Generator {
    public:
        void Generate(float** channels, int channelCount, int frames) override {
            for (int i = 0; i < frames; ++i, ++mNext)
                for (int c = 0; c < channelCount; ++c)
                    channels[c][i] = float(mNext % 1000) / 1000.0f * (c == 0 ? 1.0f : -1.0f);
        }

    private:
        int64_t mNext = 0;
    } count;
    const kesta::AudioFormat basis{SF_FORMAT_WAV | SF_FORMAT_FLOAT, 44100, 2};
    for (const char* name : {"out.wav", "out.flac"}) {
        SCOPED_TRACE(name);
        Delay delay(500);
        AudioOutput output(P(name), basis, 9000, {});
        Progress progress("test", 9000, 44100, false);
        EXPECT_EQ(kesta::StreamGenerated(count, 9000, output, {&delay}, progress), 9000);
        output.Commit();
        const Audio out = ReadAudio(dir / name);
        ASSERT_EQ(out.Frames(), 9000);
        EXPECT_EQ(out.rate, 44100);
        // The extension chooses the container; FLAC keeps 24 bits of the float samples.
        EXPECT_EQ(out.format & SF_FORMAT_TYPEMASK, std::string(name) == "out.wav" ? SF_FORMAT_WAV : SF_FORMAT_FLAC);
        const double step = std::string(name) == "out.wav" ? 0.0 : 1.0 / (1 << 23);
        for (int64_t i : {int64_t(0), int64_t(4095), int64_t(4096), int64_t(8999)}) {
            const int64_t n = (std::string(name) == "out.wav" ? 0 : 9000) + i;  // the second file continues
            EXPECT_NEAR(out.channels[1][std::size_t(i)], -double(float(n % 1000) / 1000.0f), step) << i;
        }
    }
}

TEST_F(StreamTest, ASinkSeesEveryFrameAsTheStagesLeaveIt) {
    const Audio in = Ramp(10001, {});
    for (const int64_t latency : {0, 4096, 12000}) {
        SCOPED_TRACE(latency);
        Delay delay(latency);
        BlockReader reader(P("in.wav"));
        Progress progress("test", reader.HeaderFrames(), 48000, false);
        int64_t seen = 0;
        double largest = 0.0;
        const int64_t frames =
            kesta::StreamToSink(reader, {&delay}, progress, [&](const AudioBlock& block, int64_t at) {
                EXPECT_EQ(at, seen);
                for (std::size_t i = 0; i < block.Frames(); ++i)
                    largest = std::max(
                        largest, double(std::fabs(block.Channel(1)[i] - float(in.channels[1][std::size_t(at) + i]))));
                seen += int64_t(block.Frames());
            });
        EXPECT_EQ(frames, 10001);
        EXPECT_EQ(seen, 10001);
        EXPECT_EQ(largest, 0.0);
    }
}

}  // namespace
}  // namespace kesta_test
