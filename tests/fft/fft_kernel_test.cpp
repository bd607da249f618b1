// The FFT kernels against FFTW (double precision): every size 1 ... 65536, float and double, every
// kernel this CPU runs, complex and real, both directions, in and out of place, no allocation;
// plus the plan contract (order limits, the one-point transform, which kernel Best picks).

#include "dsp/fft/fft_kernel.h"

#include <fftw3.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/allocation_counter.h"
#include "support/signals.h"

namespace {

using dsp::fft::ComplexPlan;
using dsp::fft::Isa;
using dsp::fft::RealPlan;

// `misalign` elements past a 64-byte boundary, followed by 256 guard bytes that must survive.
template <typename T>
class Array {
public:
    explicit Array(std::size_t n, std::size_t misalign = 1) : mN(n), mStore(n + kGuard + 64) {
        const auto addr = reinterpret_cast<std::uintptr_t>(mStore.data());
        mData = reinterpret_cast<T*>((addr + 63) & ~std::uintptr_t{63}) + misalign;
        std::memset(mData + mN, 0xA5, kGuard * sizeof(T));
    }
    T* data() { return mData; }
    T& operator[](std::size_t i) { return mData[i]; }
    bool GuardIntact() const {
        const auto* guard = reinterpret_cast<const unsigned char*>(mData + mN);
        return std::all_of(guard, guard + kGuard * sizeof(T), [](unsigned char b) { return b == 0xA5; });
    }
    void Fill(kesta::test::Random& rng) {
        for (std::size_t i = 0; i < mN; ++i)
            mData[i] = static_cast<T>(2.0 * rng.Uniform() - 1.0);
    }

private:
    static constexpr std::size_t kGuard = 256 / sizeof(T);
    std::size_t mN;
    std::vector<T> mStore;
    T* mData;
};

using Spectrum = std::vector<std::complex<double>>;

template <typename T>
Spectrum Load(std::size_t n, T* re, T* im) {  // im == nullptr: a real sequence
    Spectrum z(n);
    for (std::size_t i = 0; i < n; ++i)
        z[i] = {static_cast<double>(re[i]), im != nullptr ? static_cast<double>(im[i]) : 0.0};
    return z;
}

// FFTW's transform in double, unscaled both ways like ours.
Spectrum Fftw(Spectrum z, bool forward) {
    auto* data = reinterpret_cast<fftw_complex*>(z.data());
    const fftw_plan plan =
        fftw_plan_dft_1d(static_cast<int>(z.size()), data, data, forward ? FFTW_FORWARD : FFTW_BACKWARD, FFTW_ESTIMATE);
    fftw_execute(plan);
    fftw_destroy_plan(plan);
    return z;
}

// Relative RMS error of bins 0 ... count - 1 held at re[k * stride], im[k * stride]; with
// im == nullptr only the real parts are compared.
template <typename T>
double RelErr(const Spectrum& want, std::size_t count, T* re, T* im, std::size_t stride = 1) {
    double num = 0, den = 0;
    for (std::size_t k = 0; k < count; ++k) {
        const std::complex<double> got(re[k * stride], im != nullptr ? im[k * stride] : T(0));
        const std::complex<double> ref = im != nullptr ? want[k] : want[k].real();
        num += std::norm(got - ref);
        den += std::norm(ref);
    }
    return std::sqrt(num / den);
}

class FftKernelIsa : public testing::TestWithParam<Isa> {
protected:
    void SetUp() override {
        if (!dsp::detail::IsaAvailable(GetParam())) GTEST_SKIP() << "kernel not available on this CPU";
    }
};

// Each out-of-place call is followed by an in-place call on its own input, so an out-of-place
// transform that modified its input shows up as an in-place error. Order 0, the one-point
// transform, must be exact (tolerance 0).
template <typename T>
void CheckEverySize(Isa isa) {
    for (int bad : {-1, dsp::fft::kMaxOrder + 1})
        EXPECT_TRUE(ComplexPlan<T>::Create(bad, isa) == nullptr && RealPlan<T>::Create(bad, isa) == nullptr) << bad;
    const double unit = sizeof(T) == sizeof(float) ? 1e-6 : 1e-14;
    kesta::test::Random rng(20240611u + (sizeof(T) == sizeof(float) ? 0u : 1u));
    long long allocations = 0;
    auto counted = [&allocations](auto&& transform) {
        kesta::test::AllocationCounter counter;
        transform();
        allocations += counter.Count();
    };
    for (int order = 0; order <= 16; ++order) {
        // Caller arrays cycle through 64-byte aligned and two misalignments, so aligned and
        // unaligned code paths are each checked against FFTW over small and large sizes.
        const std::size_t shift = std::size_t{order % 3 == 0 ? 0u : order % 3 == 1 ? 1u : 3u};
        SCOPED_TRACE("order " + std::to_string(order) + ", misaligned by " + std::to_string(shift));
        const std::size_t n = std::size_t{1} << order;
        const double tol = unit * order;
        auto cplan = ComplexPlan<T>::Create(order, isa);
        auto rplan = RealPlan<T>::Create(order, isa);
        ASSERT_TRUE(cplan != nullptr && rplan != nullptr);
        EXPECT_EQ(cplan->Order(), order);
        EXPECT_EQ(rplan->Order(), order);
        // The work buffers the contract promises: 64-byte aligned, exactly WorkBufferBytes() long.
        Array<unsigned char> cwork(cplan->WorkBufferBytes(), 0), rwork(rplan->WorkBufferBytes(), 0);

        for (bool forward : {true, false}) {
            SCOPED_TRACE(forward ? "complex forward" : "complex inverse");
            Array<T> xr(n, shift), xi(n, shift), yr(n, shift), yi(n, shift);
            xr.Fill(rng);
            xi.Fill(rng);
            const Spectrum want = Fftw(Load(n, xr.data(), xi.data()), forward);
            auto run = [&](T* ir, T* ii, T* orr, T* oi) {
                counted([&] {
                    if (forward)
                        cplan->Forward(ir, ii, orr, oi, cwork.data());
                    else
                        cplan->Inverse(ir, ii, orr, oi, cwork.data());
                });
            };
            run(xr.data(), xi.data(), yr.data(), yi.data());
            EXPECT_LE(RelErr(want, n, yr.data(), yi.data()), tol) << "out of place";
            run(xr.data(), xi.data(), xr.data(), xi.data());
            EXPECT_LE(RelErr(want, n, xr.data(), xi.data()), tol) << "in place";
            EXPECT_TRUE(xr.GuardIntact() && xi.GuardIntact() && yr.GuardIntact() && yi.GuardIntact());
        }
        {  // Real forward: N reals to N + 2 CCS values, exact zeros at elements 1 and N + 1.
            Array<T> x(n, shift), ccs(n + 2, shift), inPlace(n + 2, shift);
            x.Fill(rng);
            const Spectrum want = Fftw(Load(n, x.data(), static_cast<T*>(nullptr)), true);
            counted([&] { rplan->Forward(x.data(), ccs.data(), rwork.data()); });
            std::memcpy(inPlace.data(), x.data(), n * sizeof(T));
            inPlace[n] = inPlace[n + 1] = T(7);  // must be overwritten
            counted([&] { rplan->Forward(inPlace.data(), inPlace.data(), rwork.data()); });
            for (Array<T>* out : {&ccs, &inPlace}) {
                EXPECT_LE(RelErr(want, n / 2 + 1, out->data(), out->data() + 1, 2), tol) << "real forward";
                EXPECT_EQ((*out)[1], T(0));
                EXPECT_EQ((*out)[n + 1], T(0));
                EXPECT_TRUE(out->GuardIntact()) << "wrote past the output";
            }
        }
        {  // Real inverse: CCS with junk imaginary DC and Nyquist (ignored) against the full Hermitian.
            Array<T> ccs(n + 2, shift), x(n, shift);
            ccs.Fill(rng);
            ccs[1] = T(0.75);
            ccs[n + 1] = T(-0.5);
            Spectrum hermitian(n);
            for (std::size_t k = 0; k < n; ++k) {
                const std::size_t m = k <= n / 2 ? k : n - k;
                const double im = m == 0 || 2 * m == n ? 0.0 : static_cast<double>(ccs[2 * m + 1]);
                hermitian[k] = {static_cast<double>(ccs[2 * m]), k == m ? im : -im};
            }
            const Spectrum want = Fftw(hermitian, false);
            counted([&] { rplan->Inverse(ccs.data(), x.data(), rwork.data()); });
            EXPECT_LE(RelErr(want, n, x.data(), static_cast<T*>(nullptr)), tol) << "real inverse";
            counted([&] { rplan->Inverse(ccs.data(), ccs.data(), rwork.data()); });
            EXPECT_LE(RelErr(want, n, ccs.data(), static_cast<T*>(nullptr)), tol) << "in place";
            EXPECT_TRUE(x.GuardIntact() && ccs.GuardIntact()) << "wrote past the output";
        }
        EXPECT_TRUE(cwork.GuardIntact() && rwork.GuardIntact()) << "wrote past the work buffer";
    }
    EXPECT_EQ(allocations, 0) << "transforms allocate nothing";
}

TEST_P(FftKernelIsa, FloatMatchesFftwAtEverySize) {
    CheckEverySize<float>(GetParam());
}
TEST_P(FftKernelIsa, DoubleMatchesFftwAtEverySize) {
    CheckEverySize<double>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Kernels, FftKernelIsa, testing::Values(Isa::Portable, Isa::Avx2Fma),
                         [](const testing::TestParamInfo<Isa>& info) {
                             return std::string(info.param == Isa::Portable ? "Portable" : "Avx2Fma");
                         });

TEST(FftKernelDispatch, BestResolvesToAnAvailableKernel) {
    const Isa best = dsp::detail::BestIsa();
    EXPECT_NE(best, Isa::Best);
    EXPECT_TRUE(dsp::detail::IsaAvailable(best));
    EXPECT_TRUE(dsp::detail::IsaAvailable(Isa::Portable));
    EXPECT_STREQ(dsp::detail::IsaName(Isa::Best), dsp::detail::IsaName(best));
}

}  // namespace
