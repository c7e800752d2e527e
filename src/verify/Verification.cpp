#include "verify/Verification.h"

#include "base/Product.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace velmora::Verification {

namespace {

// Runs one step for each folder that has not failed yet and keeps what went wrong.
class Folders {
public:
    Folders(const Order& order, const Log& log) : order_(order), log_(log) {}

    template <class Step>
    void each(Step step) {
        for (std::size_t i = 0; i < order_.cardPaths.size(); ++i) {
            const std::string& cardPath = order_.cardPaths[i];
            if (std::ranges::find(failures_, i, &Failure::destination) != failures_.end())
                continue;
            try {
                if (order_.beforeWrite)
                    order_.beforeWrite(cardPath);
                step(cardPath);
            } catch (const std::exception& error) {
                failures_.push_back({i, cardPath, error.what()});
                if (log_)
                    log_(fmt::format("{}: the result could not be written: {}", cardPath, error.what()));
            }
        }
    }

    void replaceReports(const OffloadReport& report) {
        const ReportWriter::Pages pages(report);
        each([&](const std::string& cardPath) { pages.write(cardPath, false); });
    }

    const std::vector<Failure>& failures() const noexcept { return failures_; }

private:
    const Order& order_;
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

Outcome commit(OffloadReport report, const Order& order, const Log& log) {
    const bool wasIncomplete = report.verifyIncomplete.value_or(false);
    Folders folders(order, log);
    report.verifyIncomplete = true;
    report.safeToFormatSeconds.reset();
    {
        const ReportWriter::Pages pages(report);
        folders.each([&](const std::string& cardPath) {
            ReportWriter::commit(report, pages, cardPath, order.stamp, order.create);
        });
    }
    if (!wasIncomplete && folders.failures().empty())
        report.verifyIncomplete.reset();
    if (order.judge)
        order.judge(report, folders.failures());
    const std::size_t failed = folders.failures().size();
    folders.replaceReports(report);
    if (folders.failures().size() > failed || (order.stands && !order.stands())) {
        report.verifyIncomplete = true;
        report.safeToFormatSeconds.reset();
        folders.replaceReports(report);
    }
    return {std::move(report), folders.failures()};
}

} // namespace velmora::Verification
