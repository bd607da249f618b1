#include "dsp/core/kernel_dispatch.h"
#include "io/sample_kernels.h"

namespace kesta {

const SampleKernels& PickSampleKernels() {
    return dsp::detail::PickKernels<SampleKernels>(portable::SampleKernelTable(),
                                                   KESTADSP_AVX2_TABLE(avx2::SampleKernelTable()));
}

std::vector<const SampleKernels*> SampleKernelBuilds() {
    std::vector<const SampleKernels*> builds{&portable::SampleKernelTable()};
    const SampleKernels& wide = dsp::detail::PickKernels<SampleKernels>(
        portable::SampleKernelTable(), KESTADSP_AVX2_TABLE(avx2::SampleKernelTable()), dsp::detail::Isa::Avx2Fma);
    if (&wide != builds.front()) builds.push_back(&wide);
    return builds;
}

}  // namespace kesta
