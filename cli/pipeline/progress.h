#pragma once
// A one-line progress bar on stderr, drawn only when it is enabled (stderr is a terminal and the
// person did not ask for --quiet). It redraws at most a few times a second and erases itself when
// done or destroyed, so an error line that follows starts on a clean line.
//
//   gain  [##############..............]  48%  0:01:12 of 0:02:30  about 0:04 left

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kesta {

class Progress {
public:
    // totalFrames: nullopt when the length is not known in advance (then only the audio time done is shown).
    Progress(std::string label, std::optional<int64_t> totalFrames, int sampleRate, bool enabled);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Advance(int64_t frames);
    // Moves on to the next pass of a job whose passes the bar counts together: shows `label` from now on.
    void Next(std::string label);
    // Erases the bar.
    void Finish();

    static bool StderrIsTerminal();

private:
    void Draw();

    std::string mLabel;
    std::optional<int64_t> mTotal;
    int mSampleRate;
    bool mEnabled;
    bool mDrawn = false;
    int64_t mDone = 0;
    std::chrono::steady_clock::time_point mStart;
    std::chrono::steady_clock::time_point mLastDraw;
};

}  // namespace kesta
