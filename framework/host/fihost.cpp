// fihost: loads the fikiv plug-in the way the framework host does and drives
// it from the command line, one subcommand per task.
//
// The frame around the subcommands: the global options, usage errors (exit
// 2, one line saying what is wrong and where to look), the machine the
// command works on, --json (one document on stdout), and an output that
// could not be written (exit 1, never 0).
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "sim/machine.h"

namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  fihost volumes                       which volumes the provider takes, and why not\n"
    "  fihost plan C: E:                    where the cache files of a snapshot would go\n"
    "  fihost --machine lab.json machine    the volumes of another machine\n"
    "  fihost --json caches                 the cache files per volume, as JSON\n"
    "  fihost -v config-info                with the provider's log lines\n"
    "\n"
    "The machine is the one --machine names, else the one FIKIV_MACHINE names, else the\n"
    "built-in default machine (docs/machine.md).\n"
    "Exit codes: 0 success, 1 the operation failed, 2 the command line is wrong.";

// Copies everything written to it into `copy` and on to `next`.
class TeeBuffer final : public std::streambuf {
  public:
    TeeBuffer(std::streambuf* next, std::string& copy) : next_(next), copy_(copy) {}

  protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        copy_.push_back(traits_type::to_char_type(c));
        return next_->sputc(traits_type::to_char_type(c));
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        copy_.append(text, static_cast<std::size_t>(count));
        return next_->sputn(text, count);
    }
    int sync() override { return next_->pubsync(); }

  private:
    std::streambuf* next_;
    std::string& copy_;
};

// Lines of a text, without the line ends; a last line without one counts.
nlohmann::json linesOf(const std::string& text) {
    nlohmann::json lines = nlohmann::json::array();
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t above = row[j];
            row[j] =
                std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string commandList() {
    std::string names;
    for (const fihost::Command& command : fihost::commandTable()) {
        names += (names.empty() ? "" : ", ") + std::string(command.name);
    }
    return names;
}

// "unknown command 'plna'; did you mean 'plan'?" and the list of commands.
std::string unknownCommandText(const std::string& word) {
    std::string closest;
    std::size_t best = 3;  // more than two edits away is no suggestion
    for (const fihost::Command& command : fihost::commandTable()) {
        std::size_t distance = editDistance(word, command.name);
        if (distance < best) {
            best = distance;
            closest = command.name;
        }
    }
    std::string text = "unknown command '" + word + "'";
    if (!closest.empty()) {
        return text + "; did you mean '" + closest + "'?";
    }
    return text + "; the commands are: " + commandList();
}

// CLI11's texts, reworded where they leave the reader guessing.
std::string usageText(const CLI::ParseError& error) {
    std::string text = error.what();
    // "--machine: 1 required TEXT missing"
    std::size_t missing = text.find(": 1 required ");
    if (missing != std::string::npos && text.ends_with(" missing")) {
        return "option " + text.substr(0, missing) + " needs a value";
    }
    // The positional arguments, named as the user meets them.
    if (text == "volumes is required") {
        return "name the volumes, such as C: E:";
    }
    if (text == "action is required") {
        return "say what to do with the agent: start, stop or status";
    }
    if (!text.empty()) {
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    }
    return text;
}

bool wantsJson(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) {
            return false;
        }
        if (std::strcmp(argv[i], "--json") == 0) {
            return true;
        }
    }
    return false;
}

// Flushes stdout; an output that could not be written fails the command.
int finish(int exitCode) {
    std::cout.flush();
    if (!std::cout || std::fflush(stdout) != 0) {
        int error = errno;
        std::cerr << "fihost: cannot write the output: "
                  << (error != 0 ? std::strerror(error) : "write error") << "\n";
        return exitCode == fihost::kExitOk ? fihost::kExitFailed : exitCode;
    }
    return exitCode;
}

int usageError(bool json, const std::string& text, const std::string& helpHint) {
    std::cerr << "fihost: " << text << "\n" << helpHint << "\n";
    if (json) {
        nlohmann::json document = {{"exitCode", fihost::kExitUsage}, {"error", text}};
        std::cout << document.dump(2) << "\n";
    }
    return finish(fihost::kExitUsage);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"fihost: takes, lists and explains snapshots through the fikiv provider plug-in"};
    app.footer(kExamples);
    app.require_subcommand(0, 1);
    // Global options may also follow the subcommand: fihost providers --json
    app.fallthrough();

    fihost::GlobalOptions options;
    options.pluginPath = fihost::defaultPluginPath();
    bool verbose = false;
    bool trace = false;
    bool json = false;
    app.add_option("--plugin", options.pluginPath, "Path of the plug-in library")
        ->capture_default_str();
    app.add_option("--machine", options.machineFile,
                   "Machine description to work on (default: FIKIV_MACHINE, else the built-in "
                   "default machine)");
    app.add_flag("-v,--verbose", verbose,
                 "Show the provider's log lines (information, warnings, errors) on stderr");
    app.add_flag("--trace", trace, "Show the provider's trace lines too");
    app.add_option("--lang", options.locale,
                   "Catalogue locale for the provider's messages, such as de");
    app.add_flag("--json", json, "Print one JSON document on stdout instead of text");

    const std::vector<fihost::Command>& table = fihost::commandTable();
    std::vector<fihost::CommandRun> runners(table.size());
    std::vector<CLI::App*> subcommands(table.size());
    for (std::size_t i = 0; i < table.size(); ++i) {
        subcommands[i] = app.add_subcommand(table[i].name, table[i].description);
        runners[i] = table[i].configure(*subcommands[i]);
    }
    // Words the top level does not know are collected, so that an unknown
    // command or option can be named; the subcommands still refuse theirs.
    app.allow_extras();

    const bool jsonRequested = wantsJson(argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return finish(app.exit(help));
    } catch (const CLI::CallForAllHelp& help) {
        return finish(app.exit(help));
    } catch (const CLI::ParseError& error) {
        std::string where = "fihost --help";
        for (std::size_t i = 0; i < table.size(); ++i) {
            if (subcommands[i]->parsed()) {
                where = std::string("fihost ") + table[i].name + " --help";
            }
        }
        return usageError(jsonRequested, usageText(error), "Run '" + where + "' for the usage.");
    }

    std::size_t chosen = table.size();
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (subcommands[i]->parsed()) {
            chosen = i;
        }
    }
    std::vector<std::string> extras = app.remaining();
    if (chosen == table.size()) {
        if (!extras.empty() && !extras.front().empty() && extras.front()[0] != '-') {
            return usageError(json, unknownCommandText(extras.front()),
                              "Run 'fihost --help' for the usage.");
        }
        if (!extras.empty()) {
            return usageError(json, "unknown option " + extras.front(),
                              "Run 'fihost --help' for the usage.");
        }
        return usageError(json, "a command is required; the commands are: " + commandList(),
                          "Run 'fihost --help' for the usage.");
    }
    const std::string helpHint =
        std::string("Run 'fihost ") + table[chosen].name + " --help' for the usage.";
    if (!extras.empty()) {
        const std::string& word = extras.front();
        return usageError(
            json,
            (word.size() > 1 && word[0] == '-' ? "unknown option " : "unexpected argument ") +
                word + " for " + table[chosen].name,
            helpHint);
    }

    if (!options.machineFile.empty()) {
        setenv("FIKIV_MACHINE", options.machineFile.c_str(), 1);
    }
    fihost::Output output(json, trace     ? fihost::Verbosity::kTrace
                                : verbose ? fihost::Verbosity::kLog
                                          : fihost::Verbosity::kQuiet);
    options.output = &output;

    // With --json the command's text is collected rather than printed, and
    // what it says on stderr is kept for the document too.
    std::ostringstream text;
    std::string diagnostics;
    TeeBuffer errorTee(std::cerr.rdbuf(), diagnostics);
    std::streambuf* const stdoutBuffer = std::cout.rdbuf();
    std::streambuf* const stderrBuffer = std::cerr.rdbuf();
    if (json) {
        std::cout.rdbuf(text.rdbuf());
        std::cerr.rdbuf(&errorTee);
    }

    int exitCode = fihost::kExitFailed;
    std::string machineError;
    if (sim::Machine::currentOrNull(&machineError) == nullptr) {
        std::cerr << "fihost: " << machineError << "\n";
    } else {
        exitCode = runners[chosen](options);
    }

    if (json) {
        std::cout.rdbuf(stdoutBuffer);
        std::cerr.rdbuf(stderrBuffer);
        nlohmann::json document = {{"command", table[chosen].name}, {"exitCode", exitCode}};
        if (output.hasResult()) {
            document["result"] = output.result();
        } else {
            document["output"] = linesOf(text.str());
        }
        document["messages"] = output.messages();
        document["diagnostics"] = linesOf(diagnostics);
        std::cout << document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    }
    return finish(exitCode);
}
