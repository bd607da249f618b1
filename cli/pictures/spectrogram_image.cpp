#include "spectrogram_image.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "dsp/fft.h"
#include "io/block_reader.h"
#include "pipeline/progress.h"

namespace kesta {

namespace {

constexpr float kNothing = std::numeric_limits<float>::quiet_NaN();

// What a row of the picture reads from a spectrum: the largest of bins [first, last], or when it
// spans none, the bins `first` and `first` + 1 weighted by `between`.
struct RowBins {
    int first = 0, last = -1;
    double between = 0.0;
    bool empty = true;  // above the file's highest frequency
};

std::vector<RowBins> MapRows(const AxisScale& scale, int rows, double binHz, int bins) {
    std::vector<RowBins> map(std::size_t(rows), RowBins{});
    const double nyquist = binHz * (bins - 1);
    for (int r = 0; r < rows; ++r) {
        const double low = scale.ValueAt(double(rows - 1 - r) / rows), high = scale.ValueAt(double(rows - r) / rows);
        RowBins& row = map[std::size_t(r)];
        if (low >= nyquist) continue;
        row.empty = false;
        row.first = int(std::ceil(low / binHz - 1e-9));
        row.last = std::min(int(std::floor(high / binHz + 1e-9)), bins - 1);
        if (row.first <= row.last) continue;
        const double centre = std::min(scale.ValueAt((rows - r - 0.5) / rows) / binHz, double(bins - 1));
        row.first = std::min(int(centre), bins - 2);
        row.between = centre - row.first;
    }
    return map;
}

// The file's samples from a position on, read as frames need them.
class History {
public:
    History(BlockReader& reader, int channels, int64_t firstPosition, Progress& progress)
        : mReader(reader),
          mBlock(reader.MakeBlock()),
          mSamples(std::size_t(channels)),
          mBase(firstPosition),
          mProgress(progress) {
        for (auto& samples : mSamples)
            samples.assign(std::size_t(-firstPosition), 0.0f);  // before the file: silence
    }
    // Reads until position `end` is held or the file ends; returns the frames the file holds so far.
    int64_t ReadTo(int64_t end) {
        while (!mEnded && mBase + int64_t(mSamples[0].size()) < end) {
            if (!mReader.Read(mBlock)) {
                mEnded = true;
                break;
            }
            for (std::size_t c = 0; c < mSamples.size(); ++c)
                mSamples[c].insert(mSamples[c].end(), mBlock.Channel(int(c)), mBlock.Channel(int(c)) + mBlock.Frames());
            mProgress.Advance(int64_t(mBlock.Frames()));
        }
        return mBase + int64_t(mSamples[0].size());
    }
    bool Ended() const { return mEnded; }
    // The sample at `position`, silence past what the file holds.
    float At(int channel, int64_t position) const {
        const auto& samples = mSamples[std::size_t(channel)];
        const int64_t i = position - mBase;
        return i < int64_t(samples.size()) ? samples[std::size_t(i)] : 0.0f;
    }
    // Forgets what lies before `position`, a large piece at a time.
    void DropBefore(int64_t position) {
        const int64_t drop = position - mBase;
        if (drop < (int64_t(1) << 16)) return;
        for (auto& samples : mSamples)
            samples.erase(samples.begin(), samples.begin() + std::min<int64_t>(drop, int64_t(samples.size())));
        mBase += drop;
    }

private:
    BlockReader& mReader;
    AudioBlock mBlock;
    std::vector<std::vector<float>> mSamples;
    int64_t mBase;
    bool mEnded = false;
    Progress& mProgress;
};

}  // namespace

const std::vector<WindowName>& SpectrogramWindows() {
    static const std::vector<WindowName> names = {{"blackman-harris", dsp::kWindowBlackmanHarris},
                                                  {"hann", dsp::kWindowHann},
                                                  {"hamming", dsp::kWindowHamming},
                                                  {"blackman", dsp::kWindowBlackman},
                                                  {"kaiser", dsp::kWindowKaiser180},
                                                  {"triangular", dsp::kWindowTriangular},
                                                  {"welch", dsp::kWindowWelch}};
    return names;
}

LevelGrid MeasureSpectrogram(BlockReader& reader, int64_t frames, double seconds, const AxisScale& frequencies,
                             int columns, int rows, const SpectrogramSettings& settings, Progress& progress) {
    const int size = settings.fftSize, half = size / 2, bins = half + 1;
    const int channels = reader.Format().channels;
    const double rate = reader.Format().sampleRate;

    std::vector<float> window(std::size_t(size), 0.0f);
    dsp::GetFFTWindow(window.data(), size, 1.0, settings.window | dsp::kWindowMirror | dsp::kWindowFloatOutput, 0.0);
    double windowSum = 0.0;
    for (float w : window)
        windowSum += w;
    // A sine of amplitude A peaks at A * sum(w) / 2 in its bin: full scale reads 1 (0 dB).
    const double powerScale = 4.0 / (windowSum * windowSum) / channels;
    const std::vector<RowBins> rowBins = MapRows(frequencies, rows, rate / size, bins);

    LevelGrid grid{columns, rows, std::vector<float>(std::size_t(columns) * std::size_t(rows), kNothing)};
    std::vector<char> filled(std::size_t(columns), 0);
    const double framesPerColumn = seconds * rate / columns;
    const int64_t hop = std::clamp<int64_t>(int64_t(framesPerColumn), 1, std::max(1, size / 4));

    dsp::IppFFT32R fft(size);
    std::vector<float> data(std::size_t(size) + 2);
    std::vector<double> power(std::size_t(bins), 0.0);
    int column = -1, count = 0;
    const auto finishColumn = [&] {
        if (column < 0 || count == 0) return;
        for (int r = 0; r < rows; ++r) {
            const RowBins& row = rowBins[std::size_t(r)];
            if (row.empty) continue;
            double p = 0.0;
            if (row.first <= row.last)
                p = *std::max_element(power.begin() + row.first, power.begin() + row.last + 1);
            else
                p = (1.0 - row.between) * power[std::size_t(row.first)] +
                    row.between * power[std::size_t(row.first) + 1];
            grid.db[std::size_t(r) * std::size_t(columns) + std::size_t(column)] =
                float(10.0 * std::log10(std::max(p * powerScale / count, 1e-30)));
        }
        filled[std::size_t(column)] = 1;
        std::fill(power.begin(), power.end(), 0.0);
        count = 0;
    };

    History history(reader, channels, -int64_t(half), progress);
    for (int64_t centre = hop / 2; centre < frames; centre += hop) {
        const int64_t held = history.ReadTo(centre + half);
        if (history.Ended() && centre >= held) break;  // the file is shorter than its header says
        const int at = std::min(columns - 1, int(double(centre) / framesPerColumn));
        if (at != column) {
            finishColumn();
            column = at;
        }
        for (int c = 0; c < channels; ++c) {
            for (int i = 0; i < size; ++i)
                data[std::size_t(i)] = history.At(c, centre - half + i) * window[std::size_t(i)];
            fft.FFT(data.data(), 1);
            for (int k = 0; k < bins; ++k)
                power[std::size_t(k)] += double(data[2 * std::size_t(k)]) * data[2 * std::size_t(k)] +
                                         double(data[2 * std::size_t(k) + 1]) * data[2 * std::size_t(k) + 1];
        }
        ++count;
        history.DropBefore(centre + hop - half);
    }
    finishColumn();

    // Columns no frame was centred in (more columns than frames) repeat the one before; columns
    // past the file's end stay empty.
    const int64_t fileFrames = std::min(frames, history.ReadTo(frames));
    int last = -1;
    for (int c = 0; c < columns; ++c) {
        if (filled[std::size_t(c)]) {
            last = c;
            continue;
        }
        if (last < 0 || double(c) * framesPerColumn >= double(fileFrames)) continue;
        for (int r = 0; r < rows; ++r)
            grid.db[std::size_t(r) * std::size_t(columns) + std::size_t(c)] = grid.At(last, r);
    }
    return grid;
}

void DrawSpectrograms(Canvas& canvas, const std::vector<SpectrogramSource>& sources,
                      const SpectrogramSettings& settings, bool showProgress) {
    constexpr double kLeft = 78.0, kRight = 112.0, kTitle = 30.0, kAxis = 28.0, kAxisTitle = 26.0;
    const int n = int(sources.size());
    const double plotWidth = std::floor(canvas.Width() - kLeft - kRight);
    const double plotHeight = std::floor((canvas.Height() - n * (kTitle + kAxis) - kAxisTitle) / n);

    double seconds = 0.0, nyquist = 0.0;
    for (const SpectrogramSource& source : sources) {
        const double rate = source.reader->Format().sampleRate;
        seconds = std::max(seconds, double(source.frames) / rate);
        nyquist = std::max(nyquist, rate / 2);
    }
    const AxisScale time{0.0, seconds, false};
    const AxisScale frequency{settings.logFrequency ? std::min(20.0, nyquist / 100) : 0.0, nyquist,
                              settings.logFrequency};
    const double topDb = 0.0, bottomDb = -settings.rangeDb;

    std::string windowName;
    for (const WindowName& w : SpectrogramWindows())
        if (w.shape == settings.window) windowName = w.name;
    const Rgb ink{0.15, 0.15, 0.17}, quiet{0.45, 0.45, 0.48}, blank{0.86, 0.86, 0.88};

    double y = 0.0;
    Rect first;
    for (int i = 0; i < n; ++i) {
        const SpectrogramSource& source = sources[std::size_t(i)];
        const Rect area{kLeft, y + kTitle, plotWidth, plotHeight};
        if (i == 0) first = area;
        canvas.Text(area.x, y + 9.0, source.title, 13.0, ink, 0.0, 0.0, true);
        if (i == 0)
            canvas.Text(area.Right(), y + 10.0,
                        "FFT " + std::to_string(settings.fftSize) + ", " + windowName + " window", 11.0, quiet, 1.0);

        LevelGrid grid;
        {
            Progress progress("spectrogram", source.frames, source.reader->Format().sampleRate, showProgress);
            grid = MeasureSpectrogram(*source.reader, source.frames, seconds, frequency, int(plotWidth),
                                      int(plotHeight), settings, progress);
        }
        Canvas::Pixels pixels(grid.columns, grid.rows);
        for (int r = 0; r < grid.rows; ++r)
            for (int c = 0; c < grid.columns; ++c) {
                const float db = grid.At(c, r);
                pixels.Set(c, r, std::isnan(db) ? blank : LevelColour((db - bottomDb) / (topDb - bottomDb)));
            }
        canvas.Paint(pixels, area);
        canvas.LeftAxis(area, frequency, FrequencyTicks(frequency, area.height), "Frequency (Hz)", false);
        canvas.BottomAxis(area, time, TimeTicks(seconds, area.width), i == n - 1 ? TimeAxisTitle(seconds) : "");
        y = area.Bottom() + kAxis;
        if (i == n - 1) {
            const Rect bar{canvas.Width() - kRight + 22.0, first.y, 16.0, area.Bottom() - first.y};
            canvas.LevelLegend(bar, bottomDb, topDb, "dBFS");
        }
    }
}

}  // namespace kesta
