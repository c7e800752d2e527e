#pragma once

#include "base/Errors.h"

#include <functional>
#include <string>

namespace velmora::test {

// "code: sentence" of the refusal that `work` ends with; "passed" when it does not.
inline std::string codedRefusal(const std::function<void()>& work) {
    try {
        work();
        return "passed";
    } catch (const OffloadError& error) {
        return (error.code() ? std::string(name(*error.code())) : "no code") + ": " + error.what();
    }
}

} // namespace velmora::test
