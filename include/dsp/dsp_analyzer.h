#pragma once
// Analyzer bases. A single-pass analyzer is given a selection, started with a host pointer (where
// its result goes, as each derived class defines), fed GetDesiredBlockSize() frames per Analyze
// call until IsCompleted, then Done. A multi-pass analyzer reads the same selection several times:
// pass k covers selection start ... start + length + GetLatency(k); the IsCompleted call that finds
// a pass finished fires OnPassDone and rewinds to the selection start. Progress is in percent.

#include <cstdint>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API DSPAnalyzer {
public:
    DSPAnalyzer() = default;
    DSPAnalyzer(const DSPAnalyzer&) = default;
    DSPAnalyzer& operator=(const DSPAnalyzer&) = default;
    virtual ~DSPAnalyzer();

    virtual bool SetSelection(long long start, long long length);
    virtual int GetLatency() const;
    virtual int32_t GetDesiredBlockSize() const = 0;
    virtual bool IsCompleted() const = 0;
    virtual float GetProgress() const = 0;
    virtual void Start(float* hostPointer);
    virtual long long Analyze(float** data, int numChannels, int numFrames) = 0;
    virtual void Done();

protected:
    float* mHostPointer = nullptr;
};

class KESTADSP_API DSPMultiPassAnalyzer : public DSPAnalyzer {
public:
    explicit DSPMultiPassAnalyzer(int32_t numPasses);
    DSPMultiPassAnalyzer(const DSPMultiPassAnalyzer&) = default;
    DSPMultiPassAnalyzer& operator=(const DSPMultiPassAnalyzer&) = default;
    ~DSPMultiPassAnalyzer() override;

    bool SetSelection(long long start, long long length) override;
    int GetLatency() const override;
    bool IsCompleted() const override;
    float GetProgress() const override;
    void Start(float* hostPointer) override;
    // The driver: runs the subclass's pass work and moves the read position. Once the pass end
    // is reached it returns n - length - latency, not the overshoot; callers of the library
    // depend on that value, so it is kept as it is.
    long long Analyze(float** data, int numChannels, int numFrames) override;
    void Done() override;

protected:
    virtual int GetLatency(int32_t pass) const;
    virtual long long Analyze(int32_t pass, float** data, int numChannels, int numFrames) = 0;
    virtual void OnPassDone(int32_t pass);

    long long GetSelectionStart() const { return mSelectionStart; }
    long long GetSelectionLength() const { return mSelectionLength; }
    long long GetCurrentPosition() const { return mCurrentPosition; }

private:
    long long PassEnd() const;

    long long mSelectionStart = 0;
    long long mSelectionLength = 0;
    // IsCompleted is const for the host but is the call that advances passes.
    mutable long long mCurrentPosition = 0;
    int32_t mNumPasses;
    mutable int32_t mCurrentPass = 0;
};

}  // namespace dsp
