#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "units.h"

namespace kesta {

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(200);

int TerminalColumns() {
    struct winsize size {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
    return 80;
}

}  // namespace

Progress::Progress(std::string label, std::optional<int64_t> totalFrames, int sampleRate, bool enabled)
    : mLabel(std::move(label)),
      mTotal(totalFrames),
      mSampleRate(sampleRate),
      mEnabled(enabled),
      mStart(std::chrono::steady_clock::now()),
      mLastDraw(mStart) {
    if (mTotal && *mTotal <= 0) mTotal.reset();
}

Progress::~Progress() {
    Finish();
}

bool Progress::StderrIsTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}

void Progress::Advance(int64_t frames) {
    mDone += frames;
    if (!mEnabled) return;
    const auto now = std::chrono::steady_clock::now();
    if (mDrawn && now - mLastDraw < kRedrawInterval) return;
    mLastDraw = now;
    Draw();
}

void Progress::Next(std::string label) {
    mLabel = std::move(label);
    if (mEnabled && mDrawn) Draw();
}

void Progress::Finish() {
    if (!mDrawn) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    mDrawn = false;
}

void Progress::Draw() {
    // Built with append: GCC 12 misreports chains of string concatenation (-Wrestrict).
    std::string line = mLabel;
    line.append("  ");
    const std::string done = FormatClock(double(mDone) / mSampleRate, false);
    if (mTotal) {
        const double fraction = std::clamp(double(mDone) / double(*mTotal), 0.0, 1.0);
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - mStart).count();
        std::string tail = "  ";
        tail.append(std::to_string(int(fraction * 100.0))).append("%  ").append(done).append(" of ");
        tail.append(FormatClock(double(*mTotal) / mSampleRate, false));
        if (fraction > 0.02 && elapsed > 1.0)
            tail.append("  about ").append(FormatClock(elapsed * (1.0 - fraction) / fraction, false)).append(" left");
        // Room for the longest tail, so the bar keeps its length as the estimate comes and goes.
        const int reserve = int(std::max<std::size_t>(tail.size(), 48));
        const int width = std::max(10, TerminalColumns() - 3 - int(line.size()) - reserve);
        const int filled = int(fraction * width);
        line.append("[").append(std::size_t(filled), '#').append(std::size_t(width - filled), '.').append("]");
        line.append(tail);
    } else {
        line.append(done).append(" done");
    }
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
    mDrawn = true;
}

}  // namespace kesta
