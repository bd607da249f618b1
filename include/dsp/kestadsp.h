#pragma once
// Everything the library exports.

#include "dsp/audio_buffer.h"
#include "dsp/check_registry.h"
#include "dsp/dsp_analyzer.h"
#include "dsp/dsp_process.h"
#include "dsp/fades.h"
#include "dsp/fft.h"
#include "dsp/fft_window.h"
#include "dsp/initializer.h"
#include "dsp/nohiss.h"
#include "dsp/nonoise.h"
#include "dsp/overlap_save.h"
#include "dsp/ring_buffer.h"
#include "dsp/spectrum_packing.h"
#include "dsp/version.h"
