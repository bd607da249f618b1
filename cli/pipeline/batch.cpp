#include "batch.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <thread>

#include "errors.h"
#include "json_writer.h"

extern char** environ;

namespace kesta {

namespace {

namespace fs = std::filesystem;

struct FileRun {
    std::string input, output;
    enum class State { Waiting, Running, Done, Skipped } state = State::Waiting;
    int status = 0;
    std::FILE* out = nullptr;  // the worker's stdout and stderr, kept until its line is printed
    std::FILE* err = nullptr;
};

// The value of a batch option at args[i] ("--out-dir DIR", "--out-dir=DIR", "-j4"), moving i past it.
std::optional<std::string> TakeValue(const std::vector<std::string>& args, std::size_t& i, const std::string& name) {
    const std::string& arg = args[i];
    if (arg == name) {
        if (i + 1 >= args.size()) throw UsageError(name + " needs a value", "", "give it after " + name);
        return args[++i];
    }
    if (arg.rfind(name + "=", 0) == 0) return arg.substr(name.size() + 1);
    if (name.size() == 2 && arg.size() > 2 && arg.rfind(name, 0) == 0) return arg.substr(2);  // -j4
    return std::nullopt;
}

int ParseJobs(const std::string& text) {
    std::size_t used = 0;
    int jobs = 0;
    try {
        jobs = std::stoi(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || jobs < 1 || jobs > 256)
        throw UsageError("-j " + text + " is not a number of workers", "", "give a whole number from 1 to 256");
    return jobs;
}

std::string ReadAll(std::FILE* file) {
    std::string text;
    if (file == nullptr) return text;
    std::rewind(file);
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof(buffer), file)) > 0;)
        text.append(buffer, n);
    std::fclose(file);
    return text;
}

// The worker's error line without its prefix, or its exit status in words.
std::string ErrorLine(const std::string& err, int status) {
    const std::string prefix = "kesta: error: ";
    const std::size_t at = err.rfind(prefix);
    if (at != std::string::npos) return err.substr(at + prefix.size(), err.find('\n', at) - at - prefix.size());
    return "stopped with exit status " + std::to_string(status);
}

pid_t Spawn(const std::vector<std::string>& args, FileRun& run) {
    run.out = std::tmpfile();
    run.err = std::tmpfile();
    if (run.out == nullptr || run.err == nullptr)
        throw OutputError("cannot start a worker", "no temporary file: " + SystemReason(errno), "free some space");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fileno(run.out), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fileno(run.err), STDERR_FILENO);
    std::vector<char*> argv;
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw CliError(kExitFault, "cannot start a worker", SystemReason(error), "run the files one by one");
    run.state = FileRun::State::Running;
    return pid;
}

}  // namespace

void AddBatchOptions(CLI::App& command, BatchOptions& options) {
    command.add_option("--out-dir", options.outDir, "Batch: every positional is an input, written into DIR")
        ->type_name("DIR")
        ->group("Batch");
    command.add_option("--suffix", options.suffix, "Batch: added to each output's name before its extension")
        ->type_name("TEXT")
        ->group("Batch");
    command.add_option("-j,--jobs", options.jobs, "Batch: files processed at once (default: one per core)")
        ->type_name("N")
        ->group("Batch");
    command.add_flag("--keep-going", options.keepGoing, "Batch: go on with the other files after a failure")
        ->group("Batch");
}

void CheckSingleRun(const BatchOptions& options) {
    if (!options.suffix.empty() || options.jobs != 0 || options.keepGoing)
        throw UsageError("--suffix, -j and --keep-going go only with --out-dir", "",
                         "give --out-dir DIR to process several files");
}

std::optional<int> RunBatchIfAsked(int argc, char** argv, const std::vector<CLI::App*>& fileCommands) {
    if (argc < 3) return std::nullopt;
    const std::vector<std::string> args(argv + 2, argv + argc);
    bool asked = false;
    for (const std::string& arg : args)
        asked = asked || arg == "--out-dir" || arg.rfind("--out-dir=", 0) == 0;
    CLI::App* app = nullptr;
    for (CLI::App* command : fileCommands)
        if (command->check_name(argv[1])) app = command;
    if (!asked || app == nullptr) return std::nullopt;

    // Batch options out, the command's options kept for every worker, the rest are the inputs.
    BatchOptions batch;
    std::vector<std::string> common = {argv[0], argv[1]}, inputs;
    bool json = false, quiet = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (auto v = TakeValue(args, i, "--out-dir")) {
            batch.outDir = *v;
        } else if (auto s = TakeValue(args, i, "--suffix")) {
            batch.suffix = *s;
        } else if (auto j = TakeValue(args, i, "--jobs")) {
            batch.jobs = ParseJobs(*j);
        } else if (auto k = TakeValue(args, i, "-j")) {
            batch.jobs = ParseJobs(*k);
        } else if (arg == "--keep-going") {
            batch.keepGoing = true;
        } else if (arg.size() > 1 && arg[0] == '-' && arg != "--") {
            json = json || arg == "--json";
            quiet = quiet || arg == "--quiet" || arg == "-q";
            common.push_back(arg);
            const std::string name = arg.substr(0, arg.find('='));
            const CLI::Option* option = app->get_option_no_throw(name);
            if (option == nullptr)
                throw UsageError("unknown option " + name, "",
                                 "run 'kesta " + app->get_name() + " --help' for its usage");
            if (arg.find('=') == std::string::npos && option->get_expected_max() != 0) {
                if (i + 1 >= args.size()) throw UsageError(name + " needs a value", "", "");
                common.push_back(args[++i]);
            }
        } else {
            inputs.push_back(arg);
        }
    }
    if (inputs.empty())
        throw UsageError("no input files given", "", "name the files to process before or after --out-dir DIR");
    if (batch.outDir.empty()) throw UsageError("--out-dir needs a directory", "", "give the directory to write into");
    std::error_code error;
    fs::create_directories(batch.outDir, error);
    if (error || !fs::is_directory(batch.outDir))
        throw OutputError("cannot use " + Quoted(batch.outDir) + " as the output directory",
                          error ? SystemReason(error.value()) : "it is not a directory",
                          "give a directory kesta can create or write in");

    std::vector<FileRun> runs(inputs.size());
    std::map<std::string, std::string> byOutput;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const fs::path in(inputs[i]);
        runs[i].input = inputs[i];
        runs[i].output =
            (fs::path(batch.outDir) / (in.stem().string() + batch.suffix + in.extension().string())).string();
        auto [at, fresh] = byOutput.emplace(runs[i].output, inputs[i]);
        if (!fresh)
            throw UsageError(Quoted(at->second) + " and " + Quoted(inputs[i]) + " would both be written to " +
                                 Quoted(runs[i].output),
                             "", "give the files different names, or process them in separate runs");
    }

    const int workers = batch.jobs > 0 ? batch.jobs : std::max(1, int(std::thread::hardware_concurrency()));
    std::map<pid_t, std::size_t> running;
    std::size_t next = 0, printed = 0, failed = 0;
    bool stopping = false;
    int firstFailure = 0;
    JsonWriter report(std::cout);
    if (json) report.BeginObject().Key("command").String(app->get_name()).Key("files").BeginArray();

    auto printReady = [&] {
        for (; printed < runs.size() &&
               (runs[printed].state == FileRun::State::Done || runs[printed].state == FileRun::State::Skipped);
             ++printed) {
            FileRun& run = runs[printed];
            const bool skipped = run.state == FileRun::State::Skipped;
            const std::string out = ReadAll(run.out), err = ReadAll(run.err);
            const std::string line =
                skipped ? "not started (an earlier file failed; --keep-going goes on)" : ErrorLine(err, run.status);
            if (json) {
                report.BeginObject().Key("input").String(run.input).Key("output").String(run.output);
                report.Key("status").String(skipped ? "skipped" : run.status == 0 ? "done" : "failed");
                report.Key("exit_status").Int(run.status);
                if (run.status == 0 && !skipped)
                    report.Key("error").Null();
                else
                    report.Key("error").String(line);
                report.Key("report");
                if (run.status == 0 && !skipped && !out.empty())
                    report.Raw(out);
                else
                    report.Null();
                report.EndObject();
                continue;
            }
            if (run.status == 0 && !skipped) {
                if (!quiet) {
                    std::cerr << err;  // its warnings
                    std::cout << "done     " << run.input << " -> " << run.output << "\n";
                }
            } else {
                std::cout << (skipped ? "skipped  " : "failed   ") << run.input << ": " << line << "\n";
            }
            std::cout.flush();
        }
    };

    while (next < runs.size() || !running.empty()) {
        while (!stopping && next < runs.size() && int(running.size()) < workers) {
            std::vector<std::string> worker = common;
            if (!json && !quiet) worker.push_back("--quiet");
            worker.push_back("--");
            worker.push_back(runs[next].input);
            worker.push_back(runs[next].output);
            running[Spawn(worker, runs[next])] = next;
            ++next;
        }
        if (stopping)
            for (; next < runs.size(); ++next)
                runs[next].state = FileRun::State::Skipped;
        if (running.empty()) break;
        int wstatus = 0;
        const pid_t pid = waitpid(-1, &wstatus, 0);
        if (pid < 0) {
            if (errno == EINTR) continue;
            throw CliError(kExitFault, "lost a worker", SystemReason(errno), "");
        }
        auto it = running.find(pid);
        if (it == running.end()) continue;
        FileRun& run = runs[it->second];
        running.erase(it);
        run.state = FileRun::State::Done;
        run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : kExitFault;
        if (run.status != 0) {
            ++failed;
            stopping = stopping || !batch.keepGoing;
        }
        printReady();
    }
    printReady();
    for (const FileRun& run : runs)
        if (run.status != 0) {
            firstFailure = run.status;
            break;
        }
    const auto skipped = std::count_if(runs.begin(), runs.end(),
                                       [](const FileRun& run) { return run.state == FileRun::State::Skipped; });
    if (json) {
        report.EndArray();
        report.Key("files_done").Int(int64_t(runs.size() - failed) - int64_t(skipped));
        report.Key("files_failed").Int(int64_t(failed));
        report.Key("files_skipped").Int(int64_t(skipped));
        report.EndObject();
    } else if (!quiet || failed > 0) {
        std::cout << runs.size() - failed - std::size_t(skipped) << " of " << runs.size() << " file(s) done";
        if (failed > 0) std::cout << ", " << failed << " failed";
        if (skipped > 0) std::cout << ", " << skipped << " not started";
        std::cout << "\n";
    }
    return firstFailure;
}

}  // namespace kesta
