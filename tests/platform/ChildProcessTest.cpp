#include "platform/ChildProcess.h"

#include <fmt/format.h>

namespace velmora {
namespace {

using testing::HasSubstr;

ChildProcess::Options shell(const std::string& script) {
    ChildProcess::Options options;
    options.program = "/bin/sh";
    options.arguments = {"-c", script};
    return options;
}

// The process is gone, or a zombie that only its new parent has not collected yet.
bool isGone(int pid) {
    for (int wait = 0; wait < 300; ++wait) {
        if (::kill(pid, 0) != 0)
            return true;
        if (test::FileTree::read(fmt::format("/proc/{}/stat", pid)).find(") Z ") != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

double secondsOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(ChildProcess, HandsOverWordsFolderAndEnvironmentAsTheyAre) {
    ChildProcess::Options options;
    options.program = "/bin/sh";
    options.arguments = {
        "-c", R"(printf '%s|' "$@"; pwd; printf '%s' "$COLOUR${HOME+lost}"; /bin/cat)", "x", "a b", "$HOME;*", "",
        "\"'"};
    options.workingFolder = "/usr";
    options.environment = {"COLOUR=green", "HOME"};
    EXPECT_EQ(ChildProcess::run(options), "a b|$HOME;*||\"'|/usr\ngreen");
}

TEST(ChildProcess, InheritsNothingButWhatItIsGiven) {
    const int secret = ::open("/dev/null", O_RDONLY); // without O_CLOEXEC, as a careless library would
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    auto options = shell("ls /proc/self/fd; printf hello >&5");
    options.descriptors = {{5, pipe[1]}};
    // 3 and 4 fill the gap below 5; `ls` itself opens one more for the folder.
    EXPECT_EQ(ChildProcess::run(options), "0\n1\n2\n3\n4\n5\n6\n");
    char text[8] = {};
    EXPECT_EQ(::read(pipe[0], text, sizeof text), 5);
    EXPECT_STREQ(text, "hello");
    for (const int fd : {secret, pipe[0], pipe[1]})
        ::close(fd);
}

TEST(ChildProcess, FeedsAnother) {
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    auto from = shell("seq 1 100000; echo done >&2");
    from.outputTo = pipe[1];
    auto into = shell("sort -n | tail -1");
    into.input = pipe[0];
    ChildProcess feeder(from);
    ChildProcess reader(into);
    ::close(pipe[0]);
    ::close(pipe[1]);
    ASSERT_TRUE(reader.waitFor(20));
    EXPECT_EQ(reader.output(), "100000\n");
    ASSERT_TRUE(feeder.waitFor(20));
    EXPECT_EQ(feeder.errorTail() + feeder.output(), "done\n");
}

TEST(ChildProcess, OutlivesTheThreadThatMadeItButNotAKilledProcess) {
    const test::TempFolder folder;
    const pid_t owner = ::fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) {
        std::unique_ptr<ChildProcess> child;
        std::thread([&] { child = std::make_unique<ChildProcess>(shell("exec sleep 60")); }).join();
        const bool lives = !child->waitFor(0.3);
        test::FileTree::write(folder / "made", fmt::format("{} {}\n", child->pid(), lives));
        std::filesystem::rename(folder / "made", folder / "pid");
        child->waitFor(60);
        ::_exit(0);
    }
    while (!std::filesystem::exists(folder / "pid"))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ::kill(owner, SIGKILL);
    ::waitpid(owner, nullptr, 0);
    const std::string made = test::FileTree::read(folder / "pid");
    EXPECT_TRUE(made.ends_with(" true\n")) << made;
    EXPECT_TRUE(isGone(std::stoi(made)));
}

TEST(ChildProcess, TellsWhyItFailed) {
    const struct {
        ChildProcess::Options options;
        int status;
        std::string message;
    } cases[] = {
        {shell("echo one >&2; echo two >&2; exit 7"), 7, "one\ntwo\n"},
        {shell("kill -9 $$"), 137, ""},
        {shell("printf 'a\\377b' >&2; exit 1"), 1,
         "a\xEF\xBF\xBD"
         "b"},
        {{.program = "/nowhere/tool"}, -1, "No such file or directory"},
        {{.program = "/etc/passwd"}, -1, "Permission denied"},
        {{.program = "/bin/true", .workingFolder = "/nowhere"}, -1, "No such file or directory"},
    };
    for (const auto& c : cases)
        try {
            ChildProcess::run(c.options);
            ADD_FAILURE() << c.options.program << " did not fail";
        } catch (const ToolError& error) {
            EXPECT_EQ(error.status(), c.status) << c.options.program;
            EXPECT_EQ(error.message(), c.message);
            EXPECT_EQ(error.tool(), c.options.program.substr(c.options.program.rfind('/') + 1));
        }
}

TEST(ChildProcess, KeepsTheTailOfAnEndlessComplaintAndEveryLineReachesTheListener) {
    auto options = shell("seq 1 1500000 >&2; seq 1 200000; printf 'no end'; exit 1");
    int errorLines = 0;
    std::vector<std::string> output;
    options.onErrorLine = [&](std::string_view) { ++errorLines; };
    options.onOutputLine = [&](std::string_view line) { output.emplace_back(line); };
    try {
        ChildProcess::run(options);
        FAIL();
    } catch (const ToolError& error) {
        EXPECT_LE(error.message().size(), 65536U);
        EXPECT_GE(error.message().size(), 16000U);
        EXPECT_TRUE(error.message().ends_with("1499999\n1500000\n"));
    }
    EXPECT_EQ(errorLines, 1500000);
    ASSERT_EQ(output.size(), 200001U);
    EXPECT_EQ(output[199999], "200000");
    EXPECT_EQ(output.back(), "no end");
}

TEST(ChildProcess, MixesBothStreamsWhenAsked) {
    auto options = shell("echo out; echo err >&2; exit 3");
    options.errorToOutput = true;
    ChildProcess child(options);
    ASSERT_TRUE(child.waitFor(20));
    EXPECT_EQ(child.status(), 3);
    EXPECT_EQ(child.output(), "out\nerr\n");
}

TEST(ChildProcess, EndsWithItsWholeFamilyOnTimeoutCancelFloodAndStop) {
    // A grandchild that ignores the polite request, in the same group, holding the pipes.
    const test::TempFolder folder;
    const std::string family = "sh -c 'trap \"\" TERM; echo $$ > " + folder / "grandchild" +
                               "; while :; do sleep 0.1; done' & while [ ! -s " + folder / "grandchild" +
                               " ]; do sleep 0.01; done; ";
    auto flood = shell(family + "yes");
    flood.outputLimit = 1 << 20;
    const struct {
        ChildProcess::Options options;
        std::optional<double> timeout;
        bool cancel;
        std::string message;
    } cases[] = {
        {shell(family + "sleep 60"), 0.3, false, "no response within 0 s — stopped"},
        {shell(family + "trap '' TERM; while :; do sleep 0.1; done"), 30.0, true, "cancelled"},
        {flood, std::nullopt, false, "more output than expected — stopped"},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(folder / "grandchild");
        const auto seen = [&] { return c.cancel && std::filesystem::exists(folder / "grandchild"); };
        const double took = secondsOf([&] {
            try {
                ChildProcess::run(c.options, c.timeout, seen);
                ADD_FAILURE() << "not stopped: " << c.message;
            } catch (const ToolError& error) {
                EXPECT_EQ(error.message(), c.message);
            }
        });
        EXPECT_LT(took, 15) << c.message;
        EXPECT_TRUE(isGone(std::stoi(test::FileTree::read(folder / "grandchild")))) << c.message;
    }
}

TEST(ChildProcess, DoesNotWaitForAGrandchildThatKeepsThePipeOpen) {
    std::string said;
    const double took = secondsOf([&] { said = ChildProcess::run(shell("sleep 60 & echo $!")); });
    EXPECT_LT(took, 10);
    EXPECT_TRUE(isGone(std::stoi(said)));
}

TEST(ChildProcess, LeavesNothingBehindWhenItsObjectGoes) {
    int pid = 0;
    {
        ChildProcess child(shell("sleep 60"));
        pid = child.pid();
        EXPECT_FALSE(child.waitFor(0.05));
    }
    EXPECT_TRUE(isGone(pid));
}

} // namespace
} // namespace velmora
