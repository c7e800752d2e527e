// Compiled once for its precompiled header.
