// What a person types that kesta must read right or refuse clearly, for every command alike:
// mistyped options, numbers in other notations, output names without a format, and --json when
// the run fails.

#include "cli_test.h"

namespace kesta_test {
namespace {

class CommandLineTest : public CliTest {
protected:
    void SetUp() override { WriteAudio(dir / "in.wav", StereoTone16()); }
};

TEST_F(CommandLineTest, MistypedOptionsAreNamedWithTheNearestRealOne) {
    const std::string in = P("in.wav"), out = P("out.wav");
    ExpectRefusals("",
                   {
                       {{"denoise", in, out, "--nosie", "0:1.5"}, 2, {"unknown option --nosie; did you mean --noise?"}},
                       {{"denoise", "--nosie", "0:1.5", in, out}, 2, {"unknown option --nosie; did you mean --noise?"}},
                       {{"gain", in, out, "--bd", "3"}, 2, {"unknown option --bd; did you mean --db?"}},
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
                       {{"gain", in, out, "--db", "0x1p3"}, 2, {"--db 0x1p3", "decimal"}},
                       {{"gain", in, out, "--db", "1,5"}, 2, {"--db 1,5"}},
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

TEST_F(CommandLineTest, JsonReportsAFailureAsAnErrorObject) {
    ExpectRefusals("", {{{"gain", "--json", P("in.wav"), P("new.wav"), "--bd", "1"}, 2, {"--bd"}},
                        {{"gain", P("in.wav"), P("new.wav"), "--db", "0x10", "--json"}, 2, {"0x10"}},
                        {{"info", "--json", P("missing.wav")}, 3, {"missing.wav"}},
                        {{"gain", "--json", P("in.wav"), P("out.wav"), "--db", "1"}, 4, {"already exists"}}});
}

}  // namespace
}  // namespace kesta_test
