// The run of a command that turns INPUT into OUTPUT through its stage.

#include <memory>

#include "command.h"
#include "io/block_reader.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"

namespace kesta {

int RunProcessing(const Processing& job) {
    if (job.check) job.check();
    const Stopwatch clock;
    Console console(job.report);

    BlockReader reader(job.input);
    const AudioFormat format = reader.Format();
    const std::unique_ptr<Stage> stage = job.stage({job.input, format, true, console});
    AudioOutput output(job.output, reader, {{job.input, reader.Identity()}}, job.out, {stage.get()});
    const Stopwatch processClock;
    {
        Progress progress(job.command, reader.HeaderFrames(), format.sampleRate, console.ShowsProgress());
        StreamStages(reader, output, {stage.get()}, progress);
        output.Commit();
    }
    const double processSeconds = processClock.Seconds();
    WarnAfterStream(console, reader, output, job.clippingAdvice(output));

    JobReport report(console, job.command);
    const ProcessingDone done{*stage, output, reader.FramesRead(), format.sampleRate, processSeconds, clock.Seconds()};
    std::string summary = output.Summary();
    if (job.describe) summary += job.describe(report, done);
    if (job.timed) {
        summary.append(" ").append(RealTimeText(done.frames, done.rate, done.totalSeconds));
        report.RealTime(done.frames, done.rate);
    }
    report.Input(job.input, format, reader.FramesRead()).Output(output).Line(summary);
    return report.Print(clock.Seconds());
}

}  // namespace kesta
