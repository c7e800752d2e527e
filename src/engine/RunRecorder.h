#pragma once

#include <functional>
#include <string>

namespace velmora {

struct OffloadReport;

// What stands written about a run on its destinations. The engine knows when, the job that supplies this knows what:
// report files, the ASC MHL generation, checksum lists.
//
// `write` is called once for every card folder, in the order of the plan, from the thread of `OffloadEngine::run`. It
// throws when the record does not stand there; the engine goes on with the other folders and keeps the sentence.
class RunRecorder {
public:
    enum class Stage {
        pending,    // verification follows later: provisional reports, no ASC MHL generation, no lists
        unverified, // verification was not wanted or was cancelled: reports, generation and lists
        verified,   // read back: reports, generation (unless it stands there already) and lists
    };

    virtual ~RunRecorder() = default;
    virtual void write(Stage stage, const OffloadReport& report, const std::string& cardPath) = 0;
};

} // namespace velmora
