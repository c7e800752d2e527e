#include "mhl/MHL.h"

#include "base/Errors.h"
#include "base/Product.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "base/XmlParser.h"
#include "blocks/C4.h"
#include "blocks/HashAlgo.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <map>

// On the disk, in `ascmhl/` of a card folder:
//   NNNN_{card}_{UTC time}.mhl   one generation: every file that it vouches for, with digests. Never changed again.
//   ascmhl_chain.xml             the generations in order, each with the C4 of its file.
//
// A generation is written in two steps: its file, then the chain with one entry more. The chain is what publishes it.
// Both are written under a temporary name, flushed and renamed, so after a crash either is there whole or not at all:
//   before the first rename     nothing has happened
//   between the two             a file that no chain names; the reader tells of it
//   after the second            the generation is there
// A retry gets a new name, for the name holds the time. The file of the write that died would stay without a chain
// entry for ever and make the history look damaged. So it is renamed to "….mhl.unchained" before the new file is
// written. No tool takes it for a generation any more, and its bytes are still there, should it be the chain that was
// lost. Only a file of the very number that is written now is renamed, and only when no chain names it and this program
// signed it, or when it cannot be read as a generation at all.
//
// A generation file is always written as a new file, never as a replacement: its name can only be taken by another
// writer in the same second, and that one's generation must not be lost. The chain is replaced atomically.

namespace velmora {

namespace {

constexpr std::string_view setAsideSuffix = ".unchained";
constexpr std::string_view patterns[] = {".DS_Store", "ascmhl", "ascmhl/", "_REPORT", "_PROXY"};

std::string folderOf(const std::string& cardPath) {
    return RelativePath::withoutTrailingSlash(cardPath) + "/" + std::string(MHL::dirName);
}

std::size_t columnOf(const OffloadReport& report, const std::string& cardPath) {
    const auto column = report.columnAt(cardPath);
    if (!column) {
        throw OffloadError::failed(
            fmt::format("The report has no destination {} — its ASC MHL was not written.", cardPath));
    }
    return *column;
}

// How a file stands in a generation; empty: not at all.
std::string_view actionOf(const OffloadReport::FileEntry& file, std::size_t d) {
    const std::string_view word = d < file.destinations.size() ? std::string_view(file.destinations[d]) : "pending";
    if (!file.rewritten || d >= file.rewritten->size()) {
        return word == "verified" ? "original" : word == "failed" ? "failed" : "";
    }
    if (word == "failed") {
        return "failed";
    }
    if ((*file.rewritten)[d]) {
        return word == "pending" ? "" : "original"; // hashed as it arrived on this disk
    }
    return word == "pending" || word == "written" ? "" : "verified"; // was there before and has been read again
}

std::string commentOf(const OffloadReport& report, std::size_t d) {
    std::string comment;
    if (report.isRepair()) {
        std::int64_t again = 0;
        std::int64_t readBack = 0;
        for (const OffloadReport::FileEntry& file : report.files) {
            const bool known = file.rewritten && d < file.rewritten->size();
            ++(known && !(*file.rewritten)[d] ? readBack : again);
        }
        comment =
            fmt::format("Velmora repair: {} {} again from {}", again, plural(again, "file", "files"), report.source);
        if (readBack > 0) {
            comment += fmt::format(" {} {} only read back", readBack, plural(readBack, "file", "files"));
        }
    } else if (report.kind == "append") {
        const auto count = static_cast<std::int64_t>(report.files.size());
        comment =
            fmt::format("Velmora append: {} new {} from {}", count, plural(count, "file", "files"), report.source);
    } else {
        comment = fmt::format("Velmora offload of {} from {}", report.cardName, report.source);
    }
    if (const auto& method = report.destinations[d].verifyMethod) {
        comment += fmt::format(" · verification: {}", *method);
    }
    return comment;
}

// Text for people may hold anything that a volume is named; XML cannot.
std::string writable(const std::string& text) { return isRecordableName(text) ? text : escapeForDisplay(text); }

void addDigest(std::string& text, std::string_view algorithm, const std::optional<std::string>& value,
               std::string_view action, const std::string& now) {
    if (value) {
        fmt::format_to(std::back_inserter(text), "      <{0} action=\"{1}\" hashdate=\"{2}\">{3}</{0}>\n", algorithm,
                       action, now, Xml::escape(*value));
    }
}

std::string generationText(const OffloadReport& report, std::size_t d, const std::vector<MHL::Entry>& entries,
                           Timestamp now, const std::string& host) {
    const std::string when = TimeText::iso8601(now);
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\">\n"
                       "  <creatorinfo>\n";
    text += fmt::format("    <creationdate>{}</creationdate>\n    <hostname>{}</hostname>\n", when,
                        Xml::escape(writable(host)));
    text += fmt::format("    <tool version=\"{}\">{}</tool>\n", Xml::escape(report.version), Product::name);
    text += fmt::format("    <comment>{}</comment>\n", Xml::escape(writable(commentOf(report, d))));
    text += "  </creatorinfo>\n  <processinfo>\n    <process>transfer</process>\n    <ignore>\n";
    for (const std::string_view pattern : patterns) {
        text += fmt::format("      <pattern>{}</pattern>\n", pattern);
    }
    text += "    </ignore>\n  </processinfo>\n  <hashes>\n";
    for (const MHL::Entry& entry : entries) {
        const OffloadReport::FileEntry& file = *entry.file;
        text += "    <hash>\n";
        fmt::format_to(std::back_inserter(text), "      <path size=\"{}\" lastmodificationdate=\"{}\">{}</path>\n",
                       file.size, TimeText::iso8601(file.modified), Xml::escape(file.path));
        for (const std::string_view algorithm : {"xxh64", "xxh128", "md5"}) {
            addDigest(text, algorithm, file.digest(algorithm), entry.action, when);
        }
        text += "    </hash>\n";
    }
    text += "  </hashes>\n</hashlist>\n";
    return text;
}

std::string chainText(const std::vector<MHLChainEntry>& chain) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\">\n";
    for (const MHLChainEntry& entry : chain) {
        text += fmt::format("  <hashlist sequencenr=\"{}\">\n    <path>{}</path>\n    <c4>{}</c4>\n  </hashlist>\n",
                            entry.seq, Xml::escape(entry.path), Xml::escape(entry.c4));
    }
    text += "</ascmhldirectory>\n";
    return text;
}

// Signed by this program, or nobody's: an unreadable file is no generation of any tool.
bool mayBeSetAside(const std::string& path, std::int64_t seq) {
    try {
        return MHLReader::parseGeneration(path, seq).tool == Product::name;
    } catch (const MHLFormatError&) {
        return true;
    }
}

// The name may be taken: a retry that died in its turn leaves a file of the same name when it came in the same second
// or took over the time of the run that it finished.
void setAside(const std::string& path) {
    constexpr int mostOfOneName = 1000;
    for (int n = 1;; ++n) {
        try {
            IO::renameNoReplace(path, fmt::format("{}{}{}", path, setAsideSuffix, n == 1 ? "" : fmt::format(".{}", n)));
            return;
        } catch (const IOError& error) {
            if (error.code() != EEXIST || n == mostOfOneName)
                throw;
        }
    }
}

void setAsideLeftovers(const MHLHistory& history, const std::string& folder, std::int64_t seq) {
    bool changed = false;
    for (const MHLUnchained& file : history.unchained) {
        const std::string path = folder + "/" + file.fileName;
        if (file.number != seq || !mayBeSetAside(path, seq)) {
            continue;
        }
        setAside(path);
        changed = true;
    }
    if (changed) {
        IO::syncFolder(folder);
    }
}

// A scan lets no such name into a report; one that got in must not make the whole history unreadable.
void refuseUnwritable(const std::vector<MHL::Entry>& entries, const std::string& generationName) {
    std::vector<std::string_view> names{generationName};
    for (const MHL::Entry& entry : entries) {
        names.push_back(entry.file->path);
    }
    for (const std::string_view name : names) {
        if (!isRecordableName(name)) {
            throw OffloadError::failed(fmt::format(
                "The ASC MHL cannot hold the name \"{}\" — the generation was not written.", escapeForDisplay(name)));
        }
    }
}

// Throws OffloadError when this generation must not be written now.
void refuseUnlessNext(const OffloadReport& report, const std::string& cardPath, const MHLHistory& history) {
    const std::int64_t last = history.lastChained();
    if (report.generation && *report.generation != last + 1) {
        throw OffloadError::failed(
            fmt::format("The ASC MHL in {} changed during the append (last generation {}, the append writes {}) — the "
                        "generation was not written.",
                        cardPath, last, *report.generation));
    }
    if (last > 0) {
        return;
    }
    // A chain that cannot be read, or is lost while later generations are there, must not be replaced by a new one.
    const bool chainFile = IO::exists(folderOf(cardPath) + "/" + std::string(MHL::chainName));
    const bool later = std::any_of(history.unchained.begin(), history.unchained.end(),
                                   [](const MHLUnchained& file) { return file.number.value_or(0) > 1; });
    if (chainFile || later) {
        throw OffloadError::failed(
            fmt::format("The ASC MHL in {} already has a chain — generation 1 was not written.", cardPath));
    }
}

std::map<std::string, std::string> digestsOf(const std::vector<MHL::Entry>& entries) {
    std::map<std::string, std::string> digests;
    for (const MHL::Entry& entry : entries) {
        digests[entry.file->path] = toLower(entry.file->xxh64.value_or(""));
    }
    return digests;
}

std::map<std::string, std::string> digestsOf(const MHLGeneration& generation) {
    std::map<std::string, std::string> digests;
    for (const MHLRecord& record : generation.files) {
        const MHLHash* hash = record->hash("xxh64");
        digests[record->path] = hash != nullptr ? toLower(hash->value) : "";
    }
    return digests;
}

} // namespace

std::string MHL::c4(std::string_view data) { return C4::ofBytes(data); }

std::string MHL::generationName(std::int64_t seq, const std::string& cardPath, Timestamp now) {
    const std::string card = RelativePath::withoutTrailingSlash(cardPath);
    // A card's name may be as long as a file name can be, and this one is longer. What counts is number and ending.
    constexpr std::size_t longestCard = 200;
    return fmt::format("{:04d}_{}_{}.mhl", seq, cutUtf8(RelativePath::name(card), longestCard),
                       TimeText::utc(now, "%Y-%m-%d_%H%M%SZ"));
}

std::vector<MHL::Entry> MHL::entries(const OffloadReport& report, std::size_t destination) {
    std::vector<Entry> listed;
    for (const OffloadReport::FileEntry& file : report.files) {
        if (const std::string_view action = actionOf(file, destination); !action.empty()) {
            listed.push_back({&file, action});
        }
    }
    return listed;
}

bool MHL::hasGeneration(const OffloadReport& report, const std::string& cardPath) {
    const std::int64_t number = report.generationNumber();
    const MHLHistory history = MHLReader::read(cardPath);
    // Only the chain publishes: a file of that number that it does not name is what a write left that died.
    const bool chained = std::any_of(history.chain.begin(), history.chain.end(),
                                     [&](const MHLChainEntry& entry) { return entry.seq == number; });
    if (!chained) {
        return false;
    }
    const auto found = std::find_if(history.generations.begin(), history.generations.end(),
                                    [&](const MHLGeneration& generation) { return generation.seq == number; });
    if (found == history.generations.end() || history.changed.contains(number)) {
        throw OffloadError::failed(fmt::format("The ASC MHL in {} has generation {}, but its file is missing or was "
                                               "changed — the generation was not written again.",
                                               cardPath, number));
    }
    if (digestsOf(*found) != digestsOf(entries(report, columnOf(report, cardPath)))) {
        throw OffloadError::failed(fmt::format("The ASC MHL in {} already has a different generation {} — the "
                                               "generation was not written again.",
                                               cardPath, number));
    }
    // The caller relies on this being durable, and a run that was killed right after the renames did not flush them.
    IO::syncFolder(std::string(RelativePath::withoutTrailingSlash(cardPath)) + "/" + std::string(dirName));
    IO::syncFolder(std::string(RelativePath::withoutTrailingSlash(cardPath)));
    return true;
}

void MHL::write(const OffloadReport& report, const std::string& cardPath, Timestamp now, const std::string& host) {
    const std::size_t column = columnOf(report, cardPath);
    const std::string folder = folderOf(cardPath);
    MHLHistory history = MHLReader::read(cardPath);
    refuseUnlessNext(report, cardPath, history);
    const std::int64_t seq = history.lastChained() + 1;
    const std::string name = generationName(seq, cardPath, now);
    const std::vector<Entry> listed = entries(report, column);
    refuseUnwritable(listed, name);

    IO::mkdirBelow(folder);
    // Also when the folder was there: a run that was killed may have made it a moment ago.
    IO::syncFolder(std::string(RelativePath::withoutTrailingSlash(cardPath)));
    setAsideLeftovers(history, folder, seq);
    const std::string text = generationText(report, column, listed, now, host);
    IO::writeFileNew(folder + "/" + name, text);
    history.chain.push_back({seq, name, c4(text)});
    IO::writeFileDurably(folder + "/" + std::string(chainName), chainText(history.chain));
}

} // namespace velmora
