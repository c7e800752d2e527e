#pragma once

#include "base/StopIf.h"
#include "mhl/MHLHistory.h"
#include "records/OffloadReport.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace velmora {

// The records in one card folder. Each is read when somebody asks for it first, and then kept for all others of the
// run. For one thread at a time. Every reading ends with Cancelled when the run is cancelled.
class FolderState {
public:
    FolderState(std::string cardPath, IsCancelled isCancelled);

    const std::string& cardPath() const noexcept { return cardPath_; }
    void stopIfCancelled() const { stopIf(isCancelled_); }
    const IsCancelled& isCancelled() const noexcept { return isCancelled_; }

    // The report under the name of `number`. Throws what ReportFile::read has thrown, every time.
    std::shared_ptr<const OffloadReport> report(std::int64_t number);
    // Throws what MHLReader::read has thrown, every time.
    std::shared_ptr<const MHLHistory> history();
    // The highest generation in the chain; 0 without one. Problems of the chain are for others to tell.
    std::int64_t committed();

private:
    template <class T>
    struct Once;

    std::string cardPath_;
    IsCancelled isCancelled_;
    std::map<std::int64_t, std::shared_ptr<Once<OffloadReport>>> reports_;
    std::shared_ptr<Once<MHLHistory>> history_;
    std::optional<std::int64_t> committed_;
};

// The states of all folders that a run asks about, by their paths. Copies of an object share what they know. Any thread
// may ask for a folder that no other thread works on.
class FolderStates {
public:
    explicit FolderStates(IsCancelled isCancelled = {});

    FolderState& of(const std::string& cardPath) const;
    const IsCancelled& isCancelled() const;
    // Drops all that was read: it is outdated, or the memory is needed. No thread may use a folder now.
    void forget() const;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

} // namespace velmora
