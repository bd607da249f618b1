// Uses the installed library the way a host would: initialise, transform, run the self-checks.
#include <cmath>
#include <cstdio>
#include <vector>

#include "dsp/kestadsp.h"

int main() {
    dsp::Initializer init;
    init.Initialize();
    dsp::IppFFT32 fft(8);
    std::vector<float> re(8, 0.0f), im(8, 0.0f);
    re[0] = 1.0f;
    fft.FFT(re.data(), im.data(), 1);
    for (float v : re)
        if (std::fabs(v - 1.0f) > 1e-6f) return 1;
    auto suite = dsp::checks::TestRegistry::Create(dsp::checks::AsciiToUTF16(dsp::kLibraryName));
    if (!suite || suite->Size() == 0) return 1;
    std::puts("consumer ok");
    return 0;
}
