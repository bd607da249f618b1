// The FFT kernels against FFTW (double precision): every size 2 ... 65536, float and double, every
// kernel this CPU runs, complex and real, both directions, in and out of place; plus the plan contract.

#include "dsp/fft/fft_kernel.h"
#include "support/allocation_counter.h"

#include <fftw3.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

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
    std::size_t size() const { return mN; }
    bool GuardIntact() const {
        const auto* guard = reinterpret_cast<const unsigned char*>(mData + mN);
        return std::all_of(guard, guard + kGuard * sizeof(T), [](unsigned char b) { return b == 0xA5; });
    }
    void CopyFrom(const Array& o) { std::memcpy(mData, o.mData, mN * sizeof(T)); }
    bool SameAs(const Array& o) const { return std::memcmp(mData, o.mData, mN * sizeof(T)) == 0; }

private:
    static constexpr std::size_t kGuard = 256 / sizeof(T);
    std::size_t mN;
    std::vector<T> mStore;
    T* mData;
};
// The work buffer the contract promises: 64-byte aligned, exactly WorkBufferBytes() long.
struct Work : Array<unsigned char> {
    explicit Work(std::size_t bytes) : Array(bytes, 0) {}
};

class Oracle {
public:
    explicit Oracle(std::size_t n) : mN(n), mBuf(fftw_alloc_complex(n)) {
        mFwd = fftw_plan_dft_1d(static_cast<int>(n), mBuf, mBuf, FFTW_FORWARD, FFTW_ESTIMATE);
        mBwd = fftw_plan_dft_1d(static_cast<int>(n), mBuf, mBuf, FFTW_BACKWARD, FFTW_ESTIMATE);
    }
    ~Oracle() {
        fftw_destroy_plan(mFwd);
        fftw_destroy_plan(mBwd);
        fftw_free(mBuf);
    }
    Oracle(const Oracle&) = delete;
    Oracle& operator=(const Oracle&) = delete;

    template <typename T>
    void Run(bool forward, const T* re, const T* im) {
        for (std::size_t i = 0; i < mN; ++i) {
            mBuf[i][0] = static_cast<double>(re[i]);
            mBuf[i][1] = im != nullptr ? static_cast<double>(im[i]) : 0.0;
        }
        RunRaw(forward);
    }
    void RunRaw(bool forward) { fftw_execute(forward ? mFwd : mBwd); }
    double* Raw() { return &mBuf[0][0]; }

    // Relative RMS error of bins 0 ... count - 1 held at re[k * stride], im[k * stride]; with
    // im == nullptr only the real parts are compared.
    template <typename T>
    double RelErr(std::size_t count, const T* re, const T* im, std::size_t stride = 1) const {
        double num = 0, den = 0;
        for (std::size_t k = 0; k < count; ++k) {
            const double dr = static_cast<double>(re[k * stride]) - mBuf[k][0];
            const double di = im != nullptr ? static_cast<double>(im[k * stride]) - mBuf[k][1] : 0.0;
            num += dr * dr + di * di;
            den += mBuf[k][0] * mBuf[k][0] + (im != nullptr ? mBuf[k][1] * mBuf[k][1] : 0.0);
        }
        return std::sqrt(num / den);
    }

private:
    std::size_t mN;
    fftw_complex* mBuf;
    fftw_plan mFwd;
    fftw_plan mBwd;
};

template <typename T>
void FillRandom(Array<T>& a, std::mt19937& rng) {
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    for (std::size_t i = 0; i < a.size(); ++i)
        a[i] = static_cast<T>(dist(rng));
}

class FftKernelIsa : public testing::TestWithParam<Isa> {
protected:
    void SetUp() override {
        if (!dsp::fft::IsaAvailable(GetParam())) GTEST_SKIP() << "kernel not available on this CPU";
    }
};

template <typename T>
void CheckEverySize(Isa isa) {
    const double unit = sizeof(T) == sizeof(float) ? 1e-6 : 1e-14;
    std::mt19937 rng(20240611u + (sizeof(T) == sizeof(float) ? 0u : 1u));
    for (int order = 1; order <= 16; ++order) {
        // Caller arrays cycle through 64-byte aligned and two misalignments, so aligned and
        // unaligned code paths are each checked against FFTW over small and large sizes.
        const std::size_t shift = std::size_t{order % 3 == 0 ? 0u : order % 3 == 1 ? 1u : 3u};
        SCOPED_TRACE("order " + std::to_string(order) + ", misaligned by " + std::to_string(shift));
        const std::size_t n = std::size_t{1} << order;
        const double tol = unit * order;
        auto cplan = ComplexPlan<T>::Create(order, isa);
        auto rplan = RealPlan<T>::Create(order, isa);
        ASSERT_NE(cplan, nullptr);
        ASSERT_NE(rplan, nullptr);
        EXPECT_EQ(cplan->Order(), order);
        EXPECT_EQ(rplan->Order(), order);
        Oracle ref(n);

        {  // Complex, both directions, out of place then in place.
            Work work(cplan->WorkBufferBytes());
            Array<T> xr(n, shift), xi(n, shift), yr(n, shift), yi(n, shift), keepR(n), keepI(n);
            FillRandom(xr, rng);
            FillRandom(xi, rng);
            keepR.CopyFrom(xr);
            keepI.CopyFrom(xi);
            for (bool forward : {true, false}) {
                SCOPED_TRACE(forward ? "complex forward" : "complex inverse");
                ref.Run(forward, xr.data(), xi.data());
                auto run = [&](T* ir, T* ii, T* orr, T* oi) {
                    if (forward) cplan->Forward(ir, ii, orr, oi, work.data());
                    else cplan->Inverse(ir, ii, orr, oi, work.data());
                };
                run(xr.data(), xi.data(), yr.data(), yi.data());
                EXPECT_LE(ref.RelErr(n, yr.data(), yi.data()), tol) << "out of place";
                EXPECT_TRUE(xr.SameAs(keepR) && xi.SameAs(keepI)) << "input modified";
                yr.CopyFrom(xr);
                yi.CopyFrom(xi);
                run(yr.data(), yi.data(), yr.data(), yi.data());
                EXPECT_LE(ref.RelErr(n, yr.data(), yi.data()), tol) << "in place";
                EXPECT_TRUE(yr.GuardIntact() && yi.GuardIntact()) << "wrote past the output";
            }
            EXPECT_TRUE(work.GuardIntact()) << "wrote past the work buffer";
        }
        {  // Real forward: N reals to N + 2 CCS values, exact zeros at elements 1 and N + 1.
            Work work(rplan->WorkBufferBytes());
            Array<T> x(n, shift), keep(n), ccs(n + 2, shift), inPlace(n + 2, shift);
            FillRandom(x, rng);
            keep.CopyFrom(x);
            ref.Run(true, x.data(), static_cast<const T*>(nullptr));
            rplan->Forward(x.data(), ccs.data(), work.data());
            EXPECT_TRUE(x.SameAs(keep)) << "input modified";
            std::memcpy(inPlace.data(), x.data(), n * sizeof(T));
            inPlace[n] = inPlace[n + 1] = T(7);  // must be overwritten
            rplan->Forward(inPlace.data(), inPlace.data(), work.data());
            for (Array<T>* out : {&ccs, &inPlace}) {
                EXPECT_LE(ref.RelErr(n / 2 + 1, out->data(), out->data() + 1, 2), tol) << "real forward";
                EXPECT_EQ((*out)[1], T(0));
                EXPECT_EQ((*out)[n + 1], T(0));
                EXPECT_TRUE(out->GuardIntact()) << "wrote past the output";
            }
            EXPECT_TRUE(work.GuardIntact()) << "wrote past the work buffer";
        }
        {  // Real inverse: CCS with junk imaginary DC and Nyquist (ignored) against the full Hermitian.
            Work work(rplan->WorkBufferBytes());
            Array<T> ccs(n + 2, shift), keep(n + 2), x(n, shift), inPlace(n + 2, shift);
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
            EXPECT_LE(ref.RelErr(n, x.data(), static_cast<const T*>(nullptr)), tol) << "real inverse";
            EXPECT_TRUE(ccs.SameAs(keep)) << "input modified";
            inPlace.CopyFrom(ccs);
            rplan->Inverse(inPlace.data(), inPlace.data(), work.data());
            EXPECT_LE(ref.RelErr(n, inPlace.data(), static_cast<const T*>(nullptr)), tol) << "in place";
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

// Orders outside 0 ... kMaxOrder give no plan; order 0 is the one-point identity.
template <typename T>
void CheckOrderLimits(Isa isa) {
    for (int bad : {-1, dsp::fft::kMaxOrder + 1}) {
        EXPECT_EQ(ComplexPlan<T>::Create(bad, isa), nullptr) << bad;
        EXPECT_EQ(RealPlan<T>::Create(bad, isa), nullptr) << bad;
    }
    auto c = ComplexPlan<T>::Create(0, isa);
    auto r = RealPlan<T>::Create(0, isa);
    ASSERT_TRUE(c != nullptr && r != nullptr);
    Work work(std::max(c->WorkBufferBytes(), r->WorkBufferBytes()));
    T re = T(0.25), im = T(-3), ore = 0, oim = 0;
    c->Forward(&re, &im, &ore, &oim, work.data());
    c->Inverse(&re, &im, &re, &im, work.data());
    EXPECT_TRUE(ore == T(0.25) && oim == T(-3) && re == T(0.25) && im == T(-3));
    T x = T(1.5), back = 0;
    T ccs[3] = {T(9), T(9), T(9)};
    r->Forward(&x, ccs, work.data());
    EXPECT_TRUE(ccs[0] == T(1.5) && ccs[1] == T(0) && ccs[2] == T(0));
    ccs[1] = T(4);  // imaginary part of DC: ignored
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
    const std::size_t big = (std::size_t{1} << 14) + 2;
    Work work(bytes);
    Array<T> a(big), b(big), c(big), d(big);
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

// Plans keep no state between calls: threads sharing one plan get exactly what a lone caller gets.
TEST_P(FftKernelIsa, OnePlanServesSeveralThreads) {
    const std::size_t n = 4096;
    auto cplan = ComplexPlan<float>::Create(12, GetParam());
    auto rplan = RealPlan<double>::Create(12, GetParam());
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

INSTANTIATE_TEST_SUITE_P(Kernels, FftKernelIsa, testing::Values(Isa::Portable, Isa::Avx2Fma),
                         [](const testing::TestParamInfo<Isa>& info) {
                             return std::string(info.param == Isa::Portable ? "Portable" : "Avx2Fma");
                         });

TEST(FftKernelDispatch, BestResolvesToAnAvailableKernel) {
    const Isa best = dsp::fft::BestIsa();
    EXPECT_NE(best, Isa::Best);
    EXPECT_TRUE(dsp::fft::IsaAvailable(best));
    EXPECT_TRUE(dsp::fft::IsaAvailable(Isa::Portable));
    EXPECT_STREQ(dsp::fft::IsaName(Isa::Best), dsp::fft::IsaName(best));
}

}  // namespace
