#pragma once

namespace velmora {

// The three descriptors that a process is handed at its start.
namespace StandardStreams {

// Occupies those that are closed. Otherwise the next files that the program opens would take their numbers, and its
// words would go into a lock or a copy. They are opened the wrong way round: each write fails, as it did before.
// To be called before anything else is opened.
void fill();

} // namespace StandardStreams

} // namespace velmora
