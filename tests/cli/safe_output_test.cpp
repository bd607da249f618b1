// Never onto the input, never over an existing file without --force, never a partial file or a
// stray temporary, whatever ends the run.

#include "io/safe_output.h"

#include <signal.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>
#include <tuple>

#include "cli_test.h"
#include "errors.h"
#include "io/block_writer.h"

namespace kesta_test {
namespace {

// Every entry of `directory`, sorted.
std::vector<std::string> NamesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class SafeOutputTest : public CliTest {
protected:
    void SetUp() override { WriteAudio(dir / "in.wav", StereoTone16()); }
    std::vector<std::string> Names() const { return dir.Names(); }
};

TEST_F(SafeOutputTest, NeverWritesOntoTheInputEvenWithForce) {
    const std::string original = ReadBytes(dir / "in.wav");
    ASSERT_EQ(::link(P("in.wav").c_str(), P("hard.wav").c_str()), 0);
    ASSERT_EQ(::symlink("in.wav", P("soft.wav").c_str()), 0);
    ASSERT_EQ(::symlink(".", P("here").c_str()), 0);
    const std::vector<std::string> before = Names();

    const std::tuple<const char*, std::string, std::string, std::filesystem::path> cases[] = {
        {"the same path", P("in.wav"), P("in.wav"), {}},
        {"./ spelling", "in.wav", "./in.wav", dir.Path()},
        {"a hard link", P("in.wav"), P("hard.wav"), {}},
        {"a symbolic link", P("in.wav"), P("soft.wav"), {}},
        {"through a linked directory", P("in.wav"), P("here/in.wav"), {}},
        {"a link as the input", P("soft.wav"), P("in.wav"), {}},
    };
    for (const auto& [what, in, out, cwd] : cases) {
        SCOPED_TRACE(what);
        ExpectOneErrorLine(RunKesta({"gain", in, out, "--db", "1", "--force"}, cwd), 4, {"refusing to write", "input"});
        EXPECT_EQ(ReadBytes(dir / "in.wav"), original);
        EXPECT_EQ(Names(), before);  // no temporary left behind
    }
}

TEST_F(SafeOutputTest, ExistingOrUnwritableTargetsAreRefusedAndForceReplaces) {
    std::filesystem::create_directory(dir / "folder");
    Audio wide;  // FLAC holds eight channels at most
    wide.channels.assign(9, std::vector<double>(100, 0.0));
    WriteAudio(dir / "wide.wav", wide);
    const std::string in = P("in.wav"), out = P("out.wav");
    ExpectRefusals("",
                   {
                       {{"gain", in, out, "--db", "1"}, 4, {"out.wav", "already exists", "--force"}},
                       {{"gain", in, P("missing/out.wav"), "--db", "1"}, 4, {"missing", "does not exist"}},
                       {{"gain", in, P("folder"), "--db", "1", "--force"}, 4, {"folder", "directory"}},
                       {{"gain", in, "/dev/null", "--db", "1", "--force"}, 4, {"/dev/null", "regular file"}},
                       {{"gain", P("wide.wav"), P("wide.flac"), "--db", "1"}, 2, {"wide.flac", "FLAC", "9 channel"}},
                   });
    EXPECT_TRUE(std::filesystem::is_empty(dir / "folder"));
    const std::vector<std::string> names = Names();

    // The file system refuses the output half-way, as a full disk would.
    ExpectOneErrorLine(RunKesta({"gain", in, out, "--db", "1", "--force"}, {}, 50000), 4,
                       {"cannot write", "out.wav' after frame"});
    EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
    EXPECT_EQ(Names(), names);

    ::chmod(out.c_str(), 0640);
    Ok({"gain", "--force", in, out, "--db", "1"});
    EXPECT_EQ(ReadAudio(dir / "out.wav").Frames(), 48000);
    struct stat info {};
    ASSERT_EQ(::stat(out.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);  // the replaced file's permissions are kept
    EXPECT_EQ(Names(), names);
}

// The input is a pipe that delivers half the file and stalls, so the signal finds kesta mid-write.
TEST_F(SafeOutputTest, InterruptedRunLeavesTheOldFileAndNoTemporary) {
    const std::string audio = ReadBytes(dir / "in.wav");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(::strsignal(signal));
        const std::filesystem::path run = dir / ("run-" + std::to_string(signal));
        std::filesystem::create_directory(run);
        WriteBytes(run / "out.wav", "previous");
        ASSERT_EQ(::mkfifo((run / "pipe.wav").c_str(), 0600), 0);
        RunningKesta kesta({"gain", (run / "pipe.wav").string(), (run / "out.wav").string(), "--db", "1", "--force"});
        std::ofstream pipe(run / "pipe.wav", std::ios::binary);
        pipe.write(audio.data(), std::streamsize(audio.size() / 2));
        pipe.flush();

        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        bool temporarySeen = false;
        while (!temporarySeen && std::chrono::steady_clock::now() < deadline) {
            for (const auto& entry : std::filesystem::directory_iterator(run))
                temporarySeen = temporarySeen || entry.path().filename().string().rfind(".out.wav.kesta-", 0) == 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_TRUE(temporarySeen) << "kesta never created its temporary file";
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it write into the temporary

        ::kill(kesta.Pid(), signal);
        const RunResult result = kesta.Finish();
        pipe.close();
        EXPECT_EQ(result.signal, signal);  // it dies of the signal, as a shell expects
        EXPECT_EQ(ReadBytes(run / "out.wav"), "previous");
        EXPECT_EQ(NamesIn(run), (std::vector<std::string>{"out.wav", "pipe.wav"}));
    }
    EXPECT_EQ(ReadBytes(dir / "in.wav"), audio);
}

// A new name is taken only while it is free: a file put there during the run is replaced only with
// --force (the input stalls in a pipe while the file appears).
TEST_F(SafeOutputTest, AFileThatAppearsDuringTheRunIsReplacedOnlyWithForce) {
    const std::string audio = ReadBytes(dir / "in.wav");
    for (const bool force : {false, true}) {
        SCOPED_TRACE(force ? "--force" : "no --force");
        const std::filesystem::path run = dir / (force ? "forced" : "plain");
        std::filesystem::create_directory(run);
        ASSERT_EQ(::mkfifo((run / "pipe.wav").c_str(), 0600), 0);
        std::vector<std::string> args = {"gain", (run / "pipe.wav").string(), (run / "out.wav").string(), "--db", "1"};
        if (force) args.push_back("--force");
        RunningKesta kesta(args);
        std::ofstream pipe(run / "pipe.wav", std::ios::binary);
        pipe.write(audio.data(), std::streamsize(audio.size() / 2));
        pipe.flush();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (NamesIn(run).size() < 2) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "kesta never created its temporary file";
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        WriteBytes(run / "out.wav", "appeared");
        pipe.write(audio.data() + audio.size() / 2, std::streamsize(audio.size() - audio.size() / 2));
        pipe.close();
        const RunResult result = kesta.Finish();
        if (force) {
            EXPECT_EQ(result.exitCode, 0) << result.err;
            EXPECT_EQ(ReadAudio(run / "out.wav").Frames(), 48000);
        } else {
            ExpectOneErrorLine(result, 4, {"out.wav", "appeared while kesta was writing", "--force"});
            EXPECT_EQ(ReadBytes(run / "out.wav"), "appeared");
        }
        EXPECT_EQ(NamesIn(run), (std::vector<std::string>{"out.wav", "pipe.wav"}));
    }
}

// Permissions as an ordinary user meets them (the tests may run as root, whom none stop): an
// input it may not read, and a directory it may not write into.
TEST_F(SafeOutputTest, PermissionsAreReportedNotWorkedAround) {
    ::chmod(dir.Path().c_str(), 0755);
    ::chmod(P("in.wav").c_str(), 0644);
    WriteAudio(dir / "locked.wav", StereoTone16());
    ::chmod(P("locked.wav").c_str(), 0);
    std::filesystem::create_directory(dir / "shut");
    WriteBytes(dir / "shut" / "out.wav", "previous");
    ::chmod(P("shut/out.wav").c_str(), 0666);
    ::chmod(P("shut").c_str(), 0555);
    const std::string audio = ReadBytes(dir / "in.wav");
    const std::vector<std::string> names = Names();
    // The unprivileged user must reach kesta, its library and this directory; a build tree or a
    // temporary directory private to root hides them (exec fails with 127, or the input is refused).
    if (RunKestaUnprivileged({"info", "--quiet", P("in.wav")}).exitCode != 0)
        GTEST_SKIP() << "kesta or " << dir.Path() << " cannot be reached by an unprivileged user here";

    const std::tuple<std::vector<std::string>, int, std::vector<std::string>> cases[] = {
        {{"gain", P("locked.wav"), P("out.wav"), "--db", "1"}, 3, {"locked.wav", "permission denied"}},
        {{"gain", P("in.wav"), P("shut/new.wav"), "--db", "1"}, 4, {"shut", "permission"}},
        {{"gain", P("in.wav"), P("shut/out.wav"), "--db", "1", "--force"}, 4, {"shut", "permission"}},
    };
    for (const auto& [args, code, mentions] : cases) {
        SCOPED_TRACE(args[2]);
        ExpectOneErrorLine(RunKestaUnprivileged(args), code, mentions);
        EXPECT_EQ(Names(), names);
        EXPECT_EQ(ReadBytes(dir / "in.wav"), audio);
        EXPECT_EQ(std::filesystem::directory_iterator(dir / "shut")->path().filename(), "out.wav");
        EXPECT_EQ(ReadBytes(dir / "shut" / "out.wav"), "previous");
    }
    ::chmod(P("shut").c_str(), 0755);
}

// No test can write the 4 GiB that a WAV holds at most: the limit, and its refusal up front.
TEST_F(SafeOutputTest, ContainersWithASizeLimitRefuseLongAudioUpFront) {
    const kesta::AudioFormat wav{SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2};
    const kesta::AudioFormat flac{SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 48000, 2};
    // 4 bytes a frame: a little under 2^30 frames fit in 4 GiB.
    const auto limit = kesta::BlockWriter::FrameLimit(wav);
    ASSERT_TRUE(limit.has_value());
    EXPECT_LT(*limit, int64_t(1) << 30);
    EXPECT_GT(*limit, (int64_t(1) << 30) - 65536);
    EXPECT_FALSE(kesta::BlockWriter::FrameLimit(flac).has_value());

    const kesta::FileIdentity input = *kesta::IdentityOfPath(P("in.wav"));
    kesta::SafeOutput output(P("long.wav"), {{P("in.wav"), input}}, false);
    kesta::BlockWriter writer(output.Descriptor(), P("long.wav"), wav);
    writer.ExpectFrames(*limit);
    try {
        writer.ExpectFrames(*limit + 1);
        FAIL() << "a WAV longer than 4 GiB was accepted";
    } catch (const kesta::CliError& error) {
        EXPECT_EQ(error.Code(), kesta::kExitOutput);
        EXPECT_NE(error.Message().find(".rf64"), std::string::npos) << error.Message();
    }
}

}  // namespace
}  // namespace kesta_test
