#pragma once

namespace velmora::ThreadPriority {

// The calling thread's disk requests stand behind everyone else's from now on: best-effort class, lowest level. It
// counts for reads and direct writes, and only where the disk's scheduler honours it (BFQ does, mq-deadline in part,
// "none" does not). False when the kernel refused.
bool lowerDiskPriority() noexcept;

} // namespace velmora::ThreadPriority
