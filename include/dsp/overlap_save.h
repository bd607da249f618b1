#pragma once
// (being written)
#include "dsp/ring_buffer.h"
