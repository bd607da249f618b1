// FFT kernels against FFTW in the same binary: complex float and double, real float and double,
// at N = 256 ... 16384. FFTW runs with FFTW_MEASURE plans, once on our split layout (guru split
// plans) and once on its own interleaved layout. Google Benchmark reports each contender's time
// and samples per second; a table at the end prints ours / FFTW for both layouts.
//
// Only the table:  kesta_bench_fft --benchmark_filter=none

#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dsp/fft/fft_kernel.h"

namespace {

using dsp::fft::ComplexPlan;
using dsp::fft::Isa;
using dsp::fft::RealPlan;

const int kOrders[] = {8, 10, 12, 14};

// 64-byte aligned arrays from FFTW's allocator, used for both sides so layout is the only
// difference between them.
template <typename T>
struct Aligned {
    explicit Aligned(std::size_t n) : n(n), p(static_cast<T*>(fftw_malloc(n * sizeof(T)))) {
        std::mt19937 rng(static_cast<unsigned>(n));
        std::uniform_real_distribution<double> d(-1.0, 1.0);
        for (std::size_t i = 0; i < n; ++i)
            p[i] = static_cast<T>(d(rng));
    }
    ~Aligned() { fftw_free(p); }
    Aligned(const Aligned&) = delete;
    Aligned& operator=(const Aligned&) = delete;
    void Refill() {
        std::mt19937 rng(static_cast<unsigned>(n) + 1u);
        std::uniform_real_distribution<double> d(-1.0, 1.0);
        for (std::size_t i = 0; i < n; ++i)
            p[i] = static_cast<T>(d(rng));
    }
    std::size_t n;
    T* p;
};

void Finish(benchmark::State& state, std::size_t n) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

// ---- ours ----------------------------------------------------------------------------------

template <typename T>
void OursComplex(benchmark::State& state, int order, Isa isa) {
    const std::size_t n = std::size_t{1} << order;
    auto plan = ComplexPlan<T>::Create(order, isa);
    Aligned<T> xr(n), xi(n), yr(n), yi(n);
    Aligned<unsigned char> work(plan->WorkBufferBytes());
    for (auto _ : state) {
        plan->Forward(xr.p, xi.p, yr.p, yi.p, work.p);
        benchmark::DoNotOptimize(yr.p[0]);
        benchmark::ClobberMemory();
    }
    Finish(state, n);
}

template <typename T>
void OursReal(benchmark::State& state, int order, Isa isa) {
    const std::size_t n = std::size_t{1} << order;
    auto plan = RealPlan<T>::Create(order, isa);
    Aligned<T> x(n), y(n + 2);
    Aligned<unsigned char> work(plan->WorkBufferBytes());
    for (auto _ : state) {
        plan->Forward(x.p, y.p, work.p);
        benchmark::DoNotOptimize(y.p[0]);
        benchmark::ClobberMemory();
    }
    Finish(state, n);
}

// ---- FFTW ----------------------------------------------------------------------------------

template <typename T>
struct Fftw;

template <>
struct Fftw<float> {
    using Plan = fftwf_plan;
    static Plan Split(int n, float* ir, float* ii, float* orr, float* oi) {
        fftwf_iodim dim{n, 1, 1};
        return fftwf_plan_guru_split_dft(1, &dim, 0, nullptr, ir, ii, orr, oi, FFTW_MEASURE);
    }
    static Plan Interleaved(int n, float* in, float* out) {
        return fftwf_plan_dft_1d(n, reinterpret_cast<fftwf_complex*>(in), reinterpret_cast<fftwf_complex*>(out),
                                 FFTW_FORWARD, FFTW_MEASURE);
    }
    static Plan RealSplit(int n, float* in, float* orr, float* oi) {
        fftwf_iodim dim{n, 1, 1};
        return fftwf_plan_guru_split_dft_r2c(1, &dim, 0, nullptr, in, orr, oi, FFTW_MEASURE);
    }
    static Plan RealInterleaved(int n, float* in, float* out) {
        return fftwf_plan_dft_r2c_1d(n, in, reinterpret_cast<fftwf_complex*>(out), FFTW_MEASURE);
    }
    static void Execute(Plan p) { fftwf_execute(p); }
    static void Destroy(Plan p) { fftwf_destroy_plan(p); }
};

template <>
struct Fftw<double> {
    using Plan = fftw_plan;
    static Plan Split(int n, double* ir, double* ii, double* orr, double* oi) {
        fftw_iodim dim{n, 1, 1};
        return fftw_plan_guru_split_dft(1, &dim, 0, nullptr, ir, ii, orr, oi, FFTW_MEASURE);
    }
    static Plan Interleaved(int n, double* in, double* out) {
        return fftw_plan_dft_1d(n, reinterpret_cast<fftw_complex*>(in), reinterpret_cast<fftw_complex*>(out),
                                FFTW_FORWARD, FFTW_MEASURE);
    }
    static Plan RealSplit(int n, double* in, double* orr, double* oi) {
        fftw_iodim dim{n, 1, 1};
        return fftw_plan_guru_split_dft_r2c(1, &dim, 0, nullptr, in, orr, oi, FFTW_MEASURE);
    }
    static Plan RealInterleaved(int n, double* in, double* out) {
        return fftw_plan_dft_r2c_1d(n, in, reinterpret_cast<fftw_complex*>(out), FFTW_MEASURE);
    }
    static void Execute(Plan p) { fftw_execute(p); }
    static void Destroy(Plan p) { fftw_destroy_plan(p); }
};

template <typename T>
void RunFftw(benchmark::State& state, typename Fftw<T>::Plan plan, std::size_t n, T* probe) {
    for (auto _ : state) {
        Fftw<T>::Execute(plan);
        benchmark::DoNotOptimize(probe[0]);
        benchmark::ClobberMemory();
    }
    Fftw<T>::Destroy(plan);
    Finish(state, n);
}

template <typename T>
void FftwComplexSplit(benchmark::State& state, int order) {
    const std::size_t n = std::size_t{1} << order;
    Aligned<T> xr(n), xi(n), yr(n), yi(n);
    // FFTW's sign convention for split plans: forward when the imaginary array follows the real.
    auto plan = Fftw<T>::Split(static_cast<int>(n), xr.p, xi.p, yr.p, yi.p);
    xr.Refill();
    xi.Refill();
    RunFftw<T>(state, plan, n, yr.p);
}

template <typename T>
void FftwComplexInterleaved(benchmark::State& state, int order) {
    const std::size_t n = std::size_t{1} << order;
    Aligned<T> x(2 * n), y(2 * n);
    auto plan = Fftw<T>::Interleaved(static_cast<int>(n), x.p, y.p);
    x.Refill();
    RunFftw<T>(state, plan, n, y.p);
}

template <typename T>
void FftwRealSplit(benchmark::State& state, int order) {
    const std::size_t n = std::size_t{1} << order;
    Aligned<T> x(n), yr(n / 2 + 1), yi(n / 2 + 1);
    auto plan = Fftw<T>::RealSplit(static_cast<int>(n), x.p, yr.p, yi.p);
    x.Refill();
    RunFftw<T>(state, plan, n, yr.p);
}

template <typename T>
void FftwRealInterleaved(benchmark::State& state, int order) {
    const std::size_t n = std::size_t{1} << order;
    Aligned<T> x(n), y(n + 2);
    auto plan = Fftw<T>::RealInterleaved(static_cast<int>(n), x.p, y.p);
    x.Refill();
    RunFftw<T>(state, plan, n, y.p);
}

// ---- registration ---------------------------------------------------------------------------

benchmark::internal::Benchmark* Configure(benchmark::internal::Benchmark* b) {
    return b->MinTime(0.05)->Unit(benchmark::kNanosecond);
}

struct Family {
    const char* name;  // "complex f32", ...
    std::function<void(benchmark::State&, int, Isa)> ours;
    std::function<void(benchmark::State&, int)> split;
    std::function<void(benchmark::State&, int)> interleaved;
};

std::string Key(const std::string& family, const std::string& who, int order) {
    return family + "/" + who + "/" + std::to_string(1 << order);
}

// ---- the ratio table ---------------------------------------------------------------------------
// The machine running this may be busy, so the table does not rely on the runs above: it times
// each contender of a cell in short alternating batches, many rounds, and keeps each one's best
// batch. Contenders of a cell see the same conditions, and the minimum discards interruptions.

using Clock = std::chrono::steady_clock;

struct Contender {
    std::function<void()> run;
    double best = 1e300;  // seconds per call
};

void TimeCell(std::vector<Contender>& contenders, std::size_t n) {
    // Calls per batch: about 100 microseconds of work at an assumed 2 ns per point.
    const double guess = 2e-9 * static_cast<double>(n) * std::log2(static_cast<double>(n));
    const int calls = std::max(1, static_cast<int>(1e-4 / guess));
    for (Contender& c : contenders)
        for (int i = 0; i < 3; ++i)
            c.run();  // warm caches and branch predictors
    for (int round = 0; round < 41; ++round) {
        for (Contender& c : contenders) {
            const auto t0 = Clock::now();
            for (int i = 0; i < calls; ++i)
                c.run();
            const auto t1 = Clock::now();
            const double t = std::chrono::duration<double>(t1 - t0).count() / calls;
            c.best = std::min(c.best, t);
        }
    }
}

template <typename T>
struct FftwPlanGuard {
    typename Fftw<T>::Plan plan;
    ~FftwPlanGuard() { Fftw<T>::Destroy(plan); }
};

template <typename T>
void ComplexRow(const char* name, int order, const std::vector<std::pair<std::string, Isa>>& kernels) {
    const std::size_t n = std::size_t{1} << order;
    const int ni = static_cast<int>(n);
    Aligned<T> xr(n), xi(n), yr(n), yi(n), x(2 * n), y(2 * n);
    FftwPlanGuard<T> split{Fftw<T>::Split(ni, xr.p, xi.p, yr.p, yi.p)};
    FftwPlanGuard<T> inter{Fftw<T>::Interleaved(ni, x.p, y.p)};
    xr.Refill();
    xi.Refill();
    x.Refill();
    std::vector<std::unique_ptr<ComplexPlan<T>>> plans;
    std::vector<std::unique_ptr<Aligned<unsigned char>>> works;
    std::vector<Contender> cs;
    cs.push_back({[&] { Fftw<T>::Execute(split.plan); }});
    cs.push_back({[&] { Fftw<T>::Execute(inter.plan); }});
    for (const auto& k : kernels) {
        plans.push_back(ComplexPlan<T>::Create(order, k.second));
        works.push_back(std::make_unique<Aligned<unsigned char>>(plans.back()->WorkBufferBytes()));
        ComplexPlan<T>* p = plans.back().get();
        unsigned char* w = works.back()->p;
        cs.push_back({[&, p, w] { p->Forward(xr.p, xi.p, yr.p, yi.p, w); }});
    }
    TimeCell(cs, n);
    for (std::size_t i = 0; i < kernels.size(); ++i) {
        const double t = cs[2 + i].best;
        std::printf("%-12s %7zu %-9s %10.1f %10.1f %10.1f %12.1f %9.2f %9.2f\n", name, n, kernels[i].first.c_str(),
                    t * 1e9, cs[0].best * 1e9, cs[1].best * 1e9, static_cast<double>(n) / t * 1e-6, t / cs[0].best,
                    t / cs[1].best);
    }
}

template <typename T>
void RealRow(const char* name, int order, const std::vector<std::pair<std::string, Isa>>& kernels) {
    const std::size_t n = std::size_t{1} << order;
    const int ni = static_cast<int>(n);
    Aligned<T> x(n), yr(n / 2 + 1), yi(n / 2 + 1), y(n + 2);
    FftwPlanGuard<T> split{Fftw<T>::RealSplit(ni, x.p, yr.p, yi.p)};
    FftwPlanGuard<T> inter{Fftw<T>::RealInterleaved(ni, x.p, y.p)};
    x.Refill();
    std::vector<std::unique_ptr<RealPlan<T>>> plans;
    std::vector<std::unique_ptr<Aligned<unsigned char>>> works;
    std::vector<Contender> cs;
    cs.push_back({[&] { Fftw<T>::Execute(split.plan); }});
    cs.push_back({[&] { Fftw<T>::Execute(inter.plan); }});
    for (const auto& k : kernels) {
        plans.push_back(RealPlan<T>::Create(order, k.second));
        works.push_back(std::make_unique<Aligned<unsigned char>>(plans.back()->WorkBufferBytes()));
        RealPlan<T>* p = plans.back().get();
        unsigned char* w = works.back()->p;
        cs.push_back({[&, p, w] { p->Forward(x.p, y.p, w); }});
    }
    TimeCell(cs, n);
    for (std::size_t i = 0; i < kernels.size(); ++i) {
        const double t = cs[2 + i].best;
        std::printf("%-12s %7zu %-9s %10.1f %10.1f %10.1f %12.1f %9.2f %9.2f\n", name, n, kernels[i].first.c_str(),
                    t * 1e9, cs[0].best * 1e9, cs[1].best * 1e9, static_cast<double>(n) / t * 1e-6, t / cs[0].best,
                    t / cs[1].best);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool avx2 = dsp::detail::IsaAvailable(Isa::Avx2Fma);
    std::vector<Family> families = {
        {"complex f32", OursComplex<float>, FftwComplexSplit<float>, FftwComplexInterleaved<float>},
        {"complex f64", OursComplex<double>, FftwComplexSplit<double>, FftwComplexInterleaved<double>},
        {"real f32", OursReal<float>, FftwRealSplit<float>, FftwRealInterleaved<float>},
        {"real f64", OursReal<double>, FftwRealSplit<double>, FftwRealInterleaved<double>},
    };
    std::vector<std::pair<std::string, Isa>> kernels = {{"portable", Isa::Portable}};
    if (avx2) kernels.push_back({"avx2", Isa::Avx2Fma});

    for (const Family& f : families) {
        for (int order : kOrders) {
            for (const auto& [who, isa] : kernels) {
                auto fn = f.ours;
                const Isa k = isa;
                Configure(benchmark::RegisterBenchmark(Key(f.name, who, order).c_str(),
                                                       [fn, order, k](benchmark::State& s) { fn(s, order, k); }));
            }
            auto split = f.split;
            auto inter = f.interleaved;
            Configure(benchmark::RegisterBenchmark(Key(f.name, "fftw-split", order).c_str(),
                                                   [split, order](benchmark::State& s) { split(s, order); }));
            Configure(benchmark::RegisterBenchmark(Key(f.name, "fftw-interleaved", order).c_str(),
                                                   [inter, order](benchmark::State& s) { inter(s, order); }));
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();

    std::printf(
        "\nours / FFTW, time ratio (below 1.00: we are faster); FFTW_MEASURE plans, forward,\n"
        "out of place; best of 41 alternating batches. Best kernel here: %s\n\n",
        dsp::detail::IsaName(Isa::Best));
    std::printf("%-12s %7s %-9s %10s %10s %10s %12s %9s %9s\n", "transform", "N", "kernel", "ours ns", "split ns",
                "inter ns", "Msamples/s", "/split", "/inter");
    for (int order : kOrders)
        ComplexRow<float>("complex f32", order, kernels);
    for (int order : kOrders)
        ComplexRow<double>("complex f64", order, kernels);
    for (int order : kOrders)
        RealRow<float>("real f32", order, kernels);
    for (int order : kOrders)
        RealRow<double>("real f64", order, kernels);
    benchmark::Shutdown();
    return 0;
}
