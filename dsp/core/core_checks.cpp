// Smoke self-check of the processing framework: the multi-pass analyzer protocol.

#include <string>

#include "dsp/dsp_analyzer.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

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
    suite.Add("core", "multi-pass analyzer protocol", MultiPassProtocolRewindsAndCompletes);
}

}  // namespace dsp::checks
