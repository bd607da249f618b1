// Click evaluation on real recordings, for bench/declick_eval.
//
//   click_eval make OUT_DIR [--click-free] LABEL:SOURCE.wav...   builds the programme (same rate
//       throughout) and writes clean.wav, damaged.wav (100 clicks of 1 to 20 samples whose largest
//       sample is 6 to 30 times the clean RMS over the 1024 frames around it), truth.csv (channel,
//       start, length; channels from 1) and sources.csv (where each source lies). Mono sources are
//       laid side by side, stereo ones follow (see Assemble). With --click-free the recordings fade
//       in and out and the impulses the detector finds in them are cut out until the clean
//       programme gives no detection at the default threshold, which is checked and printed (see
//       ClickFree): every range reported on the damaged programme is then either on an inserted
//       click or a false detection.
//   click_eval header                              prints the header of the comparison table
//   click_eval score OUT_DIR TOOL SECONDS REPAIRED.wav [REPORT.csv]   prints the tool's row: clicks
//       found and the share of listed ranges on a click, also counting those on an event of the
//       sources (from a kesta report), the error against clean.wav over the clicked samples relative
//       to the damage, the share of the other samples that differ from damaged.wav, the number of
//       samples outside the listed ranges that differ from it, and the wall time
//   click_eval detect OUT_DIR THRESHOLD... [--list]   runs FindClicks on damaged.wav at each
//       threshold and prints found % and both precisions with a breakdown of the ranges that
//       overlap no inserted click (--list: each of them at the first threshold)
//
// A range "finds" a click, and is "on a click", when they share at least one sample in the same
// channel. It is on an event of the sources when FindClicks, at the same threshold, reports an
// overlapping range in clean.wav: the recording itself holds an impulse there (a mouth click, the
// burst of a plosive, a drum's attack), which a click detector rightly reports; both precisions
// are printed so that neither hides the other. FindClicks reports a click in the overlap of two detection blocks twice;
// such repeats (overlapping or touching ranges of one channel) count as one range, as kesta's report lists them.

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/click_support.h"

namespace {

using dsp::utils::Range;
using kesta::test::Channels;
using kesta::test::InsertedClick;
using kesta::test::RangeLists;

struct Wav {
    int rate = 0;
    Channels x;
};

Wav Read(const std::string& path, int* fileChannels = nullptr) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) throw std::runtime_error("cannot read " + path);
    std::vector<float> inter(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_float(f, inter.data(), info.frames);
    sf_close(f);
    if (fileChannels) *fileChannels = info.channels;
    Wav w{info.samplerate, Channels(2, kesta::test::Signal(static_cast<std::size_t>(info.frames)))};
    for (sf_count_t i = 0; i < info.frames; ++i)
        for (int c = 0; c < 2; ++c)
            w.x[c][i] = inter[static_cast<std::size_t>(i * info.channels + (info.channels == 1 ? 0 : c))];
    return w;
}

void Write(const std::string& path, const Wav& w) {
    SF_INFO info{};
    info.samplerate = w.rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!f) throw std::runtime_error("cannot write " + path);
    std::vector<float> inter(w.x[0].size() * 2);
    for (std::size_t i = 0; i < w.x[0].size(); ++i)
        for (int c = 0; c < 2; ++c)
            inter[i * 2 + c] = w.x[c][i];
    sf_writef_float(f, inter.data(), static_cast<sf_count_t>(w.x[0].size()));
    sf_close(f);
}

// Rounded to 16 bits as the files hold them, so clean and damaged differ only by the clicks.
void Quantise(Channels& x) {
    for (auto& s : x)
        for (float& v : s)
            v = static_cast<float>(std::lround(std::clamp(v * 32768.0, -32768.0, 32767.0)) / 32768.0);
}

// The fields of each line after the header line.
std::vector<std::vector<std::string>> ReadCsv(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::vector<std::vector<std::string>> rows;
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::stringstream s(line);
        for (std::string f; std::getline(s, f, ',');)
            fields.push_back(f);
        rows.push_back(fields);
    }
    return rows;
}

std::vector<InsertedClick> ReadTruth(const std::string& dir) {
    std::vector<InsertedClick> truth;
    for (const auto& f : ReadCsv(dir + "/truth.csv"))
        truth.push_back({std::stoi(f.at(0)) - 1, std::stoul(f.at(1)), std::stoi(f.at(2))});
    return truth;
}

// kesta's CSV report: channel (from 1), start frame, start seconds, length frames, ...
RangeLists ReadReport(const std::string& path) {
    RangeLists lists(2);
    for (const auto& f : ReadCsv(path))
        lists.at(static_cast<std::size_t>(std::stoi(f.at(0)) - 1))
            .push_back({std::stoll(f.at(1)), std::stoi(f.at(3)), 0});
    for (auto& l : lists)
        std::sort(l.begin(), l.end(), dsp::utils::CompareLowerBound);
    return lists;
}

struct Source {
    int channel;  // 0 or 1
    long long start, end;
    std::string label;
    std::size_t piece = 0;  // which recording (Make only)
};

RangeLists CleanDetections(const Wav& clean, double threshold) {
    return kesta::test::MergeOverlapping(
        kesta::test::FindAllClicks(clean.x, kesta::test::ClickRecord(2, clean.rate, threshold)));
}

// One recording as read: a mono one uses x[0] only.
struct Piece {
    std::string label;
    bool mono;
    Channels x;
};

// Mono pieces side by side, the first on the left, the next on the right and so on, each channel
// ending in silence where its side is shorter: no recording is in the programme twice, so an event
// in it is counted once. Stereo pieces follow as they are.
Wav Assemble(const std::vector<Piece>& pieces, int rate, std::vector<Source>& sources) {
    Wav all{rate, Channels(2)};
    sources.clear();
    int side = 0;
    for (std::size_t p = 0; p < pieces.size(); ++p) {
        if (!pieces[p].mono) continue;
        kesta::test::Signal& s = all.x[side];
        const auto start = static_cast<long long>(s.size());
        s.insert(s.end(), pieces[p].x[0].begin(), pieces[p].x[0].end());
        sources.push_back({side, start, static_cast<long long>(s.size()), pieces[p].label, p});
        side = 1 - side;
    }
    const std::size_t sideBySide = std::max(all.x[0].size(), all.x[1].size());
    for (auto& s : all.x)
        s.resize(sideBySide, 0.0f);
    for (std::size_t p = 0; p < pieces.size(); ++p) {
        if (pieces[p].mono) continue;
        for (int c = 0; c < 2; ++c) {
            const auto start = static_cast<long long>(all.x[c].size());
            all.x[c].insert(all.x[c].end(), pieces[p].x[c].begin(), pieces[p].x[c].end());
            sources.push_back({c, start, static_cast<long long>(all.x[c].size()), pieces[p].label, p});
        }
    }
    Quantise(all.x);
    return all;
}

// Raised-cosine fade of n samples from `from`: rising when `in`, falling otherwise.
void Fade(kesta::test::Signal& s, std::size_t from, std::size_t n, bool in) {
    for (std::size_t i = 0; i < n && from + i < s.size(); ++i) {
        const double up = 0.5 - 0.5 * std::cos(3.14159265358979323846 * (i + 0.5) / static_cast<double>(n));
        s[from + i] = static_cast<float>(s[from + i] * (in ? up : 1.0 - up));
    }
}

// Takes [from, to) out of every channel of the piece, the audio before it fading out and the audio
// after it fading in over `fade` samples, so that the join is a short smooth dip.
void CutOut(Piece& piece, std::size_t from, std::size_t to, std::size_t fade) {
    for (auto& s : piece.x) {
        if (s.empty()) continue;
        to = std::min(to, s.size());
        Fade(s, from >= fade ? from - fade : 0, std::min(from, fade), false);
        Fade(s, to, fade, true);
        s.erase(s.begin() + static_cast<std::ptrdiff_t>(from), s.begin() + static_cast<std::ptrdiff_t>(to));
    }
}

// The click-free programme: every recording fades in and out (20 ms) instead of starting and
// ending abruptly, and wherever the detector, at the default threshold, reports a range in the
// assembled clean programme (an impulse the recording itself holds: a plosive's burst, a mouth
// click), 20 ms on either side of it are cut out of that recording with 10 ms fades. The programme
// is assembled and checked again until the detector reports nothing in it.
Wav ClickFree(std::vector<Piece>& pieces, int rate, std::vector<Source>& sources) {
    const auto ms = static_cast<std::size_t>(rate / 1000);
    for (Piece& p : pieces)
        for (auto& s : p.x) {
            Fade(s, 0, 20 * ms, true);
            Fade(s, s.size() >= 20 * ms ? s.size() - 20 * ms : 0, 20 * ms, false);
        }
    for (int round = 1;; ++round) {
        Wav all = Assemble(pieces, rate, sources);
        const RangeLists found = CleanDetections(all, 55.0);
        std::size_t count = 0, cutSamples = 0;
        std::vector<std::vector<std::pair<std::size_t, std::size_t>>> cuts(pieces.size());
        std::vector<std::pair<std::string, int>> byLabel;  // detections per source label
        for (int c = 0; c < 2; ++c)
            for (const Range& r : found[c]) {
                ++count;
                const auto at = std::find_if(sources.begin(), sources.end(), [&](const Source& s) {
                    return s.channel == c && r.start < s.end && r.start + r.length > s.start;
                });
                if (at == sources.end())
                    throw std::runtime_error("the detector reports a range in silence at frame " +
                                             std::to_string(r.start));
                const long long from = std::max(r.start - 20 * static_cast<long long>(ms) - at->start, 0LL);
                const long long to = r.start + r.length + 20 * static_cast<long long>(ms) - at->start;
                cuts[at->piece].push_back({static_cast<std::size_t>(from), static_cast<std::size_t>(to)});
                const auto label =
                    std::find_if(byLabel.begin(), byLabel.end(), [&](const auto& l) { return l.first == at->label; });
                if (label == byLabel.end())
                    byLabel.push_back({at->label, 1});
                else
                    ++label->second;
            }
        std::string where;
        for (const auto& [label, n] : byLabel)
            where += (where.empty() ? " (" : ", ") + label + " " + std::to_string(n);
        std::printf("click-free programme, check %d: %zu ranges detected in the clean programme%s%s\n", round, count,
                    where.empty() ? "" : (where + ")").c_str(),
                    count == 0 ? " (verified click-free)" : ", cut out of their recordings");
        if (count == 0) return all;
        if (round == 10) throw std::runtime_error("the clean programme still holds detections after 10 checks");
        for (std::size_t p = 0; p < pieces.size(); ++p) {
            auto& list = cuts[p];
            // From the last cut back, overlapping ones joined, so earlier positions stay valid.
            std::sort(list.begin(), list.end());
            for (std::size_t i = list.size(); i-- > 0;) {
                std::size_t from = list[i].first, to = list[i].second;
                while (i > 0 && list[i - 1].second >= from)
                    from = std::min(from, list[--i].first), to = std::max(to, list[i].second);
                cutSamples += std::min(to, pieces[p].x[0].size()) - std::min(from, pieces[p].x[0].size());
                CutOut(pieces[p], from, to, 10 * ms);
            }
        }
        std::printf("  %.2f s of audio cut\n", static_cast<double>(cutSamples) / rate);
    }
}

int Make(const std::string& dir, std::vector<std::string> args) {
    const bool clickFree = !args.empty() && args[0] == "--click-free";
    if (clickFree) args.erase(args.begin());
    std::vector<Piece> pieces;
    int rate = 0;
    for (const std::string& arg : args) {
        const std::size_t colon = arg.find(':');
        if (colon == std::string::npos) throw std::runtime_error(arg + ": give sources as LABEL:FILE");
        int channels = 0;
        Wav w = Read(arg.substr(colon + 1), &channels);
        if (rate != 0 && w.rate != rate) throw std::runtime_error(arg + ": another sample rate");
        rate = w.rate;
        if (channels == 1) w.x.resize(1);
        pieces.push_back({arg.substr(0, colon), channels == 1, std::move(w.x)});
    }
    std::vector<Source> sources;
    Wav all = clickFree ? ClickFree(pieces, rate, sources) : Assemble(pieces, rate, sources);
    Write(dir + "/clean.wav", all);
    const std::vector<InsertedClick> clicks = kesta::test::InsertClicks(all.x, 100, 2024, 4096, 1500);
    Quantise(all.x);
    Write(dir + "/damaged.wav", all);
    std::ofstream truth(dir + "/truth.csv");
    truth << "channel,start,length\n";
    for (const InsertedClick& k : clicks)
        truth << k.channel + 1 << "," << k.start << "," << k.length << "\n";
    std::ofstream where(dir + "/sources.csv");
    where << "channel,start,end,label\n";
    for (const Source& s : sources)
        where << s.channel + 1 << "," << s.start << "," << s.end << "," << s.label << "\n";
    std::size_t sideBySide = 0;
    for (const Source& s : sources)
        if (pieces[s.piece].mono) sideBySide = std::max(sideBySide, static_cast<std::size_t>(s.end));
    std::printf("programme: %.1f s stereo at %d Hz (mono sources side by side for %.1f s), 100 clicks\n",
                static_cast<double>(all.x[0].size()) / all.rate, all.rate, static_cast<double>(sideBySide) / all.rate);
    return 0;
}

bool Overlaps(const InsertedClick& k, const Range& r) {
    return r.start < static_cast<long long>(k.start) + k.length && static_cast<long long>(k.start) < r.start + r.length;
}

bool OverlapsAny(const std::vector<Range>& list, const Range& r) {
    return std::any_of(list.begin(), list.end(),
                       [&](const Range& q) { return q.start < r.start + r.length && r.start < q.start + q.length; });
}

// Percentages of clicks found, of ranges on a click, and of ranges on a click or on an impulsive event
// of the recording itself (where the detector reports a range in the clean original too), repeats
// joined. The last figure tells the detector's mistakes apart from the clicks the sources hold.
struct Figures {
    double found, precision, withSource;
};
Figures DetectionFigures(const std::vector<InsertedClick>& truth, const RangeLists& listed, const RangeLists& inClean) {
    const RangeLists merged = kesta::test::MergeOverlapping(listed);
    const kesta::test::DetectionScore s = kesta::test::ScoreDetection(truth, merged);
    int real = 0;
    for (std::size_t c = 0; c < merged.size(); ++c)
        for (const Range& r : merged[c])
            real += std::any_of(
                        truth.begin(), truth.end(),
                        [&](const InsertedClick& k) { return k.channel == static_cast<int>(c) && Overlaps(k, r); }) ||
                    OverlapsAny(inClean[c], r);
    return {100.0 * s.recall, 100.0 * s.precision, s.found == 0 ? 100.0 : 100.0 * real / s.found};
}

void Header() {
    std::printf("%-26s %7s %10s %9s %9s %10s %10s %7s\n", "tool", "found %", "precision", "with src", "error dB",
                "undamaged", "unlisted", "wall s");
    std::printf("%-26s %7s %10s %9s %9s %10s %10s %7s\n", "", "", "%", "events %", "(clicks)", "% changed", "changed",
                "");
}

int Score(const std::string& dir, const std::string& tool, double seconds, const std::string& repairedPath,
          const std::string& reportPath) {
    const Wav clean = Read(dir + "/clean.wav"), damaged = Read(dir + "/damaged.wav"), repaired = Read(repairedPath);
    const std::vector<InsertedClick> truth = ReadTruth(dir);
    const std::size_t frames = clean.x[0].size();
    if (repaired.x[0].size() != frames)
        throw std::runtime_error(repairedPath + ": " + std::to_string(repaired.x[0].size()) + " frames, not " +
                                 std::to_string(frames));
    std::vector<std::vector<bool>> clicked(2, std::vector<bool>(frames, false)), listed = clicked;
    for (const InsertedClick& k : truth)
        std::fill_n(clicked[k.channel].begin() + static_cast<std::ptrdiff_t>(k.start), k.length, true);
    const RangeLists report = reportPath.empty() ? RangeLists(2) : ReadReport(reportPath);
    for (int c = 0; c < 2; ++c)
        for (const Range& r : report[c])
            std::fill(listed[c].begin() + std::clamp<long long>(r.start, 0, static_cast<long long>(frames)),
                      listed[c].begin() + std::clamp<long long>(r.start + r.length, 0, static_cast<long long>(frames)),
                      true);
    double before = 0.0, after = 0.0;
    std::size_t changed = 0, others = 0, unlisted = 0;
    for (int c = 0; c < 2; ++c)
        for (std::size_t i = 0; i < frames; ++i) {
            if (clicked[c][i]) {
                before += std::pow(static_cast<double>(damaged.x[c][i]) - clean.x[c][i], 2);
                after += std::pow(static_cast<double>(repaired.x[c][i]) - clean.x[c][i], 2);
            } else {
                ++others;
                changed += repaired.x[c][i] != damaged.x[c][i];
            }
            unlisted += !listed[c][i] && repaired.x[c][i] != damaged.x[c][i];
        }
    char found[16] = "-", precision[16] = "-", withSource[16] = "-", outside[24] = "-";
    if (!reportPath.empty()) {
        const Figures f = DetectionFigures(truth, report, CleanDetections(clean, 55.0));
        std::snprintf(found, sizeof found, "%.0f", f.found);
        std::snprintf(precision, sizeof precision, "%.1f", f.precision);
        std::snprintf(withSource, sizeof withSource, "%.1f", f.withSource);
        std::snprintf(outside, sizeof outside, "%zu", unlisted);
    }
    std::printf("%-26s %7s %10s %9s %9.1f %10.3f %10s %7.2f\n", tool.c_str(), found, precision, withSource,
                10.0 * std::log10(after / before), 100.0 * static_cast<double>(changed) / others, outside, seconds);
    return 0;
}

// What a range that overlaps no inserted click lies on. Within 64 frames of a click it is the
// click's own ringing; otherwise an event of the recording, told apart by the high-frequency energy
// (mean squared first difference of the clean signal) from 10 ms to 1 ms before it and from 1 ms to
// 10 ms after it: 6 dB more after is the onset of a sound (a consonant, a note, a drum hit), 6 dB less
// its end, and neither an isolated impulse (a click of the recording itself, such as a mouth click).
struct Breakdown {
    int nearClick = 0, onset = 0, end = 0, isolated = 0, inClean = 0;
    std::vector<std::string> labels;
    std::vector<int> falseRanges, allRanges;  // per label
    void Count(const std::string& label, bool onClick) {
        const auto at = std::find(labels.begin(), labels.end(), label);
        const auto i = static_cast<std::size_t>(at - labels.begin());
        if (at == labels.end()) {
            labels.push_back(label);
            falseRanges.push_back(0);
            allRanges.push_back(0);
        }
        falseRanges[i] += !onClick;
        ++allRanges[i];
    }
};

std::string LabelAt(const std::vector<Source>& sources, int channel, long long at) {
    for (const Source& s : sources)
        if (s.channel == channel && at >= s.start && at < s.end) return s.label;
    return "silence";
}

double DiffEnergy(const kesta::test::Signal& x, long long from, long long to) {
    from = std::max(from, 1LL);
    to = std::min(to, static_cast<long long>(x.size()));
    double sum = 0.0;
    for (long long i = from; i < to; ++i)
        sum += std::pow(static_cast<double>(x[static_cast<std::size_t>(i)]) - x[static_cast<std::size_t>(i - 1)], 2);
    return to > from ? sum / static_cast<double>(to - from) : 0.0;
}

int Detect(const std::string& dir, const std::vector<double>& thresholds, bool list) {
    const Wav clean = Read(dir + "/clean.wav"), damaged = Read(dir + "/damaged.wav");
    const std::vector<InsertedClick> truth = ReadTruth(dir);
    std::vector<Source> sources;
    for (const auto& f : ReadCsv(dir + "/sources.csv"))
        sources.push_back({std::stoi(f.at(0)) - 1, std::stoll(f.at(1)), std::stoll(f.at(2)), f.at(3)});
    const long long ms = damaged.rate / 1000;
    std::printf("%9s %5s %8s %12s %9s %7s   false ranges: %-s\n", "threshold", "T", "found %", "precision %",
                "with src", "ranges",
                "at a click | onset end isolated | also in clean | by source (of all ranges there)");
    for (std::size_t t = 0; t < thresholds.size(); ++t) {
        const dsp::noclick::NOCLICK record = kesta::test::ClickRecord(2, damaged.rate, thresholds[t]);
        const RangeLists found = kesta::test::MergeOverlapping(kesta::test::FindAllClicks(damaged.x, record));
        const RangeLists inClean = CleanDetections(clean, thresholds[t]);
        const Figures figures = DetectionFigures(truth, found, inClean);
        Breakdown b;
        int ranges = 0;
        for (int c = 0; c < 2; ++c)
            for (const Range& r : found[c]) {
                ++ranges;
                auto near = [&](int margin) {
                    return std::any_of(truth.begin(), truth.end(), [&](const InsertedClick& k) {
                        const std::size_t before = std::min<std::size_t>(k.start, static_cast<std::size_t>(margin));
                        return k.channel == c && Overlaps({c, k.start - before, k.length + 2 * margin}, r);
                    });
                };
                const std::string label = LabelAt(sources, c, r.start);
                b.Count(label, near(0));
                if (near(0)) continue;
                const long long end = r.start + r.length;
                const bool alsoClean = OverlapsAny(inClean[c], r);
                b.inClean += alsoClean;
                const double pre = DiffEnergy(clean.x[c], r.start - 10 * ms, r.start - ms);
                const double post = DiffEnergy(clean.x[c], end + ms, end + 10 * ms);
                const char* kind = "at a click";
                if (near(64)) {
                    ++b.nearClick;
                } else if (post > 4.0 * pre) {
                    ++b.onset;
                    kind = "onset";
                } else if (pre > 4.0 * post) {
                    ++b.end;
                    kind = "end";
                } else {
                    ++b.isolated;
                    kind = "isolated";
                }
                if (list && t == 0)
                    std::printf("  channel %d at %9.4f s, %2d frames, %-7s %-10s %s\n", c + 1,
                                static_cast<double>(r.start) / damaged.rate, r.length, label.c_str(), kind,
                                alsoClean ? "(also in clean)" : "");
            }
        std::string bySource;
        for (std::size_t i = 0; i < b.labels.size(); ++i)
            bySource += (i ? ", " : "") + b.labels[i] + " " + std::to_string(b.falseRanges[i]) + " of " +
                        std::to_string(b.allRanges[i]);
        std::printf("%9.0f %5.1f %8.0f %12.1f %9.1f %7d   %10d | %5d %3d %8d | %13d | %s\n", thresholds[t],
                    (thresholds[t] + 25.0) / 10.0, figures.found, figures.precision, figures.withSource, ranges,
                    b.nearClick, b.onset, b.end, b.isolated, b.inClean, bySource.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> args(argv + 1, argv + argc);
        if (args.size() >= 3 && args[0] == "make") return Make(args[1], {args.begin() + 2, args.end()});
        if (args.size() == 1 && args[0] == "header") {
            Header();
            return 0;
        }
        if (args.size() >= 5 && args[0] == "score")
            return Score(args[1], args[2], std::stod(args[3]), args[4], args.size() > 5 ? args[5] : "");
        if (args.size() >= 3 && args[0] == "detect") {
            std::vector<double> thresholds;
            bool list = false;
            for (std::size_t i = 2; i < args.size(); ++i)
                args[i] == "--list" ? void(list = true) : thresholds.push_back(std::stod(args[i]));
            return Detect(args[1], thresholds, list);
        }
        std::fprintf(stderr,
                     "usage: click_eval make DIR LABEL:SOURCE.wav... | header | score DIR TOOL SECONDS REPAIRED.wav "
                     "[REPORT.csv] | detect DIR THRESHOLD... [--list]\n");
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "click_eval: %s\n", e.what());
        return 1;
    }
}
