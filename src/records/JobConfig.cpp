#include "records/JobConfig.h"

#include "base/JsonShape.h"

namespace velmora {

namespace {

using namespace JsonShape;

constexpr std::tuple shape{
    required("source", &JobConfig::source),
    required("destRoots", &JobConfig::destRoots),
    field("cardName", &JobConfig::cardName),
    field("date", &JobConfig::date),
    required("verify", &JobConfig::verify),
    required("chunkMB", &JobConfig::chunkMB),
    required("buffers", &JobConfig::buffers),
    required("allowSameDevice", &JobConfig::allowSameDevice),
    required("analyzeClips", &JobConfig::analyzeClips),
    required("proxy", &JobConfig::proxy),
    required("tools", &JobConfig::tools),
    required("recordHistory", &JobConfig::recordHistory),
    field("historyFolder", &JobConfig::historyFolder),
    field("project", &JobConfig::project),
    field("appendInto", &JobConfig::appendInto),
    required("verifyInProxy", &JobConfig::verifyInProxy),
    required("verifyPrimary", &JobConfig::verifyPrimary),
    field("primaryDestination", &JobConfig::primaryDestination),
    required("dayReport", &JobConfig::dayReport),
};

} // namespace

void to_json(nlohmann::json& j, const JobConfig& value) { j = JsonShape::encoded(value, shape); }
void from_json(const nlohmann::json& j, JobConfig& value) { value = JsonShape::decoded<JobConfig>(j, shape); }

} // namespace velmora
