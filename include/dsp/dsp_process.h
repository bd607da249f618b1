#pragma once
// DSPProcess: the base of every block processor. A host constructs the processor, optionally
// gives it a selection, calls Start, feeds Process block by block in timeline order (blocks of any
// length >= 1; non-interleaved float channels the host owns), calls ParameterChanged after editing
// a record the processor holds by pointer, then Flush and Done. Latency is reported only through
// GetLatency, as the number of frames by which output lags input; the library never pads or trims.

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API DSPProcess {
public:
    DSPProcess() = default;
    DSPProcess(const DSPProcess&) = default;
    DSPProcess& operator=(const DSPProcess&) = default;
    virtual ~DSPProcess();

    virtual bool SetSelection(long long start, long long length);
    virtual void Start();
    virtual void Process(float** in, float** out, int numChannels, int numFrames) = 0;
    // No processor of the library has anything left to flush: the base writes nothing.
    virtual int Flush(float** out, int numChannels, int numFrames);
    virtual void Done();
    virtual int GetLatency() const;
    virtual void ParameterChanged();
};

}  // namespace dsp
