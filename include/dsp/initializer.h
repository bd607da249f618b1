#pragma once
// Initializer: the library's start-up object. Initialize performs the one-time registration of the
// self-check suite (at most once per process, however many Initializer objects call it) and marks
// this object initialised; Terminate only clears the mark.

#include "dsp/kestadsp_export.h"

namespace dsp {

// The name the library's self-check suite is registered under.
inline constexpr const char* kLibraryName = "KestaDSP";

class KESTADSP_API Initializer {
public:
    Initializer() = default;
    Initializer(const Initializer&) = default;
    Initializer& operator=(const Initializer&) = default;
    virtual ~Initializer();

    virtual void Initialize();
    virtual void Terminate();

    bool IsInitialized() const { return mInitialized; }

private:
    bool mInitialized = false;
};

}  // namespace dsp
