#include "memory/FileListStore.h"

#include "base/Errors.h"
#include "base/FileTimes.h"
#include "memory/Gzip.h"
#include "platform/IO.h"

#include <fmt/format.h>

#include <charconv>

namespace velmora::FileListStore {

namespace {

constexpr std::int64_t largestFile = 64 << 20;
constexpr std::size_t largestList = 256U << 20;

bool parseNumber(std::string_view text, std::int64_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

std::optional<SourceFile> parseLine(std::string_view line) {
    const std::size_t first = line.find('\t');
    if (first == std::string_view::npos)
        return std::nullopt;
    const std::size_t second = line.find('\t', first + 1);
    if (second == std::string_view::npos || line.find('\t', second + 1) != std::string_view::npos)
        return std::nullopt;
    SourceFile file;
    std::int64_t ticks = 0;
    if (!parseNumber(line.substr(first + 1, second - first - 1), file.size) ||
        !parseNumber(line.substr(second + 1), ticks))
        return std::nullopt;
    file.relPath = line.substr(0, first);
    file.mtime = FileTimes::date(ticks);
    return file;
}

} // namespace

void write(const std::string& path, const std::vector<SourceFile>& files) {
    std::string text;
    for (const SourceFile& file : files)
        fmt::format_to(std::back_inserter(text), "{}\t{}\t{}\n", file.relPath, file.size, file.ticks());
    if (const std::size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0)
        IO::mkdirs(path.substr(0, slash));
    IO::writeFileDurably(path, Gzip::compress(text));
}

std::optional<std::vector<SourceFile>> read(const std::string& path) {
    std::string packed;
    try {
        packed = IO::readFile(path, largestFile);
    } catch (const IOError&) {
        return std::nullopt;
    }
    const std::optional<std::string> text = Gzip::decompress(packed, largestList);
    if (!text)
        return std::nullopt;
    std::vector<SourceFile> files;
    std::string_view rest = *text;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        if (line.empty())
            continue;
        std::optional<SourceFile> file = parseLine(line);
        if (!file)
            return std::nullopt;
        files.push_back(std::move(*file));
    }
    return files;
}

} // namespace velmora::FileListStore
