#pragma once
// Each class family adds its numeric self-checks to the library suite through one function here.

#include "dsp/check_registry.h"

namespace dsp::checks {

void AddCoreChecks(CheckSuite& suite);
void AddFftChecks(CheckSuite& suite);
void AddWindowChecks(CheckSuite& suite);
void AddOverlapSaveChecks(CheckSuite& suite);
void AddFilterChecks(CheckSuite& suite);
void AddGraphicChecks(CheckSuite& suite);
void AddParametricChecks(CheckSuite& suite);
void AddNoNoiseChecks(CheckSuite& suite);
void AddNoHissChecks(CheckSuite& suite);
void AddHardLimitChecks(CheckSuite& suite);
void AddNoClipChecks(CheckSuite& suite);
void AddNoClickChecks(CheckSuite& suite);
void AddResampleChecks(CheckSuite& suite);
void AddStereoExpanderChecks(CheckSuite& suite);
void AddGeneratorChecks(CheckSuite& suite);
void AddLoudnessChecks(CheckSuite& suite);

}  // namespace dsp::checks
