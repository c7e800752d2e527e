#include "cli/HistorySession.h"

#include "base/Msg.h"
#include "cli/Console.h"
#include "settings/AppSupport.h"

namespace velmora {

namespace {
constexpr double lockSeconds = 5.0;
// Another process that holds the history for ten seconds must not cost a record, even where several have to wait.
constexpr double drainSeconds = 30.0;
} // namespace

HistorySession::HistorySession(Console& console) : console_(console), folder_(AppSupport::folder()) {}

void HistorySession::finish() {
    if (!recorder_.drain(drainSeconds))
        console_.log(Msg::historyLost());
}

JobServices HistorySession::services() { return {&recorder_, folder_}; }

HistoryStore HistorySession::store() const {
    return {folder_, lockSeconds, HistoryStore::maxEntriesDefault,
            [&console = console_](std::string_view line) { console.log(line); }};
}

Remembered HistorySession::recall() { return store().recall(); }

} // namespace velmora
