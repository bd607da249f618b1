#include "dsp/dsp_process.h"

namespace dsp {

DSPProcess::~DSPProcess() = default;

bool DSPProcess::SetSelection(long long /*start*/, long long /*length*/) {
    return true;
}
void DSPProcess::Start() {}
int DSPProcess::Flush(float** /*out*/, int /*numChannels*/, int /*numFrames*/) {
    return 0;
}
void DSPProcess::Done() {}
int DSPProcess::GetLatency() const {
    return 0;
}
void DSPProcess::ParameterChanged() {}

}  // namespace dsp
