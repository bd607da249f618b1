#pragma once
// Batch use of a file command: `kesta COMMAND [OPTIONS] IN1 IN2 ... --out-dir DIR` runs the
// command once per input, each in a worker process of its own (at most -j N at a time), writing
// DIR/<input's name, --suffix before the extension>. One summary line per file, in the inputs'
// order; the first failure stops new files from starting unless --keep-going. The exit status is
// 0 when every file succeeded, else that of the first file that failed.

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kesta {

struct BatchOptions {
    std::string outDir;
    std::string suffix;
    int jobs = 0;  // 0: one worker per core
    bool keepGoing = false;
};

// Adds --out-dir, --suffix, -j/--jobs and --keep-going to a command's help. A single run refuses
// the other three without --out-dir.
void AddBatchOptions(CLI::App& command, BatchOptions& options);
void CheckSingleRun(const BatchOptions& options);

// When the command line asks for a batch (--out-dir after a command that `app` names, its options
// told apart from the inputs by `app`), runs it and returns the exit status; otherwise nullopt.
std::optional<int> RunBatchIfAsked(int argc, char** argv, const std::vector<CLI::App*>& fileCommands);

}  // namespace kesta
