#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace velmora {

// Takes one line of the log. The front ends pass this function down; nothing below them prints.
using Log = std::function<void(std::string_view)>;

// Asked now and then by long loops; true means "stop".
using IsCancelled = std::function<bool()>;

// The stable code of a refusal. The name of the case is what a front end and a script see.
enum class PreflightCode {
    other,
    chunkSize,
    bufferCount,
    date,
    sourceNotFound,
    noDestination,
    duplicateDestination,
    sourceIsOffload,
    sourceUnreadable,
    destinationNotFound,
    destinationNotWritable,
    destinationUnreadable,
    sameVolumeAsSource,
    sharedVolume,
    emptySource,
    noSpace,
    noHashRecord,
    noFilesToRead,
    noReadAccess,
    appendUnavailable,
    appendNoReport,
    appendNoMhl,
    appendDiverged,
    appendConflict,
    appendMissingFile,
    appendFailedFile,
    appendOtherCard,
    appendMhlDamaged,
    appendBusy,
    nothingNew,
    repairNothing,
    repairConflict,
};

std::string_view name(PreflightCode code) noexcept;

// A refusal before anything was written (`code()` is set), or a run that failed as a whole (`code()` is empty).
// `what()` is the sentence for the user.
class OffloadError : public std::runtime_error {
public:
    static OffloadError preflight(PreflightCode code, const std::string& message) { return {code, message}; }
    static OffloadError failed(const std::string& message) { return {std::nullopt, message}; }
    std::optional<PreflightCode> code() const noexcept { return code_; }

private:
    OffloadError(std::optional<PreflightCode> code, const std::string& message)
        : std::runtime_error(message), code_(code) {}
    std::optional<PreflightCode> code_;
};

// A call to the operating system that failed. `what()` reads "{op} {path}: {strerror} (errno {code})".
class IOError : public std::runtime_error {
public:
    IOError(std::string op, std::string path, int code);
    const std::string& op() const noexcept { return op_; }
    const std::string& path() const noexcept { return path_; }
    int code() const noexcept { return code_; }

private:
    std::string op_;
    std::string path_;
    int code_;
};

// An outside program that could not be run or that answered badly. `what()` reads "{tool} failed (exit {status}): " and
// the last three lines of the message that are not empty, with " | " between them.
class ToolError : public std::runtime_error {
public:
    ToolError(std::string tool, int status, std::string message);
    const std::string& tool() const noexcept { return tool_; }
    int status() const noexcept { return status_; }
    const std::string& message() const noexcept { return message_; }

private:
    std::string tool_;
    int status_;
    std::string message_;
};

// An ASC MHL file that cannot be read as one.
class MHLFormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The user asked to stop.
class Cancelled : public std::exception {
public:
    const char* what() const noexcept override { return "cancelled"; }
};

} // namespace velmora
