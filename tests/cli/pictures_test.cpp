// kesta spectrogram and kesta waveform: PNGs that decode at the size asked for, a spectrogram whose
// levels match a sine's amplitude, marks read from the repair tools' own reports, and wrong
// command lines refused in one line with no picture written.

#include <cairo.h>

#include <cmath>
#include <limits>

#include "cli_test.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pictures/cairo_library.h"
#include "pictures/marks.h"
#include "pictures/spectrogram_image.h"
#include "pipeline/progress.h"

namespace kesta_test {
namespace {

class PicturesTest : public CliTest {};

// The PNG's size as cairo decodes it; {0, 0} when it does not decode.
std::pair<int, int> PngSize(const std::filesystem::path& path) {
    cairo_surface_t* image = cairo_image_surface_create_from_png(path.c_str());
    std::pair<int, int> size{0, 0};
    if (cairo_surface_status(image) == CAIRO_STATUS_SUCCESS)
        size = {cairo_image_surface_get_width(image), cairo_image_surface_get_height(image)};
    cairo_surface_destroy(image);
    return size;
}

TEST_F(PicturesTest, PicturesDecodeAtTheSizeAsked) {
    WriteAudio(dir / "in.wav", StereoTone16());
    WriteAudio(dir / "other.flac", ToneAndSilence24Flac());  // another rate and channel count
    WriteBytes(dir / "clicks.csv",
               "channel,start_frame,start_seconds,length_frames,length_ms,repaired\n"
               "2,1234,0.025708,3,0.062,yes\n");
    struct Case {
        std::vector<std::string> args;
        int width, height;
    };
    const Case cases[] = {
        {{"spectrogram", P("in.wav"), P("a.png")}, 1200, 600},
        {{"spectrogram", P("in.wav"), P("b.png"), "--compare", P("other.flac"), "--scale", "linear", "--window", "hann",
          "--fft-size", "512", "--range", "90", "--width", "640", "--height", "480"},
         640,
         480},
        {{"waveform", P("in.wav"), P("c.PNG"), "--marks", P("clicks.csv"), "--width", "300"}, 300, 600},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[2]);
        const JsonValue report = Report(c.args);
        EXPECT_EQ(PngSize(c.args[2]), std::make_pair(c.width, c.height));
        EXPECT_EQ(report["width"].number, c.width);
    }
    EXPECT_EQ(Report({"waveform", P("in.wav"), P("d.png"), "--marks", P("clicks.csv")})["clicks_marked"].number, 1);
}

TEST_F(PicturesTest, SpectrogramReadsASineAtItsLevel) {
    // A sine at the centre of bin 93 (2048-point frames at 48 kHz), 0.5 of full scale: -6.02 dBFS.
    const double hz = 93.0 * 48000.0 / 2048.0;
    Audio audio;
    audio.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    audio.channels = {Sine(24000, 48000, hz, 0.5, 0.0, 0)};
    WriteAudio(dir / "sine.wav", audio);

    for (unsigned int window : {dsp::kWindowHann, dsp::kWindowBlackmanHarris, dsp::kWindowKaiser180}) {
        SCOPED_TRACE(window);
        kesta::BlockReader reader((dir / "sine.wav").string());
        kesta::Progress progress("", std::nullopt, 48000, false);
        const kesta::AxisScale scale{0.0, 24000.0, false};
        kesta::SpectrogramSettings settings;
        settings.window = window;
        const int rows = 1024;  // one bin per row
        // Twice the file's length: the right half lies past its end.
        const kesta::LevelGrid grid =
            kesta::MeasureSpectrogram(reader, 24000, 1.0, scale, 40, rows, settings, progress);
        const int row = rows - 1 - int(hz / 24000.0 * rows);
        for (int column : {5, 10, 15}) {
            EXPECT_NEAR(grid.At(column, row), 20.0 * std::log10(0.5), 0.05);
            EXPECT_LT(grid.At(column, row - 100), -90.0);  // 2.3 kHz above
            EXPECT_TRUE(std::isnan(grid.At(column + 20, row)));
        }
    }
}

TEST_F(PicturesTest, MarksFromTheRepairToolsReports) {
    // Clicks on the second channel for declick, flat tops on the first for declip: their reports,
    // CSV and JSON, read back with as many marks as they list.
    Audio clicks, clipped;
    clicks.rate = clipped.rate = 44100;
    clicks.channels = {Sine(44100, 44100, 220.0, 0.3, 0.0, 16), Sine(44100, 44100, 330.0, 0.3, 0.0, 16)};
    for (auto& channel : clicks.channels)
        for (std::size_t n = 0; n < 441; ++n)  // faded in, as a recording starts
            channel[n] *= double(n) / 441.0;
    for (int64_t at : {9000, 21000, 33000})
        clicks.channels[1][std::size_t(at)] += 0.5;
    clipped.channels = {Sine(44100, 44100, 220.0, 0.9, 0.0, 16), std::vector<double>(44100, 0.0)};
    for (double& x : clipped.channels[0])
        x = std::clamp(x, -0.7, 0.7);
    WriteAudio(dir / "clicks.wav", clicks);
    WriteAudio(dir / "clipped.wav", clipped);
    for (const std::string ext : {"csv", "json"}) {
        Ok({"declick", P("clicks.wav"), "--detect-only", "--report", P("clicks." + ext), "-q"});
        Ok({"declip", P("clipped.wav"), P("fixed-" + ext + ".wav"), "--report", P("clips." + ext), "-q"});
        kesta::Marks marks;
        kesta::ReadMarks(P("clicks." + ext), marks);
        kesta::ReadMarks(P("clips." + ext), marks);
        EXPECT_GE(marks.clicks.size(), 3u) << ext;
        for (const kesta::Mark& click : marks.clicks)
            EXPECT_EQ(click.channel, 2);
        EXPECT_GE(marks.clips.size(), 40u) << ext;  // both half-waves of 20 periods
        for (const kesta::Mark& clip : marks.clips)
            EXPECT_EQ(clip.channel, 1);
        const JsonValue report = Report({"waveform", P("clipped.wav"), P(ext + ".png"), "--marks", P("clicks." + ext),
                                         "--marks", P("clips." + ext)});
        EXPECT_EQ(report["clicks_marked"].number, double(marks.clicks.size()));
        EXPECT_EQ(report["clipped_runs_marked"].number, double(marks.clips.size()));
    }

    const std::string bad[] = {"",
                               "channel,begin,length\n1,2,3\n",
                               "channel,start,start_seconds,length,repaired\n1,2,0.1\n",
                               "channel,start,start_seconds,length,repaired\n0,2,0.1,3,yes\n",
                               "channel,start,start_seconds,length,repaired\n1,2.5,0.1,3,yes\n",
                               "[{\"channel\": 1, \"start\": 5}]",
                               "{\"sample_rate\": 44100, \"clicks\": [{\"channel\": 1, \"start_frame\": 5,",
                               "{\"clicks\": {}}"};
    for (const std::string& text : bad) {
        kesta::Marks marks;
        EXPECT_THROW(kesta::ParseMarks(text, "r", marks), kesta::CliError) << text;
    }
}

TEST_F(PicturesTest, WrongCommandLinesWriteNoPicture) {
    WriteAudio(dir / "in.wav", StereoTone16());
    Audio one = StereoTone16();
    for (auto& channel : one.channels)
        channel.resize(1);
    WriteAudio(dir / "one.wav", one);
    Audio empty = one;
    for (auto& channel : empty.channels)
        channel.clear();
    WriteAudio(dir / "empty.wav", empty);
    WriteBytes(dir / "far.csv", "channel,start,start_seconds,length,repaired\n1,48000,1.0,3,no\n");
    WriteBytes(dir / "third.csv", "channel,start,start_seconds,length,repaired\n3,100,0.1,3,no\n");
    const std::string out = P("out.png");
    ExpectRefusals(
        "", {{{"spectrogram", P("missing.wav"), out}, 3, {"missing.wav"}},
             {{"spectrogram", P("empty.wav"), out}, 3, {"empty.wav", "no audio"}},
             {{"waveform", P("one.wav"), out}, 3, {"one.wav", "single frame"}},
             {{"spectrogram", P("in.wav"), out, "--compare", P("one.wav")}, 3, {"one.wav"}},
             {{"spectrogram", P("in.wav"), out, "--width", "0"}, 2, {"--width 0"}},
             {{"waveform", P("in.wav"), out, "--height", "0"}, 2, {"--height 0"}},
             {{"spectrogram", P("in.wav"), out, "--compare", P("in.wav"), "--height", "300"}, 2, {"--height 300"}},
             {{"spectrogram", P("in.wav"), out, "--fft-size", "1000"}, 2, {"--fft-size 1000"}},
             {{"spectrogram", P("in.wav"), out, "--range", "0"}, 2, {"--range 0"}},
             {{"spectrogram", P("in.wav"), out, "--scale", "mel"}, 2, {"mel"}},
             {{"spectrogram", P("in.wav"), out, "--window", "han"}, 2, {"han", "hann"}},
             {{"spectrogram", P("in.wav"), P("out.jpg")}, 2, {"PNG"}},
             {{"waveform", P("in.wav"), out, "--marks", P("none.csv")}, 3, {"none.csv"}},
             {{"waveform", P("in.wav"), out, "--marks", P("far.csv")}, 3, {"far.csv", "past its end"}},
             {{"waveform", P("in.wav"), out, "--marks", P("third.csv"), "--json"}, 3, {"channel 3"}},
             {{"waveform", P("in.wav"), P("in.wav"), "--force"}, 2, {"PNG"}},
             {{"waveform", P("in.wav"), P("out.wav"), "--force"}, 2, {"PNG"}}});
    // An existing picture is kept without --force.
    WriteBytes(dir / "old.png", "old");
    ExpectOneErrorLine(RunKesta({"waveform", P("in.wav"), P("old.png")}), 4, {"old.png"});
    EXPECT_EQ(ReadBytes(dir / "old.png"), "old");
}

TEST_F(PicturesTest, CairoIsOpenedOnlyToDraw) {
    // The dynamic loader lists what kesta maps at start: cairo is not among it.
    ::setenv("LD_TRACE_LOADED_OBJECTS", "1", 1);
    const RunResult loaded = RunKesta({"--version"});
    ::unsetenv("LD_TRACE_LOADED_OBJECTS");
    ASSERT_EQ(loaded.exitCode, 0) << loaded.err;
    EXPECT_NE(loaded.out.find("libsndfile"), std::string::npos) << loaded.out;
    EXPECT_EQ(loaded.out.find("libcairo"), std::string::npos) << loaded.out;

    try {
        kesta::OpenCairo("libcairo-not-installed.so.2");
        ADD_FAILURE() << "a missing library opened";
    } catch (const kesta::CliError& error) {
        EXPECT_EQ(error.Code(), kesta::kExitFault);
        EXPECT_NE(error.Message().find("cannot draw pictures: libcairo-not-installed.so.2 cannot be opened"),
                  std::string::npos)
            << error.Message();
        EXPECT_NE(error.Message().find("install cairo"), std::string::npos) << error.Message();
    }
    EXPECT_NE(kesta::OpenCairo(kesta::kCairoFile).create, nullptr);
}

}  // namespace
}  // namespace kesta_test
