#include "dsp/self_checks.h"

namespace dsp::checks {

std::unique_ptr<CheckSuite> CreateLibrarySuite() {
    auto suite = std::make_unique<CheckSuite>();
    AddCoreChecks(*suite);
    AddFftChecks(*suite);
    AddWindowChecks(*suite);
    AddOverlapSaveChecks(*suite);
    AddFilterChecks(*suite);
    AddGraphicChecks(*suite);
    AddParametricChecks(*suite);
    AddNoNoiseChecks(*suite);
    AddNoHissChecks(*suite);
    AddHardLimitChecks(*suite);
    AddNoClipChecks(*suite);
    AddNoClickChecks(*suite);
    AddResampleChecks(*suite);
    AddStereoExpanderChecks(*suite);
    AddGeneratorChecks(*suite);
    AddLoudnessChecks(*suite);
    return suite;
}

}  // namespace dsp::checks
