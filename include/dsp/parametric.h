#pragma once
// The parametric equaliser is being written.
