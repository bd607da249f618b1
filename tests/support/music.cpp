#include "support/music.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

namespace kesta::test {

namespace {

void PutVariable(std::vector<unsigned char>& out, uint32_t value) {
    unsigned char bytes[5];
    int n = 0;
    do {
        bytes[n++] = static_cast<unsigned char>(value & 0x7F);
        value >>= 7;
    } while (value != 0);
    while (n > 0) {
        const unsigned char b = bytes[--n];
        out.push_back(n > 0 ? static_cast<unsigned char>(b | 0x80) : b);
    }
}

struct Event {
    uint32_t tick;
    unsigned char status, data1, data2;
};

// A single-track MIDI file at 480 ticks per quarter note and 120 beats per minute.
std::vector<unsigned char> Piece(double seconds, uint64_t seed) {
    Random random(seed);
    std::vector<Event> events;
    const uint32_t beat = 480, beats = static_cast<uint32_t>(seconds * 2.0);
    events.push_back({0, 0xC0, 0, 0});   // piano
    events.push_back({0, 0xC1, 33, 0});  // fingered bass
    const int roots[] = {48, 53, 55, 45, 50, 52};
    for (uint32_t b = 0; b + 4 <= beats; b += 4) {
        const int root = roots[random.UniformInt(0, 5)];
        // Loudness rises over the first half, falls to a quiet passage, then returns.
        const double t = static_cast<double>(b) / beats;
        const int velocity = t < 0.5 ? 40 + static_cast<int>(t * 160) : t < 0.75 ? 25 : 100;
        for (const int step : {0, 4, 7, 12}) {
            const auto note = static_cast<unsigned char>(root + 12 + step);
            events.push_back({b * beat, 0x90, note, static_cast<unsigned char>(velocity)});
            events.push_back({(b + 4) * beat - 10, 0x80, note, 0});
        }
        for (uint32_t q = 0; q < 4; ++q) {
            const auto bass = static_cast<unsigned char>(root - 12 + (q % 2 == 0 ? 0 : 7));
            events.push_back({(b + q) * beat, 0x91, bass, static_cast<unsigned char>(velocity)});
            events.push_back({(b + q + 1) * beat - 20, 0x81, bass, 0});
            const unsigned char drum = q % 2 == 0 ? 36 : 38;  // kick, snare
            events.push_back({(b + q) * beat, 0x99, drum, static_cast<unsigned char>(velocity)});
            events.push_back({(b + q) * beat + beat / 2, 0x99, 42, static_cast<unsigned char>(velocity / 2)});
            events.push_back({(b + q) * beat + 100, 0x89, drum, 0});
            events.push_back({(b + q) * beat + beat / 2 + 100, 0x89, 42, 0});
        }
    }
    std::stable_sort(events.begin(), events.end(), [](const Event& a, const Event& b) { return a.tick < b.tick; });
    std::vector<unsigned char> track = {0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20};  // 500000 us per beat
    uint32_t now = 0;
    for (const Event& e : events) {
        PutVariable(track, e.tick - now);
        now = e.tick;
        track.push_back(e.status);
        track.push_back(e.data1);
        if ((e.status & 0xF0) != 0xC0) track.push_back(e.data2);
    }
    PutVariable(track, beat * 2);
    track.insert(track.end(), {0xFF, 0x2F, 0x00});
    std::vector<unsigned char> file = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0x01, 0xE0, 'M', 'T', 'r', 'k'};
    const auto size = static_cast<uint32_t>(track.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        file.push_back(static_cast<unsigned char>(size >> shift));
    file.insert(file.end(), track.begin(), track.end());
    return file;
}

}  // namespace

std::string MusicSoundfont() {
    const char* candidates[] = {"/usr/share/sounds/sf2/FluidR3_GM.sf2", "/usr/share/soundfonts/FluidR3_GM.sf2"};
    if (std::system("command -v fluidsynth >/dev/null 2>&1") != 0) return {};
    for (const char* path : candidates)
        if (std::filesystem::exists(path)) return path;
    return {};
}

Channels RenderMusic(int rate, double seconds, uint64_t seed) {
    const std::string soundfont = MusicSoundfont();
    if (soundfont.empty()) return {};
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("kesta-music-" + std::to_string(seed) + "-" + std::to_string(rate) +
                                                  "-" + std::to_string(static_cast<long long>(::getpid())));
    std::filesystem::create_directories(dir);
    const std::filesystem::path midi = dir / "piece.mid", raw = dir / "piece.raw";
    {
        const std::vector<unsigned char> bytes = Piece(seconds, seed);
        std::ofstream(midi, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    const std::string command = "fluidsynth -ni -q -g 0.6 -r " + std::to_string(rate) +
                                " -T raw -O float -E little -F '" + raw.string() + "' '" + soundfont + "' '" +
                                midi.string() + "' >/dev/null 2>&1";
    Channels music;
    if (std::system(command.c_str()) == 0) {
        std::ifstream in(raw, std::ios::binary);
        std::vector<float> interleaved;
        float frame[2];
        while (in.read(reinterpret_cast<char*>(frame), sizeof frame))
            interleaved.insert(interleaved.end(), frame, frame + 2);
        if (!interleaved.empty()) {
            music.assign(2, Signal(interleaved.size() / 2));
            for (std::size_t n = 0; n < interleaved.size() / 2; ++n)
                music[0][n] = interleaved[2 * n], music[1][n] = interleaved[2 * n + 1];
        }
    }
    std::filesystem::remove_all(dir);
    return music;
}

}  // namespace kesta::test
