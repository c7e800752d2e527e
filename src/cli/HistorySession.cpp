#include "cli/HistorySession.h"

#include "base/Msg.h"
#include "cli/Console.h"
#include "settings/AppSupport.h"

namespace velmora {

namespace {
constexpr double lockSeconds = 5.0;
constexpr double drainSeconds = 10.0;
} // namespace

HistorySession::HistorySession(Console& console) : console_(console), folder_(AppSupport::folder()) {
    AppSupport::migrateFromOffload([&console](std::string_view line) { console.log(line); });
}

HistorySession::~HistorySession() {
    if (!recorder_.drain(drainSeconds))
        console_.log(Msg::historyLost);
}

JobServices HistorySession::services() { return {&recorder_, folder_}; }

HistoryStore HistorySession::store() const {
    return {folder_, lockSeconds, HistoryStore::maxEntriesDefault,
            [&console = console_](std::string_view line) { console.log(line); }};
}

std::vector<HistoryEntry> HistorySession::load() { return store().load(); }

} // namespace velmora
