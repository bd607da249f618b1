// What a person types that kesta must read right or refuse clearly, for every command alike:
// mistyped options, numbers in other notations, output names without a format, '-' for the
// standard streams, and --json when the run fails (here and in errors_test).

#include <cstdlib>

#include "cli_test.h"

namespace kesta_test {
namespace {

class CommandLineTest : public CliTest {
protected:
    void SetUp() override { WriteAudio(dir / "in.wav", StereoTone16()); }

    // Runs a shell line (for redirections and pipes) with KESTA set to the binary; stderr is returned.
    std::string Shell(const std::string& line, int& status) const {
        const std::string command =
            "cd '" + dir.Path().string() + "' && KESTA='" KESTA_BINARY "' && " + line + " 2>stderr.txt";
        status = std::system(command.c_str());
        status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        const std::string err = ReadBytes(dir / "stderr.txt");
        std::filesystem::remove(dir / "stderr.txt");
        return err;
    }
};

TEST_F(CommandLineTest, MistypedOptionsAreNamedWithTheNearestRealOne) {
    const std::string in = P("in.wav"), out = P("out.wav");
    ExpectRefusals("",
                   {
                       {{"denoise", in, out, "--nosie", "0:1.5"}, 2, {"unknown option --nosie; did you mean --noise?"}},
                       {{"denoise", "--nosie", "0:1.5", in, out}, 2, {"unknown option --nosie; did you mean --noise?"}},
                       {{"gain", "--json", in, out, "--bd", "3"}, 2, {"unknown option --bd; did you mean --db?"}},
                       {{"eq", in, out, "--higpass=80"}, 2, {"--higpass; did you mean --highpass?"}},
                       {{"geq", in, out, "--gain", "1", "--accu", "50"}, 2, {"--accu; did you mean --accuracy?"}},
                       {{"info", in, "--jsno"}, 2, {"--jsno; did you mean --json?", "kesta info --help"}},
                       {{"gain", in, out, "--db", "1", "-x"}, 2, {"unknown option -x"}},
                       {{"gain", in, out, "--db", "1", "--colour", "red"}, 2, {"unknown option --colour ("}},
                       {{"gian", in, out}, 2, {"unknown command 'gian'; did you mean gain?"}},
                   });
    // Negative numbers, '-' and everything after "--" are values, not options.
    Ok({"gain", "-qf", P("in.wav"), P("out.wav"), "--db", "-6"});
    Ok({"gain", "-q", "--db=-.5", "--force", "--", P("in.wav"), P("out.wav")});
}

TEST_F(CommandLineTest, NumbersArePlainDecimalsAndCountsWholeNumbers) {
    const std::string in = P("in.wav"), out = P("out.wav");
    ExpectRefusals("",
                   {
                       {{"denoise", in, out, "--noise", "0:0.5", "--reduction", "0x10"}, 2, {"--reduction 0x10"}},
                       {{"gain", in, out, "--db", "0x1p3", "--json"}, 2, {"--db 0x1p3", "decimal"}},
                       {{"gain", in, out, "--db", "1,5"}, 2, {"--db 1,5", "kesta gain --help"}},
                       {{"gain", in, out, "--db", "infinity"}, 2, {"--db infinity"}},
                       {{"denoise", in, out, "--noise", "0x0:0.5"}, 2, {"--noise"}},
                       {{"denoise", in, out, "--noise", "0:0.5", "--fft-size", "4096.5"}, 2, {"not a whole number"}},
                       {{"geq", in, out, "--gains", "0x3,0,0,0,0,0,0,0,0,0"}, 2, {"0x3"}},
                       {{"geq", in, out, "--bands", "1e12"}, 2, {"--bands 1e12"}},
                   });
    // A whole number written with a fraction or an exponent is that number.
    Ok({"denoise", "-q", in, P("a.wav"), "--noise", "0:0.5", "--fft-size", "4096.0", "--reduction", "1.6e1"});
    Ok({"denoise", "-q", in, P("b.wav"), "--noise", "0:0.5", "--fft-size", "4096", "--reduction", "16"});
    EXPECT_EQ(ReadBytes(dir / "a.wav"), ReadBytes(dir / "b.wav"));
}

TEST_F(CommandLineTest, AnOutputNameMustSayAFormatKestaKnows) {
    ExpectRefusals("", {{{"gain", P("in.wav"), P("out.raw"), "--db", "0"}, 2, {"out.raw", "'.raw'", ".wav", ".flac"}},
                        {{"gain", P("in.wav"), P("take.v2"), "--db", "0"}, 2, {"'.v2'"}}});
    Ok({"gain", "-q", P("in.wav"), P("OUT.WAV"), "--db", "0"});  // case does not matter
    EXPECT_EQ(ReadAudio(dir / "OUT.WAV").channels, StereoTone16().channels);
}

TEST_F(CommandLineTest, DashIsStandardInputAndOutput) {
    Ok({"gain", "-q", P("in.wav"), P("ref.wav"), "--db", "-6"});
    const std::string expected = ReadBytes(dir / "ref.wav");

    // To standard output: the file's bytes, the summary on stderr, no file named '-'.
    const RunResult run = RunKesta({"gain", P("in.wav"), "-", "--db", "-6"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out == expected);
    EXPECT_NE(run.err.find("Wrote"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir / "-"));

    // From a pipe and from a redirected file, to a pipe.
    int status = -1;
    Shell("cat in.wav | \"$KESTA\" gain -q - piped.wav --db -6", status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(ReadBytes(dir / "piped.wav") == expected);
    Shell("\"$KESTA\" gain -q - - --db -6 <in.wav | cat >both.wav", status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(ReadBytes(dir / "both.wav") == expected);
    std::string err = Shell("\"$KESTA\" info - <in.wav >info.txt", status);
    EXPECT_EQ(status, 0) << err;
    EXPECT_NE(ReadBytes(dir / "info.txt").find("48000 frames"), std::string::npos);

    // A command that reads its input twice cannot take it from a pipe; standard input is read once.
    err = Shell("cat in.wav | \"$KESTA\" denoise - x.wav --noise 0:0.5", status);
    EXPECT_EQ(status, 3);
    EXPECT_NE(err.find("twice"), std::string::npos) << err;
    err = Shell("\"$KESTA\" denoise - x.wav --noise-file - <in.wav", status);
    EXPECT_EQ(status, 2) << err;
    EXPECT_NE(err.find("standard input"), std::string::npos) << err;
    // Appending the output to the input would destroy it.
    err = Shell("\"$KESTA\" gain in.wav - --db 1 >>in.wav", status);
    EXPECT_EQ(status, 4);
    EXPECT_NE(err.find("input"), std::string::npos) << err;
    EXPECT_TRUE(ReadAudio(dir / "in.wav").channels == StereoTone16().channels);
    EXPECT_FALSE(std::filesystem::exists(dir / "x.wav"));
}

}  // namespace
}  // namespace kesta_test
