// The command-line conventions of the client's programs, on top of CLI11:
// options may stand before or after the command words, -h is free for
// --host (help is --help, per command too), a usage error prints one
// "PROGRAM: why" line and the usage of the command it concerns to standard
// error and exits 1, and numbers are whole decimal or 0x hex within bounds.
#ifndef KESTRIX_CLIENT_KXCMDLINE_H_
#define KESTRIX_CLIENT_KXCMDLINE_H_

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace kestrix::client {

constexpr int kExitUsage = 1;

// Help as --help only, the usage's labels and widths. Call before adding
// subcommands: they take the help flag over from their parent.
void SetUpCommandLine(CLI::App& app);

// Parses argv into app. Nothing when the program is to go on with the
// command given; otherwise the exit status: 0 after --help (help of the
// command named, on standard output), kExitUsage after a usage error.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv);

// The deepest command given (app itself when none).
const CLI::App& GivenCommand(const CLI::App& app);

// Prints "PROGRAM: why" (when why is not empty) and the usage of the command
// given to standard error; kExitUsage.
int UsageError(const CLI::App& app, const std::string& why);

// Accepts a whole number (decimal, 0x hex) within [low, high]; otherwise
// "bad NOUN 'TEXT'".
CLI::Validator Within(long long low, long long high, const std::string& noun = "number");

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXCMDLINE_H_
