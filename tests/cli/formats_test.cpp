// Files as people bring them: lossy sources written to lossless containers.

#include "cli_test.h"
#include "errors.h"
#include "io/audio_format.h"

namespace kesta_test {
namespace {

class FormatsTest : public CliTest {};

bool CanWrite(int format) {
    SF_INFO info{0, 48000, 2, format, 0, 0};
    return sf_format_check(&info) != 0;
}

int Encoding(int format) {
    return format & SF_FORMAT_SUBMASK;
}

TEST_F(FormatsTest, LossyInputsAreWrittenAsPcmOrFloatToLosslessContainers) {
    std::vector<std::string> inputs = {"in.ogg"};
    Audio tone = StereoTone16();
    tone.format = SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    WriteAudio(dir / "in.ogg", tone);
    if (CanWrite(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III)) {
        tone.format = SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
        WriteAudio(dir / "in.mp3", tone);
        inputs.push_back("in.mp3");
    }
    for (const std::string& in : inputs)
        for (const char* ext : {".wav", ".aiff", ".flac", ".caf", ".w64", ".au", ".rf64"}) {
            const std::string out = in + ext;
            SCOPED_TRACE(out);
            Ok({"gain", "-q", P(in), P(out), "--db", "0"});
            const Audio written = ReadAudio(dir / out);
            EXPECT_TRUE(Encoding(written.format) == SF_FORMAT_PCM_16 || Encoding(written.format) == SF_FORMAT_PCM_24 ||
                        Encoding(written.format) == SF_FORMAT_FLOAT)
                << std::hex << written.format;
            EXPECT_EQ(written.Frames(), ReadAudio(dir / in).Frames());
        }
}

// Every encoding libsndfile writes, as input, against every output extension: the chosen format
// must open for writing, or be refused in a line that says why (never a failure at write time).
TEST_F(FormatsTest, EveryFormatChosenForAnOutputCanBeWritten) {
    int majors = 0, subtypes = 0;
    sf_command(nullptr, SFC_GET_FORMAT_MAJOR_COUNT, &majors, sizeof(int));
    sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE_COUNT, &subtypes, sizeof(int));
    std::vector<int> inputs;  // each encoding once, in the first container that holds it
    for (int s = 0; s < subtypes; ++s) {
        SF_FORMAT_INFO subtype{s, nullptr, nullptr};
        sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE, &subtype, sizeof(subtype));
        for (int m = 0; m < majors; ++m) {
            SF_FORMAT_INFO major{m, nullptr, nullptr};
            sf_command(nullptr, SFC_GET_FORMAT_MAJOR, &major, sizeof(major));
            if (CanWrite(major.format | subtype.format)) {
                inputs.push_back(major.format | subtype.format);
                break;
            }
        }
    }
    ASSERT_GT(inputs.size(), 10u);
    const std::string probe = P("probe");
    for (int input : inputs)
        for (const char* ext : {"wav", "rf64", "w64", "aiff", "caf", "flac", "au", "ogg", "opus", "mp3"}) {
            SCOPED_TRACE(std::string(ext) + " from " + kesta::DescribeFormat(input));
            kesta::AudioFormat chosen;
            try {
                chosen = kesta::ChooseOutputFormat({input, 48000, 2}, probe + "." + ext);
            } catch (const kesta::CliError& refused) {
                EXPECT_EQ(refused.Code(), kesta::kExitUsage);
                continue;
            }
            const bool lossy = Encoding(input) == SF_FORMAT_VORBIS || Encoding(input) == SF_FORMAT_OPUS ||
                               Encoding(input) == SF_FORMAT_MPEG_LAYER_III;
            if (lossy && IntegerBits(chosen.sndfileFormat) == 0 &&
                (chosen.sndfileFormat & SF_FORMAT_TYPEMASK) != SF_FORMAT_OGG &&
                (chosen.sndfileFormat & SF_FORMAT_TYPEMASK) != SF_FORMAT_MPEG) {
                EXPECT_EQ(Encoding(chosen.sndfileFormat), SF_FORMAT_FLOAT) << "a lossless container holds PCM or float";
            }
            SF_INFO info{0, chosen.sampleRate, chosen.channels, chosen.sndfileFormat, 0, 0};
            SNDFILE* file = sf_open(probe.c_str(), SFM_WRITE, &info);
            EXPECT_NE(file, nullptr) << kesta::DescribeFormat(chosen.sndfileFormat) << ": " << sf_strerror(nullptr);
            if (file != nullptr) sf_close(file);
        }
}

}  // namespace
}  // namespace kesta_test
