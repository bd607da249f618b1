#include <algorithm>
#include <cassert>
#include <cmath>

#include "dsp/nohiss.h"
#include "dsp/restoration/nohiss/hiss_record.h"

namespace dsp::nohiss {

void ComputeThresholdsFromFloor(NOHISS* record, float sensitivityDb, int spreadBins) {
    if (record->floorRows == nullptr || record->thresholdRows == nullptr || !record_checks::ValidShape(record)) return;
    assert(record_checks::ArraysHold(record, record->channels, record->fftSize) &&
           "ComputeThresholdsFromFloor: more channels or bins than the record's arrays hold");
    const int N = record->fftSize;
    const int half = N / 2;
    const int spread = std::max(spreadBins, 0);
    const double factor = std::pow(10.0, static_cast<double>(sensitivityDb) / 20.0);
    // Bins 0..2 are never recorded by the capture and never touched by the process; 0 says so.
    constexpr int kFirst = 3;

    for (int c = 0; c < record->channels; ++c) {
        const double* floorRow = record->floorRows[c];
        float* threshold = record->thresholdRows[c];
        std::fill_n(threshold, N, 0.0f);
        for (int k = kFirst; k <= half; ++k) {
            // A plain window maximum: 2 * spread + 1 reads per bin, negligible beside a capture.
            const int from = std::max(kFirst, k - spread);
            const int to = std::min(half, k + spread);
            double peak = 0.0;
            for (int j = from; j <= to; ++j)
                peak = std::max(peak, floorRow[j]);
            threshold[k] = static_cast<float>(peak * factor);
        }
    }
}

}  // namespace dsp::nohiss
