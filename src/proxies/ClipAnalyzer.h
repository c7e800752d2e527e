#pragma once

#include "base/Errors.h"
#include "proxies/ClipProbe.h"
#include "proxies/LutCatalog.h"
#include "records/ClipEntry.h"
#include "records/ProxySettings.h"

#include <functional>
#include <string>
#include <vector>

namespace velmora {

class Thumbnails;

// What was read of one clip.
struct AnalyzedClip {
    ClipEntry entry; // the clip, its info or why there is none, its LUT, its small pictures
    std::string reel;
};

// Reads the clips of a card, several at a time: each is mostly the start of a small program and a wait for the card.
class ClipAnalyzer {
public:
    struct Wish {
        ProxySettings settings; // the LUT that is asked for
        std::string cardName;   // the reel of clips that name none
        bool thumbnails = false;
        // Clips at a time; 0: one for each processor. Each clip has one child process. There are never more than two
        // for each processor.
        unsigned atOnce = 0;
    };

    // The references live as long as the object.
    ClipAnalyzer(const ClipProbe& probe, const LutCatalog& catalog) : probe_(probe), catalog_(catalog) {}

    // Hands each clip over in the order of the list, on the calling thread. A clip that cannot be read says why.
    // Throws Cancelled, and what `take` throws.
    void analyze(const std::vector<Clip>& clips, const std::string& cardPath, const Wish& wish,
                 const std::function<void(AnalyzedClip&&)>& take, const IsCancelled& isCancelled) const;

private:
    AnalyzedClip analyzeOne(const Clip& clip, const std::string& cardPath, const Wish& wish, Thumbnails* pictures,
                            const IsCancelled& isCancelled) const;

    const ClipProbe& probe_;
    const LutCatalog& catalog_;
};

} // namespace velmora
