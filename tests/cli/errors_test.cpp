// One line naming the problem and an exit status a script can tell apart (2 usage, 3 input,
// 4 output); the help, the version and the self-check: what a person tries first.

#include <sys/stat.h>
#include <unistd.h>

#include "cli_test.h"

namespace kesta_test {
namespace {

class ErrorsTest : public CliTest {};

TEST_F(ErrorsTest, BadInputsAreInputErrorsEvenWhenQuiet) {
    std::filesystem::create_directory(dir / "folder");
    WriteBytes(dir / "empty.wav", "");
    WriteBytes(dir / "notes.txt", "Not audio at all, just a few words of text in a file.\n");
    WriteAudio(dir / "cut.flac", ToneAndSilence24Flac());  // cut short: it fails to decode to the end
    const std::string flac = ReadBytes(dir / "cut.flac");
    WriteBytes(dir / "cut.flac", flac.substr(0, flac.size() / 2));
    WriteAudio(dir / "locked.wav", StereoTone16());
    ::chmod(P("locked.wav").c_str(), 0);

    std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"missing.wav", {"missing.wav", "no such file"}},
        {"folder", {"folder", "directory"}},
        {"empty.wav", {"empty.wav", "empty"}},
        {"notes.txt", {"notes.txt", "as audio", "audio file"}},
        {"cut.flac", {"cut.flac", "damaged"}},
    };
    if (::geteuid() != 0)  // root reads files whatever their permissions
        cases.push_back({"locked.wav", {"locked.wav", "permission denied"}});
    for (const auto& [name, mentions] : cases) {
        SCOPED_TRACE(name);
        ExpectOneErrorLine(RunKesta({"info", "--quiet", P(name)}), 3, mentions);
        ExpectOneErrorLine(RunKesta({"gain", P(name), P("out.wav"), "--db", "1"}), 3, mentions);
        EXPECT_FALSE(std::filesystem::exists(dir / "out.wav"));
    }
}

// Usage errors (2), and with --json the same failure as an error object whatever its status.
TEST_F(ErrorsTest, WrongCommandLinesAreUsageErrors) {
    WriteAudio(dir / "in.wav", StereoTone16());
    const std::string in = P("in.wav"), out = P("out.wav");
    ExpectRefusals("", {
                           {{"polish", in, out}, 2, {"unknown command 'polish'", "kesta --help"}},
                           {{"gain", in, out}, 2, {"--db", "kesta gain --help"}},
                           {{"gain", in, out, "--db", "1000"}, 2, {"--db", "out of range"}},
                           {{"gain", in, out, "--db", "nan"}, 2, {"--db"}},
                           {{"gain", in, "--db", "1"}, 2, {"OUTPUT"}},
                           {{"gain", in, out, "extra", "--db", "1"}, 2, {"extra"}},
                           {{"info", in, "--loud"}, 2, {"--loud", "kesta info --help"}},
                           {{"info"}, 2, {"FILE", "kesta info --help"}},
                           {{"info", "--json", P("missing.wav")}, 3, {"missing.wav"}},
                           {{"gain", "--json", in, out, "--db", "1"}, 4, {"already exists"}},
                       });
}

TEST_F(ErrorsTest, HelpAndVersion) {
    const RunResult top = RunKesta({"--help"});
    EXPECT_EQ(top.exitCode, 0);
    for (const char* word : {"selfcheck", "info", "gain", "denoise", "dehiss", "eq", "geq", "Exit status"})
        EXPECT_NE(top.out.find(word), std::string::npos) << word;
    const RunResult gain = RunKesta({"gain", "--help"});
    EXPECT_EQ(gain.exitCode, 0);
    for (const char* word : {"INPUT", "OUTPUT", "--db", "--force", "--quiet", "--json"})
        EXPECT_NE(gain.out.find(word), std::string::npos) << word;
    const RunResult bare = RunKesta({});
    EXPECT_EQ(bare.exitCode, 2);
    EXPECT_NE(bare.out.find("kesta COMMAND --help"), std::string::npos);

    const RunResult run = RunKesta({"--version"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out.substr(0, run.out.find('\n')), std::string("kesta ") + KESTADSP_VERSION);
    EXPECT_NE(run.out.find(std::string("KestaDSP library ") + KESTADSP_VERSION), std::string::npos) << run.out;
}

// kesta selfcheck: one row per library check, closed by "N passed, M failed"; all pass, exit 0.
TEST_F(ErrorsTest, SelfcheckPassesEveryCheckAndSaysHowMany) {
    const JsonValue report = Report({"selfcheck"});
    ASSERT_FALSE(report["checks"].array.empty());
    for (const JsonValue& check : report["checks"].array)
        EXPECT_TRUE(check["passed"].boolean) << check["check"].string;
    const std::vector<std::string> lines = Lines(Ok({"selfcheck"}).out);
    EXPECT_EQ(lines.size(), report["checks"].array.size() + 2);  // a heading and the count
    EXPECT_EQ(lines.back(), std::to_string(report["checks"].array.size()) + " passed, 0 failed");

    const RunResult quiet = RunKesta({"selfcheck", "--quiet"});
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.out + quiet.err, "");
}

}  // namespace
}  // namespace kesta_test
