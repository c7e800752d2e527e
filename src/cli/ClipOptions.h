#pragma once

#include "cli/ProxyChoice.h"
#include "records/JobConfig.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace velmora {

// The options of a job that tell what is done with the clips on the card, and which copy proves itself meanwhile.
class ClipOptions {
public:
    void declare(CLI::App& app);
    // `destinations`: how many copies the job has. Throws UsageError.
    void applyTo(JobConfig& config, AppSettings settings, std::size_t destinations) const;

private:
    ProxyChoice choice_;
    std::optional<std::string> codec_;
    std::optional<std::string> folder_;
    std::optional<std::int64_t> primary_;
    bool noClips_ = false;
    bool noVerifyInProxy_ = false;
};

} // namespace velmora
