#pragma once

#include "platform/ChildProcess.h"
#include "support/FileTree.h"
#include "support/TempFolder.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

// A message bus of its own that takes the system bus's place for this process, and services on it played by
// python-dbusmock. For programs that link the platform library.
class PrivateBus {
public:
    static std::optional<std::string> unavailable() {
        if (!std::filesystem::exists("/usr/bin/dbus-daemon"))
            return "dbus-daemon is not installed";
        if (!std::filesystem::exists("/usr/lib/python3/dist-packages/dbusmock"))
            return "python3-dbusmock is not installed";
        return std::nullopt;
    }

    PrivateBus() : address_("unix:path=" + folder_ / "bus") {
        start("/usr/bin/dbus-daemon", {"--session", "--nofork", "--nopidfile", "--address=" + address_});
        waitUntil([&] { return std::filesystem::exists(folder_ / "bus"); });
        const char* old = std::getenv(variable);
        old_ = old == nullptr ? std::nullopt : std::optional<std::string>(old);
        ::setenv(variable, address_.c_str(), 1);
        waitUntil([&] { // the socket is there a moment before anybody listens on it
            return ask("org.freedesktop.DBus", "/", "org.freedesktop.DBus.GetId", {}).find("string") !=
                   std::string::npos;
        });
    }
    ~PrivateBus() {
        old_ ? ::setenv(variable, old_->c_str(), 1) : ::unsetenv(variable);
        while (!children_.empty())
            children_.pop_back(); // the services before their bus
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // One of dbusmock's templates by name, or a template of our own as Python text; returns when `service` answers.
    void play(const std::string& service, const std::string& templateNameOrText, const std::string& json = "{}") {
        std::string name = templateNameOrText;
        if (name.find('\n') != std::string::npos) {
            name = folder_ / (service + ".py");
            FileTree::write(name, templateNameOrText);
        }
        start("/usr/bin/python3", {"-m", "dbusmock", "--system", "--template", name, "-p", json});
        waitUntil([&] {
            return ask("org.freedesktop.DBus", "/", "org.freedesktop.DBus.NameHasOwner", {"string:" + service})
                       .find("true") != std::string::npos;
        });
    }

    // The answer of a call, as dbus-send prints it.
    std::string ask(const std::string& service, const std::string& path, const std::string& method,
                    std::vector<std::string> arguments = {}) {
        ChildProcess::Options options{.program = "/usr/bin/dbus-send"};
        options.arguments.push_back("--bus=" + address_);
        options.arguments.push_back("--print-reply");
        options.arguments.push_back("--dest=" + service);
        options.arguments.push_back(path);
        options.arguments.push_back(method);
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        return ChildProcess::run(options, 20);
    }

    const TempFolder& folder() const { return folder_; }

private:
    static constexpr const char* variable = "DBUS_SYSTEM_BUS_ADDRESS";

    void start(const std::string& program, std::vector<std::string> arguments) {
        ChildProcess::Options options{.program = program, .arguments = std::move(arguments)};
        options.environment.push_back(fmt::format("{}={}", variable, address_));
        children_.push_back(std::make_unique<ChildProcess>(std::move(options)));
    }
    void waitUntil(const std::function<bool()>& condition) {
        for (int i = 0; i < 1000; ++i) {
            if (condition())
                return;
            if (children_.back()->waitFor(0.02))
                throw std::runtime_error("a bus service ended: " + children_.back()->errorTail());
        }
        throw std::runtime_error("a bus service does not come up");
    }

    TempFolder folder_;
    std::string address_;
    std::optional<std::string> old_;
    std::vector<std::unique_ptr<ChildProcess>> children_;
};

} // namespace velmora::test
