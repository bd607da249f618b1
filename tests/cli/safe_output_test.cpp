// Never onto the input, never over an existing file without --force, never a partial file or a
// stray temporary, whatever ends the run.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "cli_test.h"

namespace kesta_test {
namespace {

class SafeOutputTest : public CliTest {
protected:
    void SetUp() override { WriteAudio(dir / "in.wav", StereoTone16()); }
    std::vector<std::string> Names() const { return dir.Names(); }
};

TEST_F(SafeOutputTest, ReplacesAnExistingFileOnlyWithForce) {
    WriteBytes(dir / "out.wav", "precious");
    ::chmod(P("out.wav").c_str(), 0640);

    ExpectOneErrorLine(RunKesta({"gain", P("in.wav"), P("out.wav"), "--db", "1"}), 4,
                       {"out.wav", "already exists", "--force"});
    EXPECT_EQ(ReadBytes(dir / "out.wav"), "precious");
    EXPECT_EQ(Names(), (std::vector<std::string>{"in.wav", "out.wav"}));

    const RunResult forced = RunKesta({"gain", "--force", P("in.wav"), P("out.wav"), "--db", "1"});
    ASSERT_EQ(forced.exitCode, 0) << forced.err;
    EXPECT_EQ(ReadAudio(dir / "out.wav").Frames(), 48000);
    struct stat info {};
    ASSERT_EQ(::stat(P("out.wav").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);  // the replaced file's permissions are kept
    EXPECT_EQ(Names(), (std::vector<std::string>{"in.wav", "out.wav"}));
}

TEST_F(SafeOutputTest, NeverWritesOntoTheInputEvenWithForce) {
    const std::string original = ReadBytes(dir / "in.wav");
    ASSERT_EQ(::link(P("in.wav").c_str(), P("hard.wav").c_str()), 0);
    ASSERT_EQ(::symlink("in.wav", P("soft.wav").c_str()), 0);
    ASSERT_EQ(::symlink(".", P("here").c_str()), 0);
    const std::vector<std::string> before = Names();

    struct Case {
        const char* what;
        std::vector<std::string> args;
        std::filesystem::path cwd;
    };
    const Case cases[] = {
        {"the same path", {"gain", P("in.wav"), P("in.wav"), "--db", "1", "--force"}, {}},
        {"./ spelling", {"gain", "in.wav", "./in.wav", "--db", "1", "--force"}, dir.Path()},
        {"a hard link", {"gain", P("in.wav"), P("hard.wav"), "--db", "1", "--force"}, {}},
        {"a symbolic link", {"gain", P("in.wav"), P("soft.wav"), "--db", "1", "--force"}, {}},
        {"through a linked directory", {"gain", P("in.wav"), P("here/in.wav"), "--db", "1", "--force"}, {}},
        {"a link as the input", {"gain", P("soft.wav"), P("in.wav"), "--db", "1", "--force"}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ExpectOneErrorLine(RunKesta(c.args, c.cwd), 4, {"refusing to write", "input"});
        EXPECT_EQ(ReadBytes(dir / "in.wav"), original);
        EXPECT_EQ(Names(), before);  // no temporary left behind
    }
}

TEST_F(SafeOutputTest, UnwritableTargetsFailBeforeAnythingIsWritten) {
    std::filesystem::create_directory(dir / "folder");
    ExpectOneErrorLine(RunKesta({"gain", P("in.wav"), P("missing/out.wav"), "--db", "1"}), 4,
                       {"missing", "does not exist"});
    ExpectOneErrorLine(RunKesta({"gain", P("in.wav"), P("folder"), "--db", "1", "--force"}), 4,
                       {"folder", "directory"});
    ExpectOneErrorLine(RunKesta({"gain", P("in.wav"), "/dev/null", "--db", "1", "--force"}), 4,
                       {"/dev/null", "regular file"});
    EXPECT_EQ(Names(), (std::vector<std::string>{"folder", "in.wav"}));
    EXPECT_TRUE(std::filesystem::is_empty(dir / "folder"));
}

TEST_F(SafeOutputTest, AFailedWriteLeavesTheOldFileAndNoTemporary) {
    // The file system refuses the output half-way, as a full disk would.
    WriteBytes(dir / "out.wav", "previous");
    const RunResult run = RunKesta({"gain", P("in.wav"), P("out.wav"), "--db", "1", "--force"}, {}, 50000);
    ExpectOneErrorLine(run, 4, {"cannot write", "out.wav' after frame"});
    EXPECT_EQ(ReadBytes(dir / "out.wav"), "previous");
    EXPECT_EQ(Names(), (std::vector<std::string>{"in.wav", "out.wav"}));
}

TEST_F(SafeOutputTest, AnOutputFormatThatCannotHoldTheInputIsRefusedUpFront) {
    Audio wide;  // FLAC holds eight channels at most
    wide.channels.assign(9, std::vector<double>(100, 0.0));
    WriteAudio(dir / "wide.wav", wide);
    ExpectOneErrorLine(RunKesta({"gain", P("wide.wav"), P("wide.flac"), "--db", "1"}), 2,
                       {"wide.flac", "FLAC", "9 channel"});
    EXPECT_EQ(Names(), (std::vector<std::string>{"in.wav", "wide.wav"}));
}

TEST_F(SafeOutputTest, InterruptedRunLeavesTheOldFileAndNoTemporary) {
    // The input is a pipe that delivers half the file and stalls: the signal finds kesta mid-write.
    WriteBytes(dir / "out.wav", "previous");
    ASSERT_EQ(::mkfifo(P("pipe.wav").c_str(), 0600), 0);
    RunningKesta kesta({"gain", P("pipe.wav"), P("out.wav"), "--db", "1", "--force"});
    std::ofstream pipe(dir / "pipe.wav", std::ios::binary);
    const std::string audio = ReadBytes(dir / "in.wav");
    pipe.write(audio.data(), std::streamsize(audio.size() / 2));
    pipe.flush();

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool temporarySeen = false;
    while (!temporarySeen && std::chrono::steady_clock::now() < deadline) {
        for (const std::string& name : Names())
            temporarySeen = temporarySeen || name.rfind(".out.wav.kesta-", 0) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(temporarySeen) << "kesta never created its temporary file";
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it write into the temporary

    ::kill(kesta.Pid(), SIGTERM);
    const RunResult run = kesta.Finish();
    pipe.close();
    EXPECT_EQ(run.signal, SIGTERM);  // it dies of the signal, as a shell expects
    EXPECT_EQ(ReadBytes(dir / "out.wav"), "previous");
    EXPECT_EQ(Names(), (std::vector<std::string>{"in.wav", "out.wav", "pipe.wav"}));
}

}  // namespace
}  // namespace kesta_test
