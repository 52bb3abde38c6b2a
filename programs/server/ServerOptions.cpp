#include "ServerOptions.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string_view>

#include "NumberText.h"
#include "OptionParsing.h"

namespace korlo::daemon
{
namespace
{

[[noreturn]] void Refuse(const std::string& message)
{
    throw EarlyExit(WrongCommandLine, message);
}

/// A decimal number in a range, digits only.
unsigned long long ParseNumber(const std::string& option, std::string_view text, unsigned long long least,
                               unsigned long long most)
{
    const std::optional<unsigned long long> number = NumberIn<unsigned long long>(text);
    if (!number || *number < least || *number > most)
    {
        Refuse(option + ": '" + std::string(text) + "' is not a number from " + std::to_string(least) + " to " +
               std::to_string(most));
    }
    return *number;
}

ServerOptions::Door ParseDoor(const std::string& text)
{
    constexpr std::string_view unixPrefix = "unix:";
    if (text.starts_with(unixPrefix) && text.size() > unixPrefix.size())
    {
        return {text, 0};
    }
    const std::size_t colon = text.rfind(':');
    const std::string address = text.substr(0, colon);
    const bool isBracketed = address.starts_with('[') && address.ends_with(']');
    if (colon == std::string::npos || address.empty() || (!isBracketed && address.find(':') != std::string::npos) ||
        text.starts_with(unixPrefix))
    {
        Refuse("--listen: '" + text + "' is neither ADDRESS:PORT (an IPv6 address in square brackets) nor unix:PATH");
    }
    const auto port = static_cast<unsigned short>(
        ParseNumber("--listen", text.substr(colon + 1), 0, std::numeric_limits<unsigned short>::max()));
    return {isBracketed ? address.substr(1, address.size() - 2) : address, port};
}

unsigned int ParseMode(const std::string& text)
{
    constexpr int octal = 8;
    constexpr unsigned int mostMode = 0777;
    const unsigned int mode = NumberIn<unsigned int>(text, octal).value_or(mostMode + 1);
    if (mode > mostMode)
    {
        Refuse("--socket-mode: '" + text + "' is no octal mode from 0 to 777, such as 0660");
    }
    return mode;
}

SaveBy ParseSaveBy(const std::string& text)
{
    if (text != "replace" && text != "append")
    {
        Refuse("--save-by: '" + text + "' is neither replace nor append");
    }
    return text == "append" ? SaveBy::Appending : SaveBy::Replacing;
}

/// An option that takes a number in a range.
template <typename Number>
void AddNumber(CLI::App& app, const std::string& name, const std::string& unit, const std::string& description,
               Number& target, unsigned long long least, unsigned long long most)
{
    app.add_option_function<std::string>(
           name,
           [&target, name, least, most](const std::string& text) {
               target = static_cast<Number>(ParseNumber(name, text, least, most));
           },
           description)
        ->type_name(unit)
        ->take_last()
        ->default_str(std::to_string(target));
}

/// An option that may be repeated.
void AddFiles(CLI::App& app, const std::string& name, const std::string& description, std::vector<std::string>& target)
{
    app.add_option(name, target, description)->type_name("FILE-OR-FOLDER")->allow_extra_args(false);
}

void AddOptions(CLI::App& app, ServerOptions& options)
{
    constexpr unsigned long long mostBytes = 0x7FFFFFFF;  // what 32 bits can address comes to an end there
    app.set_help_flag("-h,--help", "Print this help and exit; so does -h");
    app.set_version_flag("--version", KORLO_VERSION, "Print the version and exit");
    app.add_option_function<std::vector<std::string>>(
           "--listen",
           [&options](const std::vector<std::string>& texts) {
               std::transform(texts.begin(), texts.end(), std::back_inserter(options.listen), ParseDoor);
           },
           "Where clients connect; may be repeated. Port 0 picks a free one, an IPv6 address stands in brackets, "
           "unix:PATH is a Unix-domain socket")
        ->type_name("ADDRESS")
        ->allow_extra_args(false)
        ->default_str("127.0.0.1:4711");
    app.add_option_function<std::string>(
           "--socket-mode", [&options](const std::string& text) { options.socketMode = ParseMode(text); },
           "The mode of the files of Unix-domain sockets that --listen makes")
        ->type_name("MODE")
        ->take_last()
        ->default_str("0660");
    app.add_option("--socket-group", options.socketGroup,
                   "The group of these files, by name or number; the server's own without it")
        ->type_name("GROUP")
        ->take_last();
    app.add_option("--control", options.controlPath,
                   "The path of the control door, a Unix-domain socket for the device's operator")
        ->type_name("PATH")
        ->take_last();
    AddFiles(app, "--defaults", "Default settings; may be repeated, and later ones win", options.defaults);
    app.add_option("--user", options.userPath, "The file that keeps what clients persist")
        ->type_name("FILE")
        ->take_last()
        ->default_str(options.userPath);
    AddFiles(app, "--restricted", "Restricted settings, which no client can change; may be repeated",
             options.restricted);
    AddFiles(app, "--access",
             "Rules that say who may read and change what; may be repeated. Without it everybody may everything",
             options.access);
    app.add_flag("--check", options.checksOnly, "Read every file, tell what is wrong with them, and end with 0 or 1");
    AddNumber(app, "--save-delay", "MS", "Milliseconds for which changes are gathered before they are saved",
              options.saveDelayMs, 0, 24ull * 60 * 60 * 1000);
    app.add_option_function<std::string>(
           "--save-by", [&options](const std::string& text) { options.saveBy = ParseSaveBy(text); },
           "How changes come to the disk: replace writes the user file anew, append adds each to a log beside it")
        ->type_name("replace|append")
        ->take_last()
        ->default_str("replace");
    AddNumber(app, "--journal", "N", "The last changes that the journal keeps in memory; 0 keeps none", options.journal,
              0, Journal::MostEntries);
    AddNumber(app, "--max-clients", "N", "The most clients at once", options.limits.maxClients, 1, 1'000'000);
    AddNumber(app, "--max-backlog", "BYTES", "The most that may wait for one client's socket",
              options.limits.maxBacklog, 1, mostBytes);
    AddNumber(app, "--max-message", "BYTES", "The most that one request may hold", options.limits.maxMessage, 1,
              mostBytes);
    AddNumber(app, "--log-level", "0..4", "What is logged: nothing, errors, warnings, information or traces",
              options.logLevel, 0, 4);
}

HelpFrame Help()
{
    return {
        "korlo-settings-server [OPTION]...",
        "  korlo-settings-server --defaults defaults.d --restricted restricted.d --user user.ini\n"
        "  korlo-settings-server --listen 127.0.0.1:0 --user user.ini --save-delay 2000 --log-level 3\n",
        "If an option that takes one value is repeated, the last one wins. Exit status: 0 after SIGTERM or SIGINT; 2 "
        "the command line was wrong; 1 an address or a file could not be used, or the last save failed."};
}

}  // namespace

const ServerOptions::Door& ServerOptions::DefaultDoor()
{
    static const Door door{"127.0.0.1", 4711};
    return door;
}

ServerOptions ParseOptions(int argc, const char* const* argv)
{
    ServerOptions options;
    CLI::App app("Holds the settings of a device and serves them to its programs.");
    AddOptions(app, options);
    ParseOptionsOf(app, "korlo-settings-server", Help(), argc, argv);
    options.userPathIsGiven = app.count("--user") > 0;
    options.limits.savesAtOnce = options.saveDelayMs == 0;
    return options;
}

}  // namespace korlo::daemon
