#include "mhl/MHLReader.h"

#include "base/Errors.h"
#include "blocks/C4.h"
#include "blocks/HashStreams.h"
#include "mhl/GenerationParser.h"
#include "mhl/MHL.h"
#include "mhl/MHLProblems.h"
#include "platform/IO.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <set>

// Where the format leaves a choice:
// - A folder without `ascmhl`, or with an empty one (a first write died early), has no history and no problem.
// - A file that the chain does not name is told, but not read while there is a chain: the chain entry is what publishes
//   a generation, so such a file is a write that never happened, or a forgery. Without a readable chain nothing tells
//   the two apart, and all files are read by the number in their names.
// - Numbers run from 1 without a gap. A number that is left out or stands twice is a problem: it is how a removed
//   generation shows. Entries out of order are not: they are sorted.
// - `ignore` is that of the newest generation, for patterns are only ever added.
// - A path that would lead out of the card folder is in no record and in no map, only in `refusedPaths`, with a
// problem.
// - A record without any digest proves nothing: it is in `files`, never in `lastGood`.
// - A renamed file takes its past along: `previousPath` removes the old name from both maps, and what the old name had
//   as its last good state stands for the new name where the renaming record brings none. Old names are taken out
//   before new ones are put in, so that two files can swap their names in one generation.

namespace velmora {

namespace {

// A generation of a card with a million files is below this; no more is read of a file that claims to be one.
constexpr std::int64_t maxGenerationBytes = std::int64_t{512} << 20;
constexpr std::int64_t maxChainBytes = std::int64_t{64} << 20;
constexpr std::int64_t recordBytes = 256;
constexpr std::size_t readBytes = std::size_t{1} << 20;

void forEachPiece(UncachedReader& file, const std::string& path, std::int64_t limit,
                  const std::function<void(std::string_view)>& take) {
    if (file.facts().size > limit) {
        throw IOError("read", path, EFBIG);
    }
    AlignedBuffer buffer(readBytes);
    for (std::int64_t offset = 0; offset <= limit;) {
        const std::size_t got = file.readAt(buffer.span(), offset);
        take({reinterpret_cast<const char*>(buffer.data()), got});
        if (got < buffer.size()) {
            return;
        }
        offset += static_cast<std::int64_t>(got);
    }
}

bool isGenerationName(std::string_view name) {
    // Other systems leave "._" files beside every file on a FAT disk; they end the same way and hold no XML.
    return name.ends_with(".mhl") && !name.starts_with('.');
}

struct Folder {
    std::vector<std::string> generations; // file names, sorted
    bool hasChain = false;
};

Folder listFolder(const std::string& ascmhl) {
    Folder folder;
    for (const IOEntry& entry : IO::list(ascmhl)) {
        const bool isChain = entry.name == MHL::chainName;
        if (!isChain && !isGenerationName(entry.name)) {
            continue;
        }
        if (!IO::lstat(ascmhl + "/" + entry.name).isFile) {
            continue; // a link could show a file from anywhere as a generation
        }
        if (isChain) {
            folder.hasChain = true;
        } else {
            folder.generations.push_back(entry.name);
        }
    }
    std::sort(folder.generations.begin(), folder.generations.end());
    return folder;
}

struct Planned {
    std::int64_t seq = 0;
    std::string fileName;
    std::optional<std::string> c4; // what the chain says, if there is one
};

// Also tells what is wrong with the numbers.
std::vector<Planned> planByChain(const MHLHistory& history, const Folder& folder, std::vector<std::string>& problems) {
    std::vector<Planned> plan;
    std::map<std::string, std::int64_t> named;
    std::int64_t expected = 1;
    for (const MHLChainEntry& entry : history.chain) {
        if (entry.seq < expected) {
            problems.push_back(MHLProblems::repeated(entry.seq));
        } else if (entry.seq > expected) {
            problems.push_back(MHLProblems::skipped(expected));
        }
        expected = std::max(expected, entry.seq + 1);
        // Only a plain name that was listed is ever opened, whatever the entry says.
        if (!std::binary_search(folder.generations.begin(), folder.generations.end(), entry.path)) {
            problems.push_back(MHLProblems::fileMissing(entry.seq, entry.path));
            continue;
        }
        // One file cannot be two generations: the second entry has replaced another one, and its generation is lost.
        if (const auto [first, isNew] = named.try_emplace(entry.path, entry.seq); !isNew) {
            problems.push_back(MHLProblems::sameFile(entry.seq, first->second, entry.path));
            continue;
        }
        plan.push_back({entry.seq, entry.path, entry.c4});
    }
    return plan;
}

std::vector<Planned> planByNames(const std::string& ascmhl, const Folder& folder) {
    std::vector<Planned> plan;
    for (const std::string& name : folder.generations) {
        const auto number = MHLReader::leadingNumber(name);
        // An empty file is a name that was reserved by a write that died; it cannot have been published.
        if (number && IO::lstat(ascmhl + "/" + name).size > 0) {
            plan.push_back({*number, name, std::nullopt});
        }
    }
    std::stable_sort(plan.begin(), plan.end(), [](const Planned& a, const Planned& b) { return a.seq < b.seq; });
    return plan;
}

// Reads the file once for its content and for its hash.
MHLGeneration readGeneration(const std::string& cardPath, const Planned& planned, MHLHistory& history,
                             const IsCancelled& isCancelled, std::int64_t& left) {
    const std::string relative = std::string(MHL::dirName) + "/" + planned.fileName;
    GenerationParser parser(planned.seq);
    CryptoStream hash(CryptoStream::Kind::sha512);
    std::exception_ptr broken;
    UncachedReader file = UncachedReader::beneath(cardPath, relative);
    forEachPiece(file, cardPath + "/" + relative, std::min(maxGenerationBytes, left), [&](std::string_view piece) {
        left -= static_cast<std::int64_t>(piece.size());
        if (isCancelled && isCancelled()) {
            throw Cancelled();
        }
        hash.update(piece.data(), piece.size());
        if (!broken) {
            try {
                parser.feed(piece);
            } catch (const MHLFormatError&) {
                broken = std::current_exception();
            }
        }
    });
    const std::vector<std::uint8_t> digest = hash.finish();
    if (planned.c4 && C4::fromSHA512(std::span<const std::uint8_t, 64>(digest.data(), 64)) != planned.c4) {
        history.changed.insert(planned.seq);
        history.chainProblems.push_back(MHLProblems::changed(planned.seq));
    }
    if (broken) {
        std::rethrow_exception(broken);
    }
    MHLGeneration generation = parser.finish();
    generation.fileName = planned.fileName;
    // A record takes more memory than a short line of the file.
    left -= static_cast<std::int64_t>(generation.files.size()) * recordBytes;
    if (left < 0) {
        throw MHLFormatError("the history is too long");
    }
    return generation;
}

// See "a renamed file takes its past along" above.
void applyGeneration(MHLHistory& history, const MHLGeneration& generation) {
    std::map<std::string, MHLRecord> inherited; // by new name
    for (const MHLRecord& record : generation.files) {
        if (!record->previousPath || *record->previousPath == record->path) {
            continue;
        }
        history.files.erase(*record->previousPath);
        if (const auto old = history.lastGood.find(*record->previousPath); old != history.lastGood.end()) {
            MHLFileRecord moved = *old->second;
            moved.path = record->path;
            inherited[record->path] = std::make_shared<const MHLFileRecord>(std::move(moved));
        }
    }
    for (const MHLRecord& record : generation.files) {
        if (record->previousPath && *record->previousPath != record->path) {
            history.lastGood.erase(*record->previousPath);
        }
    }
    for (auto& [path, record] : inherited) {
        history.lastGood[path] = std::move(record);
    }
    for (const MHLRecord& record : generation.files) {
        // The records of most programs are in order: the place of the next one is known.
        history.files.insert_or_assign(history.files.end(), record->path, record);
        if (!record->failed() && !record->hashes.empty()) {
            history.lastGood.insert_or_assign(history.lastGood.end(), record->path, record);
        }
    }
}

} // namespace

std::vector<MHLChainEntry> MHLReader::readChain(const std::string& ascmhlDir, std::vector<std::string>& problems) {
    try {
        UncachedReader file = UncachedReader::beneath(ascmhlDir, std::string(MHL::chainName));
        ChainParser parser;
        forEachPiece(file, ascmhlDir + "/" + std::string(MHL::chainName), maxChainBytes,
                     [&](std::string_view piece) { parser.feed(piece); });
        return parser.finish();
    } catch (const IOError& error) {
        problems.push_back(error.code() == ENOENT ? MHLProblems::chainMissing()
                                                  : MHLProblems::chainUnreadable(describe(error)));
    } catch (const MHLFormatError& error) {
        problems.push_back(MHLProblems::chainUnreadable(describe(error)));
    }
    return {};
}

MHLGeneration MHLReader::parseGeneration(const std::string& path, std::int64_t seq) {
    UncachedReader file(path);
    GenerationParser parser(seq);
    forEachPiece(file, path, maxGenerationBytes, [&](std::string_view piece) { parser.feed(piece); });
    MHLGeneration generation = parser.finish();
    generation.fileName = path.substr(path.find_last_of('/') + 1);
    return generation;
}

std::vector<MHLChainEntry> MHLReader::chainFromBytes(std::string_view bytes) {
    ChainParser parser;
    parser.feed(bytes);
    return parser.finish();
}

MHLGeneration MHLReader::generationFromBytes(std::string_view bytes, std::int64_t seq) {
    GenerationParser parser(seq);
    parser.feed(bytes);
    return parser.finish();
}

MHLHistory MHLReader::read(const std::string& cardPath, const IsCancelled& isCancelled, std::int64_t* left) {
    MHLHistory history;
    std::int64_t own = maxHistoryBytes;
    const std::string ascmhl = cardPath + "/" + std::string(MHL::dirName);
    if (!IO::exists(ascmhl)) {
        return history;
    }
    if (!IO::lstat(ascmhl).isFolder) {
        throw MHLFormatError(fmt::format("{} is not a folder", ascmhl));
    }
    const Folder folder = listFolder(ascmhl);
    history.exists = folder.hasChain || !folder.generations.empty();
    if (!history.exists) {
        return history;
    }
    history.chain = readChain(ascmhl, history.chainProblems);
    history.chainRead = history.chainProblems.empty();
    std::stable_sort(history.chain.begin(), history.chain.end(),
                     [](const MHLChainEntry& a, const MHLChainEntry& b) { return a.seq < b.seq; });

    std::vector<Planned> plan =
        history.chainRead ? planByChain(history, folder, history.chainProblems) : planByNames(ascmhl, folder);
    std::set<std::string> chained;
    for (const MHLChainEntry& entry : history.chain) {
        chained.insert(entry.path);
    }
    for (const std::string& name : folder.generations) {
        if (chained.contains(name)) {
            continue;
        }
        history.unchained.push_back({name, leadingNumber(name)});
        // Without a chain file one problem has been told that covers them all, but for names that hold no number.
        if (folder.hasChain || !history.unchained.back().number) {
            history.chainProblems.push_back(MHLProblems::notInChain(name));
        }
    }
    for (const Planned& planned : plan) {
        try {
            history.generations.push_back(
                readGeneration(cardPath, planned, history, isCancelled, left != nullptr ? *left : own));
        } catch (const Cancelled&) {
            throw;
        } catch (const std::exception& error) {
            throw MHLFormatError(
                fmt::format("Cannot read ASC MHL generation {}: {}", planned.fileName, describe(error)));
        }
        const MHLGeneration& generation = history.generations.back();
        applyGeneration(history, generation);
        history.ignore = generation.ignore;
        for (const std::string& path : generation.refusedPaths) {
            history.refusedPaths.push_back(path);
            history.chainProblems.push_back(MHLProblems::leavesFolder(generation.seq, path));
        }
    }
    return history;
}

std::optional<Timestamp> MHLReader::parseDate(std::string_view text) {
    return TimeText::parseIso8601(Xml::trimmed(text));
}

std::optional<std::int64_t> MHLReader::leadingNumber(std::string_view name) {
    constexpr std::size_t mostDigits = 9;
    const std::size_t digits = std::min(name.find_first_not_of("0123456789"), name.size());
    if (digits == 0 || digits > mostDigits) {
        return std::nullopt;
    }
    std::int64_t number = 0;
    for (const char c : name.substr(0, digits)) {
        number = number * 10 + (c - '0');
    }
    return number;
}

std::string MHLReader::describe(const std::exception& error) { return error.what(); }

} // namespace velmora
