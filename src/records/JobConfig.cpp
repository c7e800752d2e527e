#include "records/JobConfig.h"

#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

namespace velmora {

void to_json(nlohmann::json& j, const JobConfig& value) {
    j = {{"source", value.source},
         {"destRoots", value.destRoots},
         {"verify", value.verify},
         {"chunkMB", value.chunkMB},
         {"buffers", value.buffers},
         {"allowSameDevice", value.allowSameDevice},
         {"analyzeClips", value.analyzeClips},
         {"proxy", value.proxy},
         {"tools", value.tools},
         {"recordHistory", value.recordHistory},
         {"verifyInProxy", value.verifyInProxy},
         {"verifyPrimary", value.verifyPrimary},
         {"dayReport", value.dayReport}};
    Json::put(j, "cardName", value.cardName);
    Json::put(j, "date", value.date);
    Json::put(j, "historyFolder", value.historyFolder);
    Json::put(j, "project", value.project);
    Json::put(j, "appendInto", value.appendInto);
    Json::put(j, "primaryDestination", value.primaryDestination);
}

void from_json(const nlohmann::json& j, JobConfig& value) {
    const JsonFields fields(j);
    value.source = fields.string("source");
    value.destRoots = fields.strings("destRoots");
    value.cardName = fields.optionalString("cardName");
    value.date = fields.optionalString("date");
    value.verify = fields.boolean("verify");
    value.chunkMB = fields.integer("chunkMB");
    value.buffers = fields.integer("buffers");
    value.allowSameDevice = fields.boolean("allowSameDevice");
    value.analyzeClips = fields.boolean("analyzeClips");
    value.proxy = fields.at("proxy").get<ProxySettings>();
    value.tools = fields.at("tools").get<ExternalTools>();
    value.recordHistory = fields.boolean("recordHistory");
    value.historyFolder = fields.optionalString("historyFolder");
    value.project = fields.optionalString("project");
    value.appendInto = fields.optionalStrings("appendInto");
    value.verifyInProxy = fields.boolean("verifyInProxy");
    value.verifyPrimary = fields.string("verifyPrimary");
    value.primaryDestination = fields.optionalInteger("primaryDestination");
    value.dayReport = fields.boolean("dayReport");
}

} // namespace velmora
