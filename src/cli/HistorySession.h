#pragma once

#include "job/OffloadJob.h"
#include "memory/HistoryRecorder.h"
#include "records/HistoryEntry.h"

#include <string>
#include <vector>

namespace velmora {

class Console;

// The card history for the length of one command.
class HistorySession {
public:
    explicit HistorySession(Console& console);
    HistorySession(const HistorySession&) = delete;
    HistorySession& operator=(const HistorySession&) = delete;

    const std::string& folder() const noexcept { return folder_; } // the application-support folder
    JobServices services();
    Remembered recall();
    HistoryStore store() const;
    // Waits for records that a busy history has delayed, and says so when one is lost. To be called while Ctrl-C still
    // goes to the command: a record must not be lost to a second one.
    void finish();

private:
    Console& console_;
    const std::string folder_;
    HistoryRecorder recorder_;
};

} // namespace velmora
