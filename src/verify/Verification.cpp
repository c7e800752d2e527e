#include "verify/Verification.h"

#include "base/Product.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace velmora::Verification {

namespace {

// Runs one step for each destination that has not failed yet and keeps what went wrong.
class Destinations {
public:
    Destinations(const std::vector<std::string>& cardPaths, const Log& log) : cardPaths_(cardPaths), log_(log) {}

    template <class Step>
    void each(Step step) {
        for (std::size_t i = 0; i < cardPaths_.size(); ++i) {
            if (std::ranges::find(failures_, i, &Failure::destination) != failures_.end())
                continue;
            try {
                step(cardPaths_[i]);
            } catch (const std::exception& error) {
                failures_.push_back({i, cardPaths_[i], error.what()});
                if (log_)
                    log_(fmt::format("verification result on {}: {}", cardPaths_[i], error.what()));
            }
        }
    }

    bool allWell() const noexcept { return failures_.empty(); }
    std::vector<Failure> take() { return std::move(failures_); }

private:
    const std::vector<std::string>& cardPaths_;
    const Log& log_;
    std::vector<Failure> failures_;
};

} // namespace

std::optional<std::string> Outcome::warning() const {
    if (failures.empty())
        return std::nullopt;
    return fmt::format("Could not write the verification result ({}) — do not format the card yet; \"Finish "
                       "interrupted backup\" (Append, {} append) finishes the backup.",
                       failures.front().error, Product::cli);
}

Outcome commit(OffloadReport report, const std::vector<std::string>& cardPaths, const Log& log,
               const ReportWriter::Stamp& stamp, const BeforeCommit& beforeCommit) {
    Destinations destinations(cardPaths, log);
    report.verifyIncomplete = true;
    destinations.each([&](const std::string& cardPath) {
        if (beforeCommit)
            beforeCommit(cardPath);
        ReportWriter::commit(report, cardPath, stamp);
    });
    if (destinations.allWell()) {
        report.verifyIncomplete.reset();
        destinations.each([&](const std::string& cardPath) { ReportWriter::writeReports(report, cardPath, false); });
    }
    if (!destinations.allWell() && !report.verifyIncomplete) {
        report.verifyIncomplete = true;
        destinations.each([&](const std::string& cardPath) { ReportWriter::writeReports(report, cardPath, false); });
    }
    return {std::move(report), destinations.take()};
}

} // namespace velmora::Verification
