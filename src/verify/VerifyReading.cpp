#include "verify/VerifyReading.h"

#include "base/Msg.h"
#include "blocks/BlockReads.h"
#include "blocks/BlockVerifier.h"
#include "blocks/CacheProbe.h"
#include "platform/ThreadPriority.h"
#include "verify/WatchedThread.h"

#include <fmt/format.h>

namespace velmora {

void VerifyShared::checkFolder(std::size_t destination) const {
    try {
        if (check)
            check(cardPaths[destination]);
    } catch (const std::exception&) { // the job tells at its end why it is gone
        throw OffloadError::failed(std::string(VIPMsg::cardFolderGone));
    }
}

namespace {

bool stops(const VerifyShared& shared, const WatchedThread& thread) {
    return shared.traffic.isStopped() || thread.isGivenUp();
}

// Throws Cancelled, and whatever goes wrong.
BlockReads::Completed readFile(VerifyShared& shared, WatchedThread& thread, VerifyReading::Work work, bool gated,
                               BlockVerifier& verifier) {
    const std::string& path = shared.files.files()[work.file].path;
    thread.setCurrent(path);
    shared.checkFolder(work.destination);
    BlockReads::Hooks hooks;
    hooks.isCancelled = [&] { return stops(shared, thread); };
    hooks.beforeBlock = [&] {
        thread.moved();
        return !gated || shared.traffic.letPass(thread);
    };
    hooks.progress = [&](std::int64_t bytes) {
        shared.files.addVerified(work.destination, bytes);
        thread.moved(bytes);
    };
    return BlockReads::complete(shared.cardPaths[work.destination], path, verifier, hooks);
}

void verifyFile(VerifyShared& shared, WatchedThread& thread, VerifyReading::Work work, bool gated) {
    if (!shared.files.isWritten(work.destination, work.file))
        return;
    DestFileResult result;
    bool throughCache = false;
    try {
        const auto verifier = shared.files.verifier(work.destination, work.file);
        const auto done = readFile(shared, thread, work, gated, *verifier);
        result = BlockReads::result(*verifier, done.outcome);
        throughCache = done.throughCache;
    } catch (const Cancelled&) {
        return;
    } catch (const OffloadError& gone) {
        result = {FileState::failed, gone.what()};
    } catch (const std::exception& error) { // also when memory ran out: a file that nobody could read has failed
        result = {FileState::failed, fmt::format("verify: {}", error.what())};
    }
    shared.files.settle(work.destination, work.file, std::move(result), throughCache,
                        [&] { return thread.isGivenUp(); });
}

} // namespace

void VerifyReading::inBackground(VerifyShared& shared, WatchedThread& thread, const WorkList& work, bool gated) {
    ThreadPriority::lowerDiskPriority();
    for (const Work& one : work) {
        if (!thread.waitWhilePaused([&] { return shared.traffic.isStopped(); }))
            return;
        verifyFile(shared, thread, one, gated);
    }
}

void VerifyReading::aheadOfRender(VerifyShared& shared, WatchedThread& thread, const WorkList& work) {
    for (const Work& one : work) {
        if (stops(shared, thread))
            return;
        const std::string& path = shared.files.files()[one.file].path;
        if (CacheProbe::readsFromDisk(shared.cardPaths[one.destination] + "/" + path))
            verifyFile(shared, thread, one, false);
    }
}

} // namespace velmora
