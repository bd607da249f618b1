// The job's stream for outputs of another rate or length, for generators and for commands without
// an audio output, through small stages whose output is known sample for sample.

#include <sndfile.h>

#include <cmath>
#include <deque>

#include "cli_test.h"
#include "dsp/dsp_analyzer.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/analysis.h"
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

// Records what each Analyze call was given: the position the analyzer expected, the frames and
// whether every sample matched the file there (silence past its end).
class Recorder {
public:
    struct Call {
        int64_t position;
        int frames;
        bool matches;
    };
    explicit Recorder(const Audio& file) : mFile(file) {}
    void Check(int64_t position, float** data, int channels, int frames) {
        bool matches = true;
        for (int c = 0; c < channels; ++c)
            for (int i = 0; i < frames; ++i) {
                const int64_t at = position + i;
                const double expected =
                    at < mFile.Frames() ? float(mFile.channels[std::size_t(c)][std::size_t(at)]) : 0.0;
                matches = matches && data[c][i] == expected;
            }
        calls.push_back({position, frames, matches});
    }
    std::vector<Call> calls;

private:
    const Audio& mFile;
};

// Asks for blocks of 1000 frames stepping 600, so each overlaps the last; done after `blocks`.
class Overlapping : public dsp::DSPAnalyzer {
public:
    Overlapping(Recorder& recorder, int blocks) : mRecorder(recorder), mBlocks(blocks) {}
    bool SetSelection(long long start, long long) override {
        mPosition = start;
        return true;
    }
    int32_t GetDesiredBlockSize() const override { return 1000; }
    bool IsCompleted() const override { return int(mRecorder.calls.size()) >= mBlocks; }
    float GetProgress() const override { return 0.0f; }
    long long Analyze(float** data, int channels, int frames) override {
        mRecorder.Check(mPosition, data, channels, frames);
        mPosition += 600;
        return 600;
    }

private:
    Recorder& mRecorder;
    int mBlocks;
    long long mPosition = 0;
};

// Three passes over its selection, 700 frames a call, the pass's latency 50 frames times the pass.
class ThreePasses : public dsp::DSPMultiPassAnalyzer {
public:
    explicit ThreePasses(Recorder& recorder) : DSPMultiPassAnalyzer(3), mRecorder(recorder) {}
    int32_t GetDesiredBlockSize() const override { return 700; }

protected:
    int GetLatency(int32_t pass) const override { return 50 * pass; }
    long long Analyze(int32_t, float** data, int channels, int frames) override {
        mRecorder.Check(GetCurrentPosition(), data, channels, frames);
        return frames;
    }

private:
    Recorder& mRecorder;
};

TEST_F(StreamTest, AnalysisPassesReadTheRegionAsTheAnalyzerAsks) {
    const Audio file = Ramp(10001, {});
    const auto all = [](const Recorder& r) {
        return std::all_of(r.calls.begin(), r.calls.end(), [](const Recorder::Call& c) { return c.matches; });
    };
    {  // Single pass, overlapping blocks from frame 3000: the reader goes forward only.
        Recorder recorder(file);
        Overlapping analyzer(recorder, 8);
        analyzer.SetSelection(3000, 5000);
        BlockReader reader(P("in.wav"));
        Progress progress("test", std::nullopt, 48000, false);
        EXPECT_EQ(kesta::RunAnalysis(analyzer, reader, {3000, 5000}, 2, progress), 8);
        ASSERT_EQ(recorder.calls.size(), 8u);
        EXPECT_TRUE(all(recorder));
        EXPECT_EQ(recorder.calls[7].position, 3000 + 7 * 600);
        EXPECT_EQ(recorder.calls[7].frames, 800);  // the region ends at 8000
    }
    {  // Three passes: each from the region's start again, its latency past the end, silence after the file.
        Recorder recorder(file);
        ThreePasses analyzer(recorder);
        analyzer.SetSelection(6000, 3990);
        BlockReader reader(P("in.wav"));
        Progress progress("test", std::nullopt, 48000, false);
        kesta::RunAnalysis(analyzer, reader, {6000, 3990}, 2, progress);
        EXPECT_TRUE(all(recorder));
        std::vector<int64_t> passFrames;
        for (const Recorder::Call& call : recorder.calls) {
            if (call.position == 6000) passFrames.push_back(0);
            passFrames.back() += call.frames;
        }
        EXPECT_EQ(passFrames, (std::vector<int64_t>{3990, 4040, 4090}));
    }
    {  // A file that ends inside the region is reported where it ends.
        Recorder recorder(file);
        Overlapping analyzer(recorder, 100);
        analyzer.SetSelection(9000, 5000);
        BlockReader reader(P("in.wav"));
        Progress progress("test", std::nullopt, 48000, false);
        int64_t end = -1;
        EXPECT_THROW(kesta::RunAnalysis(analyzer, reader, {9000, 5000}, 2, progress,
                                        [&](int64_t at) {
                                            end = at;
                                            throw std::runtime_error("short");
                                        }),
                     std::runtime_error);
        EXPECT_EQ(end, 10001);
    }
}

// AU headers that put their data inside the header: libsndfile starts the first reading after the
// header and a rewound one at the offset, so two passes would hold different frames (with 14
// channels, the same number of them). Both byte orders; refused when opened.
TEST_F(StreamTest, AnAuFileWithItsDataInsideTheHeaderIsRefused) {
    struct Case {
        const char* magic;
        bool bigEndian;
        uint32_t offset, channels;
    };
    for (const Case c : {Case{".snd", true, 0, 1}, Case{".snd", true, 11, 14}, Case{"dns.", false, 8, 2}}) {
        std::string bytes = c.magic;
        for (const uint32_t field : {c.offset, 0x00290258u, 1u, 44100u, c.channels})
            for (int i = 0; i < 4; ++i)
                bytes += char((field >> (c.bigEndian ? 24 - 8 * i : 8 * i)) & 0xFF);
        bytes += std::string(17 * c.channels, char(0x9A));
        WriteBytes(dir / "odd.au", bytes);
        try {
            BlockReader reader(P("odd.au"));
            ADD_FAILURE() << "offset " << c.offset << " was opened";
        } catch (const kesta::CliError& refused) {
            EXPECT_NE(refused.Message().find("inside the 24-byte header"), std::string::npos) << refused.Message();
        }
    }
}

}  // namespace
}  // namespace kesta_test
