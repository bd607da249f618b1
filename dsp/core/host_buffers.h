#pragma once
// Reading a host's channel buffers without trusting their count (not exported). Entry points take
// `numChannels` channel pointers of `numFrames` frames each; an object set up for more channels
// than a host passes reads the missing ones as silence and writes nothing for them, so no call
// touches memory outside the buffers it was given. Debug builds assert on such calls: a host that
// passes fewer channels than it set the object up for has almost always made a mistake.

namespace dsp::detail {

// Channel c of the host's buffers, or null where the host passed no buffers or fewer channels.
inline float* HostChannel(float* const* data, int numChannels, int c) {
    return data != nullptr && c >= 0 && c < numChannels ? data[c] : nullptr;
}

}  // namespace dsp::detail
