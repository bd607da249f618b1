// Click evaluation on real recordings, for bench/declick_eval.
//
//   click_eval make OUT_DIR SOURCE.wav...   joins the sources (same rate; mono made stereo) into
//       clean.wav, adds 100 clicks of 1 to 20 samples at 6 to 30 times the local RMS, and writes
//       damaged.wav and truth.csv (channel, start, length; channels from 1)
//   click_eval score OUT_DIR REPAIRED.wav [REPORT.csv]   prints, for a repaired file: the error
//       against clean.wav over the clicked samples, in dB relative to the damage; the share of the
//       other samples that differ from damaged.wav; and with a kesta report, the share of clicks
//       found and of listed ranges that overlap a click.

#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/click_support.h"

namespace {

using kesta::test::Channels;
using kesta::test::InsertedClick;

struct Wav {
    int rate = 0;
    Channels x;
};

Wav Read(const std::string& path) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) throw std::runtime_error("cannot read " + path);
    std::vector<float> inter(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_float(f, inter.data(), info.frames);
    sf_close(f);
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

std::vector<std::pair<long long, long long>> ReadCsvRanges(const std::string& path, std::vector<int>& channel) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    std::vector<std::pair<long long, long long>> ranges;
    while (std::getline(in, line)) {
        int c = 0;
        long long start = 0;
        int length = 0;
        if (std::sscanf(line.c_str(), "%d,%lld,%*[^,],%d", &c, &start, &length) == 3 ||
            std::sscanf(line.c_str(), "%d,%lld,%d", &c, &start, &length) == 3) {
            channel.push_back(c - 1);
            ranges.push_back({start, start + length});
        }
    }
    return ranges;
}

int Make(const std::string& dir, const std::vector<std::string>& sources) {
    Wav all;
    all.x.assign(2, {});
    for (const std::string& s : sources) {
        const Wav w = Read(s);
        if (all.rate != 0 && w.rate != all.rate) throw std::runtime_error(s + ": another sample rate");
        all.rate = w.rate;
        for (int c = 0; c < 2; ++c)
            all.x[c].insert(all.x[c].end(), w.x[c].begin(), w.x[c].end());
    }
    Quantise(all.x);
    Write(dir + "/clean.wav", all);
    const std::vector<InsertedClick> clicks = kesta::test::InsertClicks(all.x, 100, 2024, 4096, 1500);
    Quantise(all.x);
    Write(dir + "/damaged.wav", all);
    std::ofstream truth(dir + "/truth.csv");
    truth << "channel,start,length\n";
    for (const InsertedClick& k : clicks)
        truth << k.channel + 1 << "," << k.start << "," << k.length << "\n";
    std::printf("programme: %.1f s at %d Hz, 100 clicks\n", static_cast<double>(all.x[0].size()) / all.rate, all.rate);
    return 0;
}

int Score(const std::string& dir, const std::string& repairedPath, const std::string& reportPath) {
    const Wav clean = Read(dir + "/clean.wav"), damaged = Read(dir + "/damaged.wav"), repaired = Read(repairedPath);
    std::vector<int> truthChannel;
    const auto truth = ReadCsvRanges(dir + "/truth.csv", truthChannel);
    const std::size_t frames = clean.x[0].size();
    if (repaired.x[0].size() != frames) std::printf("length differs: %zu vs %zu\n", repaired.x[0].size(), frames);
    std::vector<std::vector<bool>> clicked(2, std::vector<bool>(frames, false));
    for (std::size_t k = 0; k < truth.size(); ++k)
        for (long long i = truth[k].first; i < truth[k].second; ++i)
            clicked[truthChannel[k]][static_cast<std::size_t>(i)] = true;
    double before = 0.0, after = 0.0;
    std::size_t changed = 0, others = 0;
    for (int c = 0; c < 2; ++c)
        for (std::size_t i = 0; i < std::min(frames, repaired.x[0].size()); ++i) {
            if (clicked[c][i]) {
                before += std::pow(static_cast<double>(damaged.x[c][i]) - clean.x[c][i], 2);
                after += std::pow(static_cast<double>(repaired.x[c][i]) - clean.x[c][i], 2);
            } else {
                ++others;
                changed += repaired.x[c][i] != damaged.x[c][i];
            }
        }
    std::printf("error over the clicked samples: %.1f dB relative to the damage\n", 10.0 * std::log10(after / before));
    std::printf("undamaged samples changed: %.3f %%\n", 100.0 * static_cast<double>(changed) / others);
    if (!reportPath.empty()) {
        std::vector<int> listedChannel;
        const auto listed = ReadCsvRanges(reportPath, listedChannel);
        auto overlaps = [](auto a, auto b) { return a.first < b.second && b.first < a.second; };
        int found = 0, genuine = 0;
        for (std::size_t k = 0; k < truth.size(); ++k)
            for (std::size_t r = 0; r < listed.size(); ++r)
                if (listedChannel[r] == truthChannel[k] && overlaps(truth[k], listed[r])) {
                    ++found;
                    break;
                }
        for (std::size_t r = 0; r < listed.size(); ++r)
            for (std::size_t k = 0; k < truth.size(); ++k)
                if (listedChannel[r] == truthChannel[k] && overlaps(truth[k], listed[r])) {
                    ++genuine;
                    break;
                }
        std::printf("clicks found: %d of %zu (%.0f %%); listed ranges on a click: %d of %zu (%.1f %%)\n", found,
                    truth.size(), 100.0 * found / truth.size(), genuine, listed.size(),
                    listed.empty() ? 100.0 : 100.0 * genuine / listed.size());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> args(argv + 1, argv + argc);
        if (args.size() >= 3 && args[0] == "make") return Make(args[1], {args.begin() + 2, args.end()});
        if (args.size() >= 3 && args[0] == "score") return Score(args[1], args[2], args.size() > 3 ? args[3] : "");
        std::fprintf(stderr, "usage: click_eval make DIR SOURCE.wav... | score DIR REPAIRED.wav [REPORT.csv]\n");
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "click_eval: %s\n", e.what());
        return 1;
    }
}
