#pragma once
// FFT engines. Each engine owns a prepared plan for one transform length and the scratch buffer
// its transforms use, so transforms never allocate.
//
//  IppFFT          double complex, split re/im arrays, unscaled both ways
//  IppFFT32        float complex, split re/im arrays, unscaled both ways
//  IppFFT32R       float real <-> CCS spectrum, unscaled both ways
//  IppFFT32fReal   float real -> CCS spectrum, forward only, divided by N
//  IppFFT64fReal   double real -> CCS spectrum, forward only, divided by N
//
// Forward is X[k] = sum x[n] e^(-2 pi i kn/N). In the engines a direction of 1 selects the forward
// transform and any other value the inverse. A forward then inverse unscaled pair returns the input
// times N; callers apply 1/N. CCS packing: N + 2 values, element 2k = Re X[k], 2k+1 = Im X[k],
// k = 0 ... N/2, so a real transform's output (or in-place) array holds N + 2 elements.
//
// The plan order is the position of the lowest set bit of the size (log2 for the powers of two
// every caller passes; 12 gives a 4-point plan; 0 gives no plan at all). GetSize() reports the
// size as given. A transform on an engine that is not set up returns kFftNotInitialized and leaves
// the data alone; an engine set up with a size that yields no plan returns kFftNullPlan.
//
// Copies are shallow: two engines may share one plan and buffer (shared ownership, freed once).
// An engine runs one transform at a time; distinct engines are independent. The library's own
// classes copy their engines with CopyEngineWithOwnScratch, so their copies share no scratch.

#include <cstdint>
#include <memory>

#include "dsp/kestadsp_export.h"

namespace dsp {

using IppStatus = int;
inline constexpr IppStatus kFftOk = 0;
inline constexpr IppStatus kFftNotInitialized = 1;  // the no-operation status
inline constexpr IppStatus kFftNullPlan = -8;       // the null-pointer error status

// Derived order of a transform size: the index of its lowest set bit, -1 for 0.
KESTADSP_API int FFTOrderFromSize(int size);

namespace detail {

// The four members every engine has, and their set-up and release.
class KESTADSP_API FFTEngineState {
public:
    FFTEngineState() = default;
    FFTEngineState(const FFTEngineState&) = default;
    FFTEngineState& operator=(const FFTEngineState&) = default;
    ~FFTEngineState();

    void DeInit();
    int GetSize() const { return mSize; }
    bool IsInitialized() const { return mInitialized; }
    // Order of the plan held, or -1 when there is none.
    int GetPlanOrder() const;

    // A copy for the library's classes that hold an engine: the read-only plan is shared, the
    // scratch buffer is the copy's own, so original and copy may run on different threads.
    friend void CopyEngineWithOwnScratch(FFTEngineState& to, const FFTEngineState& from);

    enum class PlanKind { ComplexFloat, ComplexDouble, RealFloat, RealDouble };

protected:
    void SetUp(int size, PlanKind kind);
    // kFftOk when a transform may run; otherwise the status to return.
    IppStatus Ready() const;

    bool mInitialized = false;
    int mSize = 0;
    std::shared_ptr<void> mSpec;
    std::shared_ptr<void> mWorkBuffer;
    PlanKind mKind = PlanKind::ComplexFloat;
};

// Declared here as well so that it can be named outside the class.
void CopyEngineWithOwnScratch(FFTEngineState& to, const FFTEngineState& from);

// An engine whose copies plan nothing new but take scratch of their own, so a class holding one
// can default its copy operations and its copies still run on different threads.
template <class Engine>
struct OwnScratch : Engine {
    OwnScratch() = default;
    OwnScratch(const OwnScratch& other) : Engine() { CopyEngineWithOwnScratch(*this, other); }
    OwnScratch& operator=(const OwnScratch& other) {
        if (this != &other) CopyEngineWithOwnScratch(*this, other);
        return *this;
    }
    ~OwnScratch() = default;
};

}  // namespace detail

class KESTADSP_API IppFFT : public detail::FFTEngineState {
public:
    IppFFT() = default;
    explicit IppFFT(int size) { Init(size); }
    void Init(int size) { SetUp(size, PlanKind::ComplexDouble); }
    IppStatus FFT(double* srcRe, double* srcIm, double* dstRe, double* dstIm, int direction);
    IppStatus FFT(double* re, double* im, int direction);
};

class KESTADSP_API IppFFT32 : public detail::FFTEngineState {
public:
    IppFFT32() = default;
    explicit IppFFT32(int size) { Init(size); }
    void Init(int size) { SetUp(size, PlanKind::ComplexFloat); }
    IppStatus FFT(float* srcRe, float* srcIm, float* dstRe, float* dstIm, int direction);
    IppStatus FFT(float* re, float* im, int direction);
};

class KESTADSP_API IppFFT32R : public detail::FFTEngineState {
public:
    IppFFT32R() = default;
    explicit IppFFT32R(int size) { Init(size); }
    void Init(int size) { SetUp(size, PlanKind::RealFloat); }
    IppStatus FFT(float* src, float* dst, int direction);
    // In place: `data` holds N + 2 floats.
    IppStatus FFT(float* data, int direction);
};

class KESTADSP_API IppFFT32fReal : public detail::FFTEngineState {
public:
    IppFFT32fReal() = default;
    explicit IppFFT32fReal(int size) { Init(size); }
    void Init(int size) { SetUp(size, PlanKind::RealFloat); }
    IppStatus FFT(float* src, float* dst);
};

class KESTADSP_API IppFFT64fReal : public detail::FFTEngineState {
public:
    IppFFT64fReal() = default;
    explicit IppFFT64fReal(int size) { Init(size); }
    void Init(int size) { SetUp(size, PlanKind::RealDouble); }
    IppStatus FFT(double* src, double* dst);
};

// ---- Free-function interface on a working-data handle -------------------------------------------
//
// The handle carries a complex plan whose length is the smallest power of two >= the requested
// length (at least 2). In LFFTF/LFFTD/LFFTSD a direction of -1 selects the inverse transform and
// every other value the forward one (the opposite default from the engines; callers pass 1 or -1).
// The length argument is not used: the plan's length is. A handle of the wrong precision, or an
// empty one, makes the call do nothing.

struct FFTPlanHolderF;
struct FFTPlanHolderD;

struct KESTADSP_API FFTWORKINGDATA {
    FFTWORKINGDATA() = default;
    FFTWORKINGDATA(const FFTWORKINGDATA&) = delete;
    FFTWORKINGDATA& operator=(const FFTWORKINGDATA&) = delete;
    virtual ~FFTWORKINGDATA();
};

struct KESTADSP_API FFTWORKINGDATA_F : FFTWORKINGDATA {
    FFTWORKINGDATA_F();
    ~FFTWORKINGDATA_F() override;
    std::unique_ptr<FFTPlanHolderF> holder;
    int PlanLength() const;
};

struct KESTADSP_API FFTWORKINGDATA_D : FFTWORKINGDATA {
    FFTWORKINGDATA_D();
    ~FFTWORKINGDATA_D() override;
    std::unique_ptr<FFTPlanHolderD> holder;
    int PlanLength() const;
};

// Working data for length n; the holder is left empty when n exceeds 2^30.
KESTADSP_API std::unique_ptr<FFTWORKINGDATA_F> CreateFFTWorkingDataF(int32_t n);
KESTADSP_API std::unique_ptr<FFTWORKINGDATA_D> CreateFFTWorkingDataD(int32_t n);

KESTADSP_API void LFFTF(float* re, float* im, int32_t n, int32_t direction, FFTWORKINGDATA& wd);
KESTADSP_API void LFFTD(double* re, double* im, int32_t n, int32_t direction, FFTWORKINGDATA& wd);
KESTADSP_API void LFFTSD(double* srcRe, double* srcIm, double* dstRe, double* dstIm, int32_t n, int32_t direction,
                         FFTWORKINGDATA& wd);
// Spectra of two real sequences x and y through one complex transform. Only a positive direction
// does anything. Allocates two temporary arrays per call (the one transform call that does).
KESTADSP_API void LFFT2CF(float* x, float* y, float* xRe, float* xIm, float* yRe, float* yIm, int32_t n,
                          int32_t direction, FFTWORKINGDATA& wd);

}  // namespace dsp
