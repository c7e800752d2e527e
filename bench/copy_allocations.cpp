// copy_allocations FOLDER: counts what the copy path allocates for each block. It copies a short file and a long one
// below FOLDER to two folders with every allocation of the process counted; what the long one takes more, over the
// blocks it has more, is the answer: everything that a run or a file allocates once falls out. Checkpoints are off, as
// they are paid once in 64 blocks. Prints the number for the copy, then for the copy with read-back.

#include "engine/OffloadEngine.h"
#include "engine/RunRecorder.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>

namespace {

std::atomic<std::int64_t> allocations{0};

void* counted(std::size_t bytes, std::size_t alignment) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    void* memory = nullptr;
    if (::posix_memalign(&memory, alignment, bytes == 0 ? 1 : bytes) != 0)
        throw std::bad_alloc();
    return memory;
}

} // namespace

void* operator new(std::size_t bytes) { return counted(bytes, sizeof(void*) * 2); }
void* operator new[](std::size_t bytes) { return counted(bytes, sizeof(void*) * 2); }
void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return counted(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

namespace {

namespace fs = std::filesystem;
using namespace velmora;

constexpr std::int64_t block = 64 * 1024;

class NothingRecorded : public RunRecorder {
public:
    void write(Stage, const OffloadReport&, const std::string&) override {}
};

// Allocations of one run over one file of that many blocks.
std::int64_t allocationsOf(const fs::path& folder, std::int64_t blocks, bool verify) {
    fs::remove_all(folder);
    for (const char* name : {"card", "a", "b"})
        fs::create_directories(folder / name);
    {
        std::ofstream file(folder / "card" / "FILE.BIN", std::ios::binary);
        const std::string bytes(static_cast<std::size_t>(block), 'x');
        for (std::int64_t i = 0; i < blocks; ++i)
            file.write(bytes.data(), block);
        if (!file.flush())
            throw std::runtime_error("cannot write below " + folder.string());
    }
    OffloadOptions options;
    options.chunkSize = block;
    options.verify = verify;
    options.checkpointBlocks = blocks + 1;
    options.allowSameDevice = true;
    options.allowSourceVolume = true;
    OffloadEngine engine(options);
    const OffloadPlan plan = engine.prepare(
        {(folder / "card").string(), {(folder / "a").string(), (folder / "b").string()}, "CARD", "2026-01-01"});
    NothingRecorded recorder;
    const std::int64_t before = allocations.load();
    const OffloadReport report = engine.run(plan, recorder);
    const std::int64_t after = allocations.load();
    if (!report.success())
        throw std::runtime_error("the copy failed");
    fs::remove_all(folder);
    return after - before;
}

double perBlock(const fs::path& folder, bool verify) {
    constexpr std::int64_t few = 256, many = 4096;
    const std::int64_t most = allocationsOf(folder, many, verify);
    return static_cast<double>(most - allocationsOf(folder, few, verify)) / static_cast<double>(many - few);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("copy_allocations FOLDER\n", stderr);
        return 2;
    }
    try {
        const fs::path folder = fs::path(argv[1]) / "allocations";
        std::printf("%.4f %.4f\n", perBlock(folder, false), perBlock(folder, true));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "copy_allocations: %s\n", error.what());
        return 1;
    }
}
