#include "proxies/ProxyRenderer.h"
#include "platform/PrivateFolder.h"
#include "proxies/ClipProbe.h"
#include "proxies/FFmpegRun.h"

#include <fmt/format.h>

namespace velmora {
namespace {

using testing::HasSubstr;

// A back-end whose feeder is a shell script.
class Feeding : public RawBackend {
public:
    explicit Feeding(std::string script) : script_(std::move(script)) {}
    ClipFormat format() const override { return ClipFormat::braw; }
    std::string missingHint() const override { return "missing"; }
    bool isAvailable(const ExternalTools&) const override { return true; }
    ClipInfo probe(const std::string&, const ExternalTools&, const IsCancelled&) const override { return {}; }
    inline static int asked = 0;
    FrameSource source(const FrameRequest& request) const override {
        ++asked;
        FrameSource source;
        source.inputArgs = {"-i", "pipe:0"};
        source.feeder.emplace();
        source.feeder->program = "/bin/sh";
        source.feeder->arguments = {"-c", script_};
        source.cleanup = {request.tempDir + "/left"};
        test::FileTree::write(request.tempDir + "/left", "");
        source.explainFeederError = [](const ToolError& error) {
            return ToolError("decoder", error.status(), "explained: " + error.message());
        };
        return source;
    }

private:
    std::string script_;
};

// Renders with a script in the place of ffmpeg. `$out` is its output, `$good` a whole MOV; trials succeed.
class ProxyRendererTest : public testing::Test {
protected:
    test::TempFolder folder;
    std::string output = folder / "out/deep/A001.mov";
    std::vector<std::string> logged;
    int restarts = 0;
    bool hardware = true;
    std::function<std::int64_t()> activity;
    bool cancel = false;
    std::optional<std::string> lut;

    void SetUp() override { test::FileTree::write(folder / "good", std::string("\0\0\0\x08moov\0\0\0\x08mdat", 16)); }
    std::size_t passes() const {
        const std::string calls = test::FileTree::read(folder / "calls");
        return static_cast<std::size_t>(std::ranges::count(calls, '\n'));
    }
    // What the render says; empty when it has succeeded.
    std::string render(const std::string& script, const std::string& feeder = "") {
        const std::string ffmpeg = folder / "ffmpeg";
        test::FileTree::write(folder / "calls", "");
        test::FileTree::write(ffmpeg, "#!/bin/sh\ncase \"$*\" in *'-f null -') exit 0;; esac\n"
                                      "for last; do :; done; out=${last#file:}; good=" +
                                          folder / "good" + "\necho \"$*\" >> " + folder / "calls" + "\n" + script +
                                          "\n");
        std::filesystem::permissions(ffmpeg, std::filesystem::perms::owner_all);
        ClipProbe::Backends backends;
        if (!feeder.empty())
            backends.push_back(std::make_unique<Feeding>(feeder));
        ExternalTools tools;
        tools.ffmpeg = ffmpeg;
        const ClipProbe probe(tools, std::move(backends));
        ProxyRenderer renderer({}, probe, [&](std::string_view line) { logged.emplace_back(line); }, {{"cuda", {}}});
        renderer.stallTimeout = 1;
        renderer.setHardwareDecodeEnabled(hardware);
        Clip clip;
        clip.name = "A001";
        clip.path = "A001.MOV";
        clip.format = feeder.empty() ? ClipFormat::video : ClipFormat::braw;
        const ClipInfo info;
        LutUse use = LutUse::off("");
        use.file = lut;
        RenderRequest request{clip, folder / "A001.MOV", info, use, output};
        request.isCancelled = [&] { return cancel && std::filesystem::exists(folder / "begun"); };
        request.onRestart = [&] { ++restarts; };
        request.activity = activity;
        const std::string said = test::refusal<std::exception>([&] { renderer.render(request); });
        EXPECT_FALSE(std::filesystem::exists(renderer.tempDir() + "/left"));
        std::string parts;
        for (const auto& [path, bytes] : test::FileTree::contents(folder / "out"))
            parts += path.ends_with(".part.mov") ? path : "";
        EXPECT_EQ(parts, "");
        return said;
    }
    bool made() const { return std::filesystem::exists(output); }
};

TEST_F(ProxyRendererTest, TriesOnceMoreInSoftware) {
    EXPECT_EQ(render("case \"$*\" in *-hwaccel*) echo 'no such decoder' >&2; exit 3;; esac; cp $good \"$out\""), "");
    EXPECT_TRUE(made());
    EXPECT_EQ(passes(), 2U);
    EXPECT_EQ(restarts, 1);
    EXPECT_THAT(logged,
                testing::Contains("proxy A001: with hardware decoding: ffmpeg failed (exit 3): no such decoder — "
                                  "retrying in software"));
    EXPECT_THAT(logged, testing::Contains("proxy A001: software decoding succeeded"));
}

TEST_F(ProxyRendererTest, SaysOfBothTriesWhyThereIsNoProxy) {
    const struct {
        bool hardware;
        std::string script;
        std::string said;
    } cases[] = {
        {true, "echo frame=1; sleep 60",
         "ffmpeg stalled (1 s without a new frame), also with software decoding; proxy not created"},
        {false, "sleep 60", "ffmpeg stalled (1 s without a new frame); proxy not created"},
        {true, "case \"$*\" in *-hwaccel*) sleep 60;; esac; echo broken >&2; exit 4",
         "ffmpeg stalled (1 s without a new frame); software decoding failed: ffmpeg failed (exit 4): broken"},
        {true, "echo \"broken $#\" | sed 's/ .*//' >&2; exit 5",
         "ffmpeg failed (exit 5): broken; earlier with hardware decoding: ffmpeg failed (exit 5): broken"},
        {false, "head -c 8 $good > \"$out\"",
         "ffmpeg failed (exit 0): the proxy is not whole: it has no index or no media"},
        {false, "cp $good \"$out\"; echo taken > \"${out%.part.mov}.mov\"", "proxy name taken meanwhile: " + output},
    };
    for (const auto& c : cases) {
        hardware = c.hardware;
        EXPECT_EQ(render(c.script), c.said);
        if (made()) {
            EXPECT_EQ(test::FileTree::read(output), "taken\n");
        }
        std::filesystem::remove(output);
    }
    EXPECT_LT(render("head -c 5000000 /dev/zero | tr '\\0' x >&2; exit 1").size(), 140'000U);
    lut = folder / "gone.cube";
    EXPECT_THAT(render("cp $good \"$out\""), HasSubstr("LUT not found: " + *lut));
    const int asked = Feeding::asked;
    EXPECT_THAT(render("cp $good \"$out\"", "seq 1000"), HasSubstr("LUT not found: " + *lut));
    EXPECT_EQ(Feeding::asked, asked); // a back-end may work for an hour before it answers
    EXPECT_EQ(passes(), 0U);
}

// Some clips are read for minutes before their first frame. Who only opens an address and reads nothing has stalled.
TEST_F(ProxyRendererTest, HasNotStalledWhileItsInputIsRead) {
    hardware = false;
    activity = [] { return std::int64_t{7}; };
    EXPECT_EQ(render("sleep 60"), "ffmpeg stalled (1 s without a new frame); proxy not created");
    activity = [bytes = std::int64_t{0}]() mutable { return ++bytes; };
    EXPECT_EQ(render("sleep 2.5; cp $good \"$out\""), "");
}

TEST_F(ProxyRendererTest, StopsAtOnceWhenCancelled) {
    cancel = true;
    EXPECT_THAT(render("touch \"$out\" " + folder / "begun" + "; sleep 60"), HasSubstr("cancelled"));
    EXPECT_EQ(passes(), 1U);
    EXPECT_FALSE(made());
}

TEST_F(ProxyRendererTest, ABrokenFeederMakesNoProxy) {
    const std::string reads = "cat > \"$out.pipe\"; cp $good \"$out\"";
    EXPECT_EQ(render(reads, "seq 1000; echo 'card gone' >&2; exit 5"), "decoder failed (exit 5): explained: card gone");
    EXPECT_FALSE(made());
    // Where ffmpeg breaks off, the feeder's broken pipe is no reason.
    for (const char* feeder : {"yes", "yes 2>/dev/null; echo 'write: Broken pipe' >&2; exit 1"})
        EXPECT_EQ(render("head -c 10 >/dev/null; echo full >&2; exit 6", feeder), "ffmpeg failed (exit 6): full");
    EXPECT_EQ(render(reads, "seq 1000"), "");
    EXPECT_TRUE(made());
    EXPECT_THAT(test::FileTree::read(output.substr(0, output.size() - 4) + ".part.mov.pipe"), HasSubstr("\n999\n"));
}

TEST(PrivateFolder, GoesWithItsOwnerHoweverThatEnds) {
    const test::TempFolder temp;
    const pid_t owner = ::fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) {
        const PrivateFolder mine(temp.path());
        test::FileTree::write(mine.path() + "/sub/file", "x");
        ::kill(::getpid(), SIGKILL);
    }
    ::waitpid(owner, nullptr, 0);
    EXPECT_FALSE(std::filesystem::is_empty(temp.path()));
    std::string path;
    {
        const PrivateFolder first(temp.path());
        const PrivateFolder second(temp.path());
        path = first.path();
        EXPECT_TRUE(std::filesystem::exists(path)); // it lives, and was not swept by the second
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms::owner_all);
    }
    EXPECT_TRUE(std::filesystem::is_empty(temp.path()));
}

} // namespace
} // namespace velmora
