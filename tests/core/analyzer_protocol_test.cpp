// The calling protocol of the multi-pass analyzer base: rewinds between passes, the driver's return
// value at the end of a pass, latency per pass, and progress in percent.

#include <gtest/gtest.h>

#include <vector>

#include "dsp/dsp_analyzer.h"

namespace {

// Records the passes it sees; consumes exactly the frames it is given.
class RecordingAnalyzer : public dsp::DSPMultiPassAnalyzer {
public:
    explicit RecordingAnalyzer(int passes, int latency = 0) : DSPMultiPassAnalyzer(passes), mLatency(latency) {}
    // The host's driver and latency query, hidden by the per-pass overrides below.
    using DSPMultiPassAnalyzer::Analyze;
    using DSPMultiPassAnalyzer::GetCurrentPosition;
    using DSPMultiPassAnalyzer::GetLatency;
    int32_t GetDesiredBlockSize() const override { return 100; }
    std::vector<int32_t> finishedPasses, analyzedPasses;

protected:
    int GetLatency(int32_t) const override { return mLatency; }
    long long Analyze(int32_t pass, float**, int, int numFrames) override {
        analyzedPasses.push_back(pass);
        return numFrames;
    }
    void OnPassDone(int32_t pass) override { finishedPasses.push_back(pass); }

private:
    int mLatency;
};

// Each pass rewinds to the selection start; the block that reaches the pass end makes the driver
// return n - length (not the frames consumed).
TEST(MultiPassAnalyzer, TwoPassesRewindToTheSelectionStart) {
    RecordingAnalyzer analyzer(2);
    ASSERT_TRUE(analyzer.SetSelection(1000, 500));
    analyzer.Start(nullptr);
    EXPECT_EQ(analyzer.GetCurrentPosition(), 1000);
    EXPECT_FLOAT_EQ(analyzer.GetProgress(), 0.0f);
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(analyzer.IsCompleted());
        EXPECT_EQ(analyzer.Analyze(nullptr, 1, 100), i < 4 ? 100 : 100 - 500) << i;
    }
    EXPECT_FLOAT_EQ(analyzer.GetProgress(), 50.0f);
    EXPECT_FALSE(analyzer.IsCompleted());
    EXPECT_EQ(analyzer.finishedPasses, std::vector<int32_t>{0});
    EXPECT_EQ(analyzer.GetCurrentPosition(), 1000);

    for (int i = 0; i < 5; ++i)
        analyzer.Analyze(nullptr, 1, 100);
    EXPECT_FLOAT_EQ(analyzer.GetProgress(), 100.0f);
    EXPECT_TRUE(analyzer.IsCompleted());
    EXPECT_EQ(analyzer.finishedPasses, (std::vector<int32_t>{0, 1}));
    EXPECT_EQ(analyzer.analyzedPasses, (std::vector<int32_t>{0, 0, 0, 0, 0, 1, 1, 1, 1, 1}));
    // The position went back to the start, so a further call does not report completion again.
    EXPECT_FALSE(analyzer.IsCompleted());
}

TEST(MultiPassAnalyzer, PassLatencyExtendsThePassAndTheProgressSpan) {
    RecordingAnalyzer analyzer(1, 64);
    analyzer.SetSelection(0, 500);
    analyzer.Start(nullptr);
    EXPECT_EQ(analyzer.GetLatency(), 64);
    analyzer.Analyze(nullptr, 1, 282);
    EXPECT_FLOAT_EQ(analyzer.GetProgress(), 100.0f * 282.0f / 564.0f);
    EXPECT_EQ(analyzer.Analyze(nullptr, 1, 218), 218);
    EXPECT_FALSE(analyzer.IsCompleted());
    EXPECT_EQ(analyzer.Analyze(nullptr, 1, 64), 64 - 500 - 64);
    EXPECT_TRUE(analyzer.IsCompleted());
}

TEST(MultiPassAnalyzer, StartResetsThePassButNotThePosition) {
    RecordingAnalyzer analyzer(3);
    analyzer.SetSelection(10, 20);
    analyzer.Start(nullptr);
    analyzer.Analyze(nullptr, 1, 20);
    EXPECT_FALSE(analyzer.IsCompleted());  // pass 0 closes, pass 1 begins
    analyzer.Analyze(nullptr, 1, 5);
    analyzer.Start(nullptr);
    EXPECT_EQ(analyzer.GetCurrentPosition(), 15);
    EXPECT_NEAR(analyzer.GetProgress(), 100.0f * (5.0f / 20.0f) / 3.0f, 1e-4f);
}

}  // namespace
