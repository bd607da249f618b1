#include "command_line.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "command_support.h"
#include "errors.h"

namespace kesta {

namespace {

// Edits that turn one name into the other: insertions, deletions, substitutions and swaps of two
// neighbouring letters (the usual slips of typing).
std::size_t TypingDistance(std::string_view a, std::string_view b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (std::size_t j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i)
        for (std::size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}

std::string Bare(std::string_view name) {
    while (!name.empty() && name.front() == '-')
        name.remove_prefix(1);
    return std::string(name);
}

bool IsValue(const std::string& token) {
    // "-", "-6", "-.5", "-2,3,0": values; "-q", "--db": options.
    return token.size() < 2 || token[0] != '-' || std::isdigit(static_cast<unsigned char>(token[1])) ||
           token[1] == '.' || token == "--";
}

}  // namespace

std::string NearestName(const std::string& typed, const std::vector<std::string>& candidates) {
    const std::string bare = Bare(typed);
    std::string best;
    std::size_t bestDistance = std::string::npos;
    for (const std::string& candidate : candidates) {
        const std::string name = Bare(candidate);
        std::size_t distance = TypingDistance(bare, name);
        if (bare.size() >= 3 && name.compare(0, bare.size(), bare) == 0) distance = 1;  // an abbreviation
        if (distance < bestDistance) {
            bestDistance = distance;
            best = candidate;
        }
    }
    const std::size_t allowed = bare.size() <= 3 ? 1 : 2;
    return bestDistance <= allowed ? best : std::string();
}

void RefuseUnknownOptions(const CLI::App& kesta, int argc, char** argv) {
    const CLI::App* app = &kesta;
    int first = 1;
    if (argc > 1 && argv[1][0] != '-') {
        for (const CLI::App* sub : kesta.get_subcommands({}))
            if (sub->check_name(argv[1])) app = sub;
        first = 2;
    }
    std::vector<std::string> names = {"--help"};
    if (app == &kesta) names.push_back("--version");
    for (const CLI::Option* option : app->get_options()) {
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
    }
    const auto known = [&](const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end() || app->get_option_no_throw(name) != nullptr;
    };

    const std::string hint =
        app == &kesta ? "run 'kesta --help' for usage" : "run 'kesta " + app->get_name() + " --help' for its options";
    for (int i = first; i < argc; ++i) {
        const std::string token = argv[i];
        if (token == "--") break;
        if (IsValue(token)) continue;
        std::string name;
        if (token[1] == '-') {
            name = token.substr(0, token.find('='));
            if (known(name)) continue;
        } else {
            // One or more short flags run together: -q, -qf.
            std::size_t letter = 1;
            while (letter < token.size() && known(std::string{'-', token[letter]}))
                ++letter;
            if (letter == token.size()) continue;
            name = std::string{'-', token[letter]};
        }
        const std::string nearest = NearestName(name, names);
        throw UsageError("unknown option " + name + (nearest.empty() ? "" : "; did you mean " + nearest + "?"), "",
                         hint);
    }
}

}  // namespace kesta
