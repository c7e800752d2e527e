#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>

// Passes over a test, with the reason, where something that it needs is not there.
#define VELMORA_NEEDS(what)                                                                                            \
    if (const std::optional<std::string> why = (what))                                                                 \
    GTEST_SKIP() << *why

namespace velmora::test {

inline std::optional<std::string> notRoot() {
    return ::geteuid() == 0 ? std::nullopt : std::optional<std::string>("needs root");
}

// What the Error says that `work` throws; empty when it throws none.
template <class Error>
std::string refusal(const std::function<void()>& work) {
    try {
        work();
        return "";
    } catch (const Error& error) {
        return error.what();
    }
}

} // namespace velmora::test
