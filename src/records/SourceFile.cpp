#include "records/SourceFile.h"

#include "base/FileTimes.h"

namespace velmora {

std::int64_t SourceFile::ticks() const { return FileTimes::ticksTruncated(mtime); }

std::int64_t SourceScan::totalBytes() const {
    std::int64_t sum = 0;
    for (const SourceFile& file : files)
        sum += file.size;
    return sum;
}

} // namespace velmora
