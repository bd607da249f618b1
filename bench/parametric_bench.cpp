// The parametric equaliser is being written.
