// Files as people bring them: lossy sources written to lossless containers, files cut short by an
// interrupted copy, and markers and production data that must survive a run.

#include <cstring>

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

std::string Warnings(const JsonValue& report) {
    std::string all;
    for (const JsonValue& warning : report["warnings"].array)
        all += warning.string + "\n";
    return all;
}

TEST_F(FormatsTest, FilesCutShortAreFlaggedAndWholeOnesAreNot) {
    Audio wav = StereoTone16();
    Audio aiff = StereoTone16();
    aiff.format = SF_FORMAT_AIFF | SF_FORMAT_PCM_24;
    Audio rf64 = StereoTone16();
    rf64.format = SF_FORMAT_RF64 | SF_FORMAT_FLOAT;
    Audio ogg = StereoTone16();
    ogg.format = SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    const std::pair<std::string, Audio> files[] = {{"a.wav", wav}, {"a.aiff", aiff}, {"a.rf64", rf64}, {"a.ogg", ogg}};
    std::vector<std::string> cut;
    for (const auto& [name, audio] : files) {
        WriteAudio(dir / name, audio);
        const std::string bytes = ReadBytes(dir / name);
        WriteBytes(dir / ("cut-" + name), bytes.substr(0, bytes.size() * 3 / 5));
        cut.push_back("cut-" + name);
        EXPECT_EQ(Warnings(Report({"info", P(name)})), "") << name;
    }
    // An Ogg stream cut exactly between two pages: every page whole, the end-of-stream page missing.
    const std::string stream = ReadBytes(dir / "a.ogg");
    WriteBytes(dir / "paged.ogg", stream.substr(0, stream.rfind("OggS")));
    cut.push_back("paged.ogg");

    for (const std::string& name : cut) {
        SCOPED_TRACE(name);
        EXPECT_NE(Warnings(Report({"info", P(name)})).find("truncated"), std::string::npos);
    }
    const RunResult run = RunKesta({"gain", P("cut-a.wav"), P("out.wav"), "--db", "0"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.err.find("truncated"), std::string::npos) << run.err;
}

// A broadcast-style WAV as an editor writes it: cue points named in a LIST/adtl chunk, and iXML.
std::string Chunk(const std::string& id, const std::string& data) {
    std::string chunk = id;
    for (int i = 0; i < 4; ++i)
        chunk += char(data.size() >> (8 * i) & 0xFF);
    chunk += data;
    if (data.size() % 2) chunk += '\0';
    return chunk;
}

std::string Le32(uint32_t v) {
    return std::string{char(v & 0xFF), char(v >> 8 & 0xFF), char(v >> 16 & 0xFF), char(v >> 24 & 0xFF)};
}

constexpr const char* kIxml = "<?xml version=\"1.0\"?><BWFXML><PROJECT>Take</PROJECT><SCENE>12A</SCENE></BWFXML>";

std::string MarkedWave() {
    std::string format =
        std::string("\x01\x00\x02\x00", 4) + Le32(48000) + Le32(192000) + std::string("\x04\x00\x10\x00", 4);
    std::string data;
    for (int i = 0; i < 4800 * 2; ++i)
        data += std::string{char(i & 0xFF), char(i >> 8 & 0x0F)};
    std::string cue = Le32(2);
    for (const auto& [id, frame] : {std::pair{1u, 100u}, {2u, 2000u}})
        cue += Le32(id) + Le32(frame) + "data" + Le32(0) + Le32(0) + Le32(frame);
    const std::string labels =
        Chunk("labl", Le32(1) + std::string("Verse", 6)) + Chunk("labl", Le32(2) + std::string("Chorus", 7));
    const std::string body = "WAVE" + Chunk("fmt ", format) + Chunk("iXML", kIxml) + Chunk("data", data) +
                             Chunk("cue ", cue) + Chunk("LIST", "adtl" + labels);
    return "RIFF" + Le32(uint32_t(body.size())) + body;
}

struct Kept {
    std::vector<std::pair<int64_t, std::string>> markers;
    std::string ixml;
};

Kept ReadKept(const std::filesystem::path& path) {
    Kept kept;
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) return kept;
    SF_CUES cues{};
    if (sf_command(file, SFC_GET_CUE, &cues, sizeof(cues)) == SF_TRUE)
        for (uint32_t i = 0; i < cues.cue_count; ++i)
            kept.markers.emplace_back(cues.cue_points[i].sample_offset, cues.cue_points[i].name);
    SF_CHUNK_INFO wanted{};
    std::strcpy(wanted.id, "iXML");
    wanted.id_size = 4;
    if (SF_CHUNK_ITERATOR* it = sf_get_chunk_iterator(file, &wanted)) {
        SF_CHUNK_INFO chunk{};
        sf_get_chunk_size(it, &chunk);
        kept.ixml.assign(chunk.datalen, '\0');
        chunk.data = kept.ixml.data();
        sf_get_chunk_data(it, &chunk);
        kept.ixml.resize(std::strlen(kept.ixml.c_str()));  // the chunk may be padded with zeros
    }
    sf_close(file);
    return kept;
}

TEST_F(FormatsTest, MarkersAndIxmlAreKeptOrTheirLossIsSaid) {
    WriteBytes(dir / "in.wav", MarkedWave());
    const Kept original = ReadKept(dir / "in.wav");
    ASSERT_EQ(original.markers.size(), 2u);  // the fixture reads as intended
    for (const char* out : {"out.wav", "out.aiff"}) {
        SCOPED_TRACE(out);
        const JsonValue report = Report({"gain", P("in.wav"), P(out), "--db", "0"});
        EXPECT_EQ(Warnings(report), "");
        const Kept kept = ReadKept(dir / out);
        EXPECT_EQ(kept.markers, (std::vector<std::pair<int64_t, std::string>>{{100, "Verse"}, {2000, "Chorus"}}));
        EXPECT_EQ(kept.ixml, kIxml);
        EXPECT_EQ(ReadAudio(dir / out).channels, ReadAudio(dir / "in.wav").channels);
    }
    const std::string warnings = Warnings(Report({"gain", P("in.wav"), P("out.flac"), "--db", "0"}));
    EXPECT_NE(warnings.find("2 markers"), std::string::npos) << warnings;
    EXPECT_NE(warnings.find("iXML"), std::string::npos) << warnings;
}

}  // namespace
}  // namespace kesta_test
