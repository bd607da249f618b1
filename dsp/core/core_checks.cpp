// Self-checks of the processing framework: buffer capacity rules and the multi-pass protocol.

#include <string>

#include "dsp/audio_buffer.h"
#include "dsp/dsp_analyzer.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

CheckOutcome AudioBufferKeepsMemoryWhenItFits() {
    AudioBuffer buffer(2, 1024);
    float** before = buffer.GetBuffersAsRaw();
    buffer.Resize(1, 512);
    const bool kept = buffer.GetBuffersAsRaw() == before && buffer.GetFrameCapacity() == 1024;
    buffer.Resize(4, 100);
    const bool exact = buffer.GetChannelCapacity() == 4 && buffer.GetFrameCapacity() == 100;
    return {kept && exact, "fitting resize keeps memory: " + std::string(kept ? "yes" : "no") +
                               "; growing resize to 4 x 100 gives capacity " +
                               std::to_string(buffer.GetChannelCapacity()) + " x " +
                               std::to_string(buffer.GetFrameCapacity())};
}

class CountingAnalyzer : public DSPMultiPassAnalyzer {
public:
    CountingAnalyzer() : DSPMultiPassAnalyzer(2) {}
    int32_t GetDesiredBlockSize() const override { return 100; }
    int passesDone = 0;

protected:
    long long Analyze(int32_t, float**, int, int numFrames) override { return numFrames; }
    void OnPassDone(int32_t) override { ++passesDone; }
};

CheckOutcome MultiPassProtocolRewindsAndCompletes() {
    CountingAnalyzer analyzer;
    analyzer.SetSelection(1000, 500);
    analyzer.Start(nullptr);
    DSPAnalyzer& host = analyzer;  // hosts drive analyzers through the base interface
    int calls = 0;
    float halfway = -1.0f;
    while (!host.IsCompleted() && calls < 100) {
        host.Analyze(nullptr, 1, 100);
        if (++calls == 5) halfway = analyzer.GetProgress();
    }
    const bool ok = calls == 10 && analyzer.passesDone == 2 && halfway == 50.0f;
    return {ok, "blocks read " + std::to_string(calls) + " (expect 10), passes closed " +
                    std::to_string(analyzer.passesDone) + " (expect 2), progress after one pass " +
                    std::to_string(halfway) + "% (expect 50)"};
}

}  // namespace

void AddCoreChecks(CheckSuite& suite) {
    suite.Add("core", "AudioBuffer capacity rules", AudioBufferKeepsMemoryWhenItFits);
    suite.Add("core", "multi-pass analyzer protocol", MultiPassProtocolRewindsAndCompletes);
}

}  // namespace dsp::checks
