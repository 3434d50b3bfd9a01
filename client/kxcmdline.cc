// The client programs' command-line conventions on top of CLI11 (see the
// header): command words are moved before the options that precede them,
// so that CLI11, which takes a command's options after its word, accepts
// them on either side; parse errors become one line and the usage.
#include "client/kxcmdline.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <vector>

namespace kestrix::client {

namespace {

// "-x", "--xy", "--xy=v", but not "-", "--" or a negative number.
bool IsOption(const std::string& arg) {
  return arg.size() > 1 && arg[0] == '-' && arg != "--" && std::isdigit(static_cast<unsigned char>(arg[1])) == 0;
}

// The option named by arg ("--name", "--name=value", "-n", "-nVALUE") in app
// or any of its commands, or nullptr.
const CLI::Option* FindOption(CLI::App& app, const std::string& arg) {
  std::string name = arg.substr(0, arg[1] == '-' ? arg.find('=') : 2);
  if (const CLI::Option* o = app.get_option_no_throw(name)) return o;
  for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
    if (const CLI::Option* o = FindOption(*sub, arg)) return o;
  return nullptr;
}

// Moves each command word to the front of what follows its parent's word,
// skipping options and their values: "--lease 5 map KEY" becomes
// "map --lease 5 KEY". A first word that is no command stays where it is.
void CommandsFirst(CLI::App& root, CLI::App& app, std::vector<std::string>& args, size_t from) {
  for (size_t i = from; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--") return;
    if (IsOption(arg)) {
      const CLI::Option* o = FindOption(root, arg);
      const bool inlineValue = arg[1] == '-' ? arg.find('=') != std::string::npos : arg.size() > 2;
      if (o != nullptr && o->get_expected_max() > 0 && !inlineValue) ++i;
      continue;
    }
    std::vector<CLI::App*> named = app.get_subcommands([&](CLI::App* s) { return s->check_name(arg); });
    if (named.empty()) return;
    std::rotate(args.begin() + static_cast<long>(from), args.begin() + static_cast<long>(i),
                 args.begin() + static_cast<long>(i) + 1);
    CommandsFirst(root, *named[0], args, from + 1);
    return;
  }
}

CLI::App& Given(CLI::App& app) {
  std::vector<CLI::App*> given = app.get_subcommands();
  return given.empty() ? app : Given(*given[0]);
}

// One line for a parse error, in the terms of the command it concerns.
std::string Explain(CLI::App& app, const CLI::ParseError& e) {
  CLI::App& given = Given(app);
  const std::string name = given.get_parent() != nullptr ? given.get_name() : "";
  const std::vector<std::string> extra = app.remaining(true);
  const bool wantsCommand = given.get_require_subcommand_min() > 0 && given.get_subcommands().empty();
  if (!extra.empty()) {
    const std::string& first = extra[0];
    if (IsOption(first)) {
      const std::string option = first.substr(0, first.find('='));
      if (!name.empty() && FindOption(app, first) != nullptr) return "'" + name + "' takes no " + option + " option";
      return "unknown option " + option;
    }
    if (wantsCommand) return "unknown " + (name.empty() ? "" : name + " ") + "command " + first;
    if (given.get_options([](const CLI::Option* o) { return o->get_positional(); }).empty())
      return name + " takes no arguments";
    return "unexpected argument '" + first + "'";
  }
  if (wantsCommand) return name.empty() ? "" : name + " needs a command";
  return e.what();
}

// Lists each command with its arguments ("map KEY [START] [LENGTH]").
class Format : public CLI::Formatter {
 public:
  std::string make_subcommand(const CLI::App* sub) const override {
    std::string synopsis = sub->get_display_name(true);
    for (const CLI::Option* o : sub->get_options([](const CLI::Option* o) { return o->get_positional(); }))
      synopsis += o->get_required() ? " " + o->get_name() : " [" + o->get_name() + "]";
    if (!sub->get_subcommands({}).empty()) synopsis += " COMMAND";
    std::stringstream out;
    CLI::detail::format_help(out, synopsis, sub->get_description(), column_width_);
    return out.str();
  }
};

}  // namespace

void SetUpCommandLine(CLI::App& app) {
  app.set_help_flag("--help", "this help (after a command: the command's)");
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);  // the last one given wins
  auto format = std::make_shared<Format>();
  format->column_width(28);
  format->label("SUBCOMMAND", "COMMAND");
  format->label("Positionals", "Arguments");
  format->label("REQUIRED", "");
  app.formatter(format);
}

std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  CommandsFirst(app, app, args, 0);
  std::reverse(args.begin(), args.end());  // CLI11 takes the words from the back
  try {
    app.parse(args);
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return 0;
  } catch (const CLI::ParseError& e) {
    return UsageError(app, Explain(app, e));
  }
  return std::nullopt;
}

const CLI::App& GivenCommand(const CLI::App& app) { return Given(const_cast<CLI::App&>(app)); }

int UsageError(const CLI::App& app, const std::string& why) {
  const CLI::App* root = &app;
  while (root->get_parent() != nullptr) root = root->get_parent();
  if (!why.empty()) std::fprintf(stderr, "%s: %s\n", root->get_name().c_str(), why.c_str());
  std::fputs(root->help().c_str(), stderr);
  return kExitUsage;
}

CLI::Validator Within(long long low, long long high, const std::string& noun) {
  return CLI::Validator(
      [=](const std::string& text) -> std::string {
        char* end = nullptr;
        errno = 0;
        const long long value = std::strtoll(text.c_str(), &end, 0);
        if (text.empty() || errno != 0 || *end != '\0' || value < low || value > high)
          return "bad " + noun + " '" + text + "' (" + std::to_string(low) + " to " + std::to_string(high) + ")";
        return "";
      },
      "");
}

}  // namespace kestrix::client
