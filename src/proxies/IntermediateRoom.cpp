#include "proxies/IntermediateRoom.h"

#include "base/Mutex.h"
#include "platform/IO.h"

#include <chrono>
#include <map>
#include <thread>

namespace velmora::IntermediateRoom {

namespace {

struct Claims {
    Mutex mutex;
    std::map<std::string, std::int64_t> missing GUARDED_BY(mutex); // bytes yet to be written, by folder
};

Claims& claims() {
    static Claims all;
    return all;
}

} // namespace

bool claim(const std::string& folder, std::int64_t bytes, const IsCancelled& isCancelled) {
    if (bytes <= 0)
        return true;
    constexpr auto glance = std::chrono::milliseconds(50); // how soon a cancel is seen
    while (!isCancelled || !isCancelled()) {
        {
            Claims& all = claims();
            MutexLock lock(all.mutex);
            std::erase_if(all.missing,
                          [&](const auto& each) { return each.first == folder || !IO::exists(each.first); });
            std::int64_t free = IO::capacity(folder).free;
            for (const auto& [other, missing] : all.missing)
                free -= missing;
            if (bytes <= free) {
                all.missing[folder] = bytes;
                return true;
            }
            if (all.missing.empty())
                return false;
        }
        std::this_thread::sleep_for(glance);
    }
    return false;
}

void stillNeeds(const std::string& folder, std::int64_t bytes) {
    Claims& all = claims();
    MutexLock lock(all.mutex);
    if (const auto found = all.missing.find(folder); found != all.missing.end())
        found->second = bytes;
}

} // namespace velmora::IntermediateRoom
