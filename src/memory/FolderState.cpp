#include "memory/FolderState.h"

#include "base/Mutex.h"
#include "base/RelativePath.h"
#include "engine/Layout.h"
#include "memory/ReportFile.h"
#include "memory/ResumePlanner.h"
#include "mhl/MHLReader.h"

#include <exception>
#include <utility>

namespace velmora {

// What a reading gave: a record, or why there is none.
template <class T>
struct FolderState::Once {
    std::shared_ptr<const T> value;
    std::exception_ptr error;

    template <class Read>
    explicit Once(const Read& read) {
        try {
            value = std::make_shared<const T>(read());
        } catch (const Cancelled&) {
            throw; // says nothing of the record
        } catch (...) {
            error = std::current_exception();
        }
    }
    std::shared_ptr<const T> get() const {
        if (error)
            std::rethrow_exception(error);
        return value;
    }
};

FolderState::FolderState(std::string cardPath, IsCancelled isCancelled)
    : cardPath_(std::move(cardPath)), isCancelled_(std::move(isCancelled)) {}

std::shared_ptr<const OffloadReport> FolderState::report(std::int64_t number) {
    auto& known = reports_[number];
    if (!known)
        known = std::make_shared<Once<OffloadReport>>(
            [&] { return ReportFile::read(ResumePlanner::reportPath(cardPath_, number), isCancelled_); });
    return known->get();
}

std::shared_ptr<const MHLHistory> FolderState::history() {
    if (!history_)
        history_ = std::make_shared<Once<MHLHistory>>([&] { return MHLReader::read(cardPath_, isCancelled_); });
    return history_->get();
}

std::int64_t FolderState::committed() {
    if (!committed_)
        committed_ = ResumePlanner::committed(cardPath_);
    return *committed_;
}

struct FolderStates::Shared {
    IsCancelled isCancelled;
    Mutex mutex;
    std::map<std::string, FolderState> folders GUARDED_BY(mutex);
};

FolderStates::FolderStates(IsCancelled isCancelled) : shared_(std::make_shared<Shared>()) {
    shared_->isCancelled = std::move(isCancelled);
}

FolderState& FolderStates::of(const std::string& cardPath) const {
    const std::string path = RelativePath::withoutTrailingSlash(cardPath);
    const MutexLock lock(shared_->mutex);
    return shared_->folders.try_emplace(path, path, shared_->isCancelled).first->second;
}

const IsCancelled& FolderStates::isCancelled() const { return shared_->isCancelled; }

void FolderStates::forget() const {
    const MutexLock lock(shared_->mutex);
    shared_->folders.clear();
}

} // namespace velmora
