#include "dsp/initializer.h"

#include <mutex>

#include "dsp/check_registry.h"

namespace dsp {

Initializer::~Initializer() = default;

void Initializer::Initialize() {
    static std::once_flag registered;
    std::call_once(registered, [] {
        checks::TestRegistry::RegisterTest(checks::AsciiToUTF16(kLibraryName), &checks::CreateLibrarySuite);
    });
    mInitialized = true;
}

void Initializer::Terminate() {
    mInitialized = false;
}

}  // namespace dsp
