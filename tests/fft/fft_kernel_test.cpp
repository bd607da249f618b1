// The FFT kernels against FFTW (double precision) as the oracle: every power-of-two size from 2 to
// 65536, both element types, every kernel this CPU can run, complex and real transforms in both
// directions, in place and out of place, on caller arrays that are deliberately not aligned.
// Also: the plan contract (orders, null plans, no allocation, no state shared between calls).

#include "dsp/fft/fft_kernel.h"
#include "support/allocation_counter.h"

#include <fftw3.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>


namespace {

using dsp::fft::ComplexPlan;
using dsp::fft::Isa;
using dsp::fft::RealPlan;

// ---------------------------------------------------------------------------------------------
// Buffers that are never 16-byte aligned (one element past a 64-byte boundary), with guard
// elements after the end that must survive every transform.

constexpr std::size_t kGuard = 16;

template <typename T>
class Array {
public:
    explicit Array(std::size_t n, std::size_t misalign = 1) : mN(n), mStore(n + kGuard + 64) {
        auto addr = reinterpret_cast<std::uintptr_t>(mStore.data());
        const std::uintptr_t aligned = (addr + 63) & ~std::uintptr_t{63};
        mData = reinterpret_cast<T*>(aligned) + misalign;
        for (std::size_t i = 0; i < kGuard; ++i)
            mData[mN + i] = Sentinel();
    }
    T* data() { return mData; }
    const T* data() const { return mData; }
    T& operator[](std::size_t i) { return mData[i]; }
    const T& operator[](std::size_t i) const { return mData[i]; }
    std::size_t size() const { return mN; }
    bool GuardIntact() const {
        for (std::size_t i = 0; i < kGuard; ++i)
            if (std::memcmp(&mData[mN + i], &kSentinel, sizeof(T)) != 0) return false;
        return true;
    }
    void CopyFrom(const Array& o) { std::memcpy(mData, o.mData, mN * sizeof(T)); }
    bool SameAs(const Array& o) const { return std::memcmp(mData, o.mData, mN * sizeof(T)) == 0; }

private:
    static constexpr T kSentinel = T(-12345.6875);
    static T Sentinel() { return kSentinel; }
    std::size_t mN;
    std::vector<T> mStore;
    T* mData;
};

// The work buffer the contract promises: 64-byte aligned, exactly WorkBufferBytes() long, followed
// by guard bytes.
class Work {
public:
    explicit Work(std::size_t bytes) : mBytes(bytes), mStore(bytes + 64 + 256) {
        auto addr = reinterpret_cast<std::uintptr_t>(mStore.data());
        mData = reinterpret_cast<unsigned char*>((addr + 63) & ~std::uintptr_t{63});
        std::memset(mData + mBytes, 0xA5, 256);
    }
    void* data() { return mData; }
    bool GuardIntact() const {
        for (std::size_t i = 0; i < 256; ++i)
            if (mData[mBytes + i] != 0xA5) return false;
        return true;
    }

private:
    std::size_t mBytes;
    std::vector<unsigned char> mStore;
    unsigned char* mData;
};

// ---------------------------------------------------------------------------------------------
// FFTW in double precision, one size, both directions.

class Oracle {
public:
    explicit Oracle(std::size_t n) : mN(n), mBuf(fftw_alloc_complex(n)) {
        const int ni = static_cast<int>(n);
        mFwd = fftw_plan_dft_1d(ni, mBuf, mBuf, FFTW_FORWARD, FFTW_ESTIMATE);
        mBwd = fftw_plan_dft_1d(ni, mBuf, mBuf, FFTW_BACKWARD, FFTW_ESTIMATE);
    }
    ~Oracle() {
        fftw_destroy_plan(mFwd);
        fftw_destroy_plan(mBwd);
        fftw_free(mBuf);
    }
    Oracle(const Oracle&) = delete;
    Oracle& operator=(const Oracle&) = delete;

    // Transforms (re, im) given as any element type; the result is left in Re()/Im().
    template <typename T>
    void Run(bool forward, const T* re, const T* im) {
        for (std::size_t i = 0; i < mN; ++i) {
            mBuf[i][0] = static_cast<double>(re[i]);
            mBuf[i][1] = im != nullptr ? static_cast<double>(im[i]) : 0.0;
        }
        fftw_execute(forward ? mFwd : mBwd);
    }
    double Re(std::size_t k) const { return mBuf[k][0]; }
    double Im(std::size_t k) const { return mBuf[k][1]; }
    double* Raw() { return &mBuf[0][0]; }
    void RunRaw(bool forward) { fftw_execute(forward ? mFwd : mBwd); }

private:
    std::size_t mN;
    fftw_complex* mBuf;
    fftw_plan mFwd;
    fftw_plan mBwd;
};

// Relative RMS error of `count` complex values against the oracle's bins 0 ... count - 1, with
// element k of ours at re[k * stride], im[k * stride].
template <typename T>
double RelErrComplex(const Oracle& ref, std::size_t count, const T* re, const T* im, std::size_t stride = 1) {
    double num = 0, den = 0;
    for (std::size_t k = 0; k < count; ++k) {
        const double dr = static_cast<double>(re[k * stride]) - ref.Re(k);
        const double di = static_cast<double>(im[k * stride]) - ref.Im(k);
        num += dr * dr + di * di;
        den += ref.Re(k) * ref.Re(k) + ref.Im(k) * ref.Im(k);
    }
    return std::sqrt(num / den);
}

template <typename T>
double RelErrReal(const Oracle& ref, std::size_t n, const T* x) {
    double num = 0, den = 0;
    for (std::size_t k = 0; k < n; ++k) {
        const double d = static_cast<double>(x[k]) - ref.Re(k);
        num += d * d;
        den += ref.Re(k) * ref.Re(k);
    }
    return std::sqrt(num / den);
}

template <typename T>
void FillRandom(Array<T>& a, std::mt19937& rng) {
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    for (std::size_t i = 0; i < a.size(); ++i)
        a[i] = static_cast<T>(dist(rng));
}

}  // namespace

namespace dsp::fft {
// Readable test names and messages for the kernel parameter.
void PrintTo(Isa isa, std::ostream* os) {
    *os << IsaName(isa);
}
}  // namespace dsp::fft

namespace {

std::vector<Isa> KernelIsas() {
    return {Isa::Portable, Isa::Avx2Fma};
}

std::string IsaParamName(const testing::TestParamInfo<Isa>& info) {
    return info.param == Isa::Portable ? "Portable" : "Avx2Fma";
}

class FftKernelIsa : public testing::TestWithParam<Isa> {
protected:
    void SetUp() override {
        if (!dsp::fft::IsaAvailable(GetParam())) GTEST_SKIP() << "kernel not available on this CPU";
    }
};

// ---------------------------------------------------------------------------------------------
// Accuracy against FFTW over every size, every direction and both placements.

template <typename T>
void CheckEverySize(Isa isa) {
    const double unit = sizeof(T) == sizeof(float) ? 1e-6 : 1e-14;
    std::mt19937 rng(20240611u + (sizeof(T) == sizeof(float) ? 0u : 1u));
    for (int order = 1; order <= 16; ++order) {
        SCOPED_TRACE("order " + std::to_string(order));
        const std::size_t n = std::size_t{1} << order;
        const double tol = unit * order;
        auto cplan = ComplexPlan<T>::Create(order, isa);
        auto rplan = RealPlan<T>::Create(order, isa);
        ASSERT_NE(cplan, nullptr);
        ASSERT_NE(rplan, nullptr);
        EXPECT_EQ(cplan->Order(), order);
        EXPECT_EQ(rplan->Order(), order);
        Oracle ref(n);

        // Complex, both directions, out of place then in place.
        {
            Work work(cplan->WorkBufferBytes());
            Array<T> xr(n), xi(n), yr(n), yi(n), keepR(n), keepI(n);
            FillRandom(xr, rng);
            FillRandom(xi, rng);
            keepR.CopyFrom(xr);
            keepI.CopyFrom(xi);
            for (bool forward : {true, false}) {
                SCOPED_TRACE(forward ? "complex forward" : "complex inverse");
                ref.Run(forward, xr.data(), xi.data());
                auto run = [&](const T* ir, const T* ii, T* orr, T* oi) {
                    if (forward)
                        cplan->Forward(ir, ii, orr, oi, work.data());
                    else
                        cplan->Inverse(ir, ii, orr, oi, work.data());
                };
                run(xr.data(), xi.data(), yr.data(), yi.data());
                EXPECT_LE(RelErrComplex(ref, n, yr.data(), yi.data()), tol) << "out of place";
                EXPECT_TRUE(xr.SameAs(keepR) && xi.SameAs(keepI)) << "input modified";
                yr.CopyFrom(xr);
                yi.CopyFrom(xi);
                run(yr.data(), yi.data(), yr.data(), yi.data());
                EXPECT_LE(RelErrComplex(ref, n, yr.data(), yi.data()), tol) << "in place";
                EXPECT_TRUE(yr.GuardIntact() && yi.GuardIntact()) << "wrote past the output";
            }
            EXPECT_TRUE(work.GuardIntact()) << "wrote past the work buffer";
        }

        // Real forward: N reals to N + 2 CCS values.
        {
            Work work(rplan->WorkBufferBytes());
            Array<T> x(n), keep(n), ccs(n + 2), inPlace(n + 2);
            FillRandom(x, rng);
            keep.CopyFrom(x);
            ref.Run(true, x.data(), static_cast<const T*>(nullptr));
            rplan->Forward(x.data(), ccs.data(), work.data());
            EXPECT_LE(RelErrComplex(ref, n / 2 + 1, ccs.data(), ccs.data() + 1, 2), tol) << "real forward";
            EXPECT_EQ(ccs[1], T(0));
            EXPECT_EQ(ccs[n + 1], T(0));
            EXPECT_TRUE(x.SameAs(keep)) << "input modified";
            std::memcpy(inPlace.data(), x.data(), n * sizeof(T));
            inPlace[n] = inPlace[n + 1] = T(7);  // must be overwritten
            rplan->Forward(inPlace.data(), inPlace.data(), work.data());
            EXPECT_LE(RelErrComplex(ref, n / 2 + 1, inPlace.data(), inPlace.data() + 1, 2), tol)
                << "real forward in place";
            EXPECT_EQ(inPlace[1], T(0));
            EXPECT_EQ(inPlace[n + 1], T(0));
            EXPECT_TRUE(ccs.GuardIntact() && inPlace.GuardIntact()) << "wrote past the output";
            EXPECT_TRUE(work.GuardIntact()) << "wrote past the work buffer";
        }

        // Real inverse: CCS in (with junk in the imaginary parts of DC and Nyquist, which must be
        // ignored), N reals out, against FFTW's inverse of the full Hermitian spectrum.
        {
            Work work(rplan->WorkBufferBytes());
            Array<T> ccs(n + 2), keep(n + 2), x(n), inPlace(n + 2);
            FillRandom(ccs, rng);
            ccs[1] = T(0.75);
            ccs[n + 1] = T(-0.5);
            keep.CopyFrom(ccs);
            double* raw = ref.Raw();
            for (std::size_t k = 0; k <= n / 2; ++k) {
                raw[2 * k] = static_cast<double>(ccs[2 * k]);
                raw[2 * k + 1] = (k == 0 || k == n / 2) ? 0.0 : static_cast<double>(ccs[2 * k + 1]);
            }
            for (std::size_t k = n / 2 + 1; k < n; ++k) {
                raw[2 * k] = raw[2 * (n - k)];
                raw[2 * k + 1] = -raw[2 * (n - k) + 1];
            }
            ref.RunRaw(false);
            rplan->Inverse(ccs.data(), x.data(), work.data());
            EXPECT_LE(RelErrReal(ref, n, x.data()), tol) << "real inverse";
            EXPECT_TRUE(ccs.SameAs(keep)) << "input modified";
            inPlace.CopyFrom(ccs);
            rplan->Inverse(inPlace.data(), inPlace.data(), work.data());
            EXPECT_LE(RelErrReal(ref, n, inPlace.data()), tol) << "real inverse in place";
            EXPECT_TRUE(x.GuardIntact() && inPlace.GuardIntact()) << "wrote past the output";
            EXPECT_TRUE(work.GuardIntact()) << "wrote past the work buffer";
        }
    }
}

TEST_P(FftKernelIsa, FloatMatchesFftwAtEverySize) {
    CheckEverySize<float>(GetParam());
}
TEST_P(FftKernelIsa, DoubleMatchesFftwAtEverySize) {
    CheckEverySize<double>(GetParam());
}

// ---------------------------------------------------------------------------------------------
// Alignment of the caller's arrays changes nothing: aligned and misaligned runs agree bit for bit.

template <typename T>
void CheckAlignmentIndependence(Isa isa) {
    std::mt19937 rng(77);
    for (int order = 1; order <= 13; ++order) {
        SCOPED_TRACE("order " + std::to_string(order));
        const std::size_t n = std::size_t{1} << order;
        auto cplan = ComplexPlan<T>::Create(order, isa);
        auto rplan = RealPlan<T>::Create(order, isa);
        Work work(std::max(cplan->WorkBufferBytes(), rplan->WorkBufferBytes()));
        for (std::size_t shift : {std::size_t{1}, std::size_t{3}}) {
            Array<T> ar(n, 0), ai(n, 0), br(n, 0), bi(n, 0);
            Array<T> ur(n, shift), ui(n, shift), vr(n, shift), vi(n, shift);
            FillRandom(ar, rng);
            FillRandom(ai, rng);
            ur.CopyFrom(ar);
            ui.CopyFrom(ai);
            cplan->Forward(ar.data(), ai.data(), br.data(), bi.data(), work.data());
            cplan->Forward(ur.data(), ui.data(), vr.data(), vi.data(), work.data());
            EXPECT_TRUE(br.SameAs(vr) && bi.SameAs(vi)) << "complex, shift " << shift;

            Array<T> ra(n + 2, 0), rb(n + 2, 0), rc(n + 2, shift), rd(n + 2, shift);
            FillRandom(ra, rng);
            rc.CopyFrom(ra);
            rplan->Forward(ra.data(), rb.data(), work.data());
            rplan->Forward(rc.data(), rd.data(), work.data());
            EXPECT_TRUE(rb.SameAs(rd)) << "real forward, shift " << shift;
            rplan->Inverse(ra.data(), rb.data(), work.data());
            rplan->Inverse(rc.data(), rd.data(), work.data());
            for (std::size_t i = 0; i < n; ++i)
                ASSERT_EQ(rb[i], rd[i]) << "real inverse, shift " << shift;
        }
    }
}

TEST_P(FftKernelIsa, CallerArrayAlignmentDoesNotMatter) {
    CheckAlignmentIndependence<float>(GetParam());
    CheckAlignmentIndependence<double>(GetParam());
}

// ---------------------------------------------------------------------------------------------
// Plan contract.

template <typename T>
void CheckOrderLimits(Isa isa) {
    EXPECT_EQ(ComplexPlan<T>::Create(-1, isa), nullptr);
    EXPECT_EQ(ComplexPlan<T>::Create(dsp::fft::kMaxOrder + 1, isa), nullptr);
    EXPECT_EQ(RealPlan<T>::Create(-1, isa), nullptr);
    EXPECT_EQ(RealPlan<T>::Create(dsp::fft::kMaxOrder + 1, isa), nullptr);

    // Order 0 is the one-point transform: the identity, in place or not.
    auto c = ComplexPlan<T>::Create(0, isa);
    auto r = RealPlan<T>::Create(0, isa);
    ASSERT_NE(c, nullptr);
    ASSERT_NE(r, nullptr);
    Work work(std::max(c->WorkBufferBytes(), r->WorkBufferBytes()));
    T re = T(0.25), im = T(-3), ore = 0, oim = 0;
    c->Forward(&re, &im, &ore, &oim, work.data());
    EXPECT_EQ(ore, T(0.25));
    EXPECT_EQ(oim, T(-3));
    c->Inverse(&re, &im, &re, &im, work.data());
    EXPECT_EQ(re, T(0.25));
    EXPECT_EQ(im, T(-3));
    T x = T(1.5);
    T ccs[3] = {T(9), T(9), T(9)};
    r->Forward(&x, ccs, work.data());
    EXPECT_EQ(ccs[0], T(1.5));
    EXPECT_EQ(ccs[1], T(0));
    EXPECT_EQ(ccs[2], T(0));
    ccs[1] = T(4);  // imaginary part of DC: ignored
    T back = 0;
    r->Inverse(ccs, &back, work.data());
    EXPECT_EQ(back, T(1.5));
}

TEST_P(FftKernelIsa, OrderLimitsAndTheOnePointTransform) {
    CheckOrderLimits<float>(GetParam());
    CheckOrderLimits<double>(GetParam());
}

template <typename T>
long long CountAllocationsDuringTransforms(Isa isa) {
    std::vector<std::unique_ptr<ComplexPlan<T>>> cplans;
    std::vector<std::unique_ptr<RealPlan<T>>> rplans;
    std::size_t bytes = 0;
    for (int order : {0, 1, 2, 3, 5, 8, 11, 14}) {
        cplans.push_back(ComplexPlan<T>::Create(order, isa));
        rplans.push_back(RealPlan<T>::Create(order, isa));
        bytes = std::max({bytes, cplans.back()->WorkBufferBytes(), rplans.back()->WorkBufferBytes()});
    }
    const std::size_t big = std::size_t{1} << 14;
    Work work(bytes);
    Array<T> a(big + 2), b(big + 2), c(big + 2), d(big + 2);
    std::mt19937 rng(5);
    FillRandom(a, rng);
    FillRandom(b, rng);

    kesta::test::AllocationCounter allocations;
    for (auto& p : cplans) {
        p->Forward(a.data(), b.data(), c.data(), d.data(), work.data());
        p->Inverse(c.data(), d.data(), c.data(), d.data(), work.data());
    }
    for (auto& p : rplans) {
        p->Forward(a.data(), c.data(), work.data());
        p->Inverse(c.data(), d.data(), work.data());
        p->Forward(c.data(), c.data(), work.data());
    }
    return allocations.Count();
}

TEST_P(FftKernelIsa, TransformsAllocateNothing) {
    EXPECT_EQ(CountAllocationsDuringTransforms<float>(GetParam()), 0);
    EXPECT_EQ(CountAllocationsDuringTransforms<double>(GetParam()), 0);
}

// Plans keep no state between calls: two threads sharing one plan, each with its own work buffer,
// get exactly what a lone caller gets.
TEST_P(FftKernelIsa, OnePlanServesSeveralThreads) {
    const int order = 12;
    const std::size_t n = std::size_t{1} << order;
    auto cplan = ComplexPlan<float>::Create(order, GetParam());
    auto rplan = RealPlan<double>::Create(order, GetParam());
    std::mt19937 rng(9);
    Array<float> xr(n), xi(n), er(n), ei(n);
    Array<double> xd(n), ed(n + 2);
    FillRandom(xr, rng);
    FillRandom(xi, rng);
    FillRandom(xd, rng);
    {
        Work w1(cplan->WorkBufferBytes()), w2(rplan->WorkBufferBytes());
        cplan->Forward(xr.data(), xi.data(), er.data(), ei.data(), w1.data());
        rplan->Forward(xd.data(), ed.data(), w2.data());
    }
    std::atomic<int> mismatches{0};
    auto worker = [&] {
        Work w1(cplan->WorkBufferBytes()), w2(rplan->WorkBufferBytes());
        Array<float> yr(n), yi(n);
        Array<double> yd(n + 2);
        for (int rep = 0; rep < 40; ++rep) {
            cplan->Forward(xr.data(), xi.data(), yr.data(), yi.data(), w1.data());
            rplan->Forward(xd.data(), yd.data(), w2.data());
            if (!yr.SameAs(er) || !yi.SameAs(ei) || !yd.SameAs(ed)) ++mismatches;
        }
    };
    std::thread t1(worker), t2(worker);
    t1.join();
    t2.join();
    EXPECT_EQ(mismatches.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Kernels, FftKernelIsa, testing::ValuesIn(KernelIsas()), IsaParamName);

TEST(FftKernelDispatch, BestResolvesToAnAvailableKernel) {
    const Isa best = dsp::fft::BestIsa();
    EXPECT_NE(best, Isa::Best);
    EXPECT_TRUE(dsp::fft::IsaAvailable(best));
    EXPECT_TRUE(dsp::fft::IsaAvailable(Isa::Portable));
    EXPECT_STREQ(dsp::fft::IsaName(Isa::Best), dsp::fft::IsaName(best));
    EXPECT_STRNE(dsp::fft::IsaName(Isa::Portable), dsp::fft::IsaName(Isa::Avx2Fma));
    auto plan = ComplexPlan<double>::Create(4, Isa::Best);
    ASSERT_NE(plan, nullptr);
    EXPECT_EQ(plan->Order(), 4);
}

}  // namespace
