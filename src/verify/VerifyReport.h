#pragma once

#include "verify/VerifyResult.h"

#include <string>
#include <vector>

namespace velmora {

// The words about a verification. Pure functions of its result.
namespace VerifyReport {

enum class Tone { ok, warning, error };

struct Summary {
    std::string text;
    Tone tone = Tone::ok;
};

// What the files were held against: "ASC MHL, 2 generations, xxHash64".
std::string basis(const VerifyResult& result);
Summary summary(const VerifyResult& result);
// Findings that do not make the result bad but that the user must know.
std::vector<std::string> warnings(const VerifyResult& result);
// One line a file with a problem, the kind first.
std::vector<std::string> fileLines(const VerifyResult& result);
// The same and one line a problem of the records.
std::vector<std::string> machineLines(const VerifyResult& result);
std::string cliSummary(const VerifyResult& result, double seconds);

} // namespace VerifyReport

} // namespace velmora
