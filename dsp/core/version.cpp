#include "dsp/version.h"

namespace dsp {

const char* GetLibraryVersion() {
    return KESTADSP_LIBRARY_VERSION;
}

}  // namespace dsp
