#pragma once
// The version of the library a host is running against (which may differ from the headers it was
// compiled with when the shared library is upgraded underneath it).

#include "dsp/kestadsp_export.h"

namespace dsp {

// "major.minor.patch"
KESTADSP_API const char* GetLibraryVersion();

}  // namespace dsp
