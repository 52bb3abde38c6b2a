#include "CommandLine.h"

#include <algorithm>
#include <iterator>
#include <memory>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>

namespace korlo::settings::cli
{
namespace
{

using Arguments = std::vector<std::string>;

constexpr const char* EndOfOptions = "--";

/// Help as the rest of the tool speaks: the synopsis as it is written in the table.
class HelpFormatter : public CLI::Formatter
{
public:
    explicit HelpFormatter(const std::string& synopsis) : _synopsis(synopsis) {}

    std::string make_usage(const CLI::App*, std::string) const override
    {
        return "Usage: korlo-settings " + _synopsis + '\n';
    }

private:
    const std::string _synopsis;
};

std::string CommandList()
{
    constexpr std::size_t column = 20;
    std::string list = "Commands:\n";
    for (const Command& command : AllCommands())
    {
        std::string line = std::string("  ") + command.name;
        line.resize(std::max(line.size() + 1, column), ' ');
        list += line + command.summary + '\n';
    }
    return list +
           "\n"
           "'korlo-settings COMMAND --help' says more, with examples. Groups are given by name or by a pattern,\n"
           "in which '*' stands for anything. Without --server and --local the environment variable\n"
           "KORLO_SETTINGS_LOCALFILE may name a file, which is then read but never written.\n\n"
           "Exit status: 0 done; 1 no (no such key, no group matches, other values were found); 2 the command\n"
           "line was wrong; 3 the server could not be reached or a file could not be used.";
}

/// What follows the options of the tool, with those put into `invocation`.
Arguments TakeToolOptions(CLI::App& app, const Arguments& arguments, Invocation& invocation)
{
    app.prefix_command();
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", std::string("korlo-settings ") + KORLO_VERSION, "Print the version and exit");
    CLI::Option* pServer = app.add_option("--server", invocation.target.server, "The settings server to talk to");
    pServer->type_name("HOST:PORT");
    app.add_option("--local", invocation.target.localFile, "Work on this file, in this process, without a server")
        ->type_name("FILE")
        ->excludes(pServer);
    app.add_flag("--json", invocation.asJson, "Print results as JSON");
    app.formatter(std::make_shared<HelpFormatter>("[--server HOST:PORT | --local FILE] [--json] COMMAND ..."));
    app.footer(CommandList());
    app.parse(Arguments(arguments.rbegin(), arguments.rend()));

    Arguments rest = app.remaining();
    if (!rest.empty() && rest.front() == EndOfOptions)
    {
        rest.erase(rest.begin());
    }
    return rest;
}

void DeclareCommand(CLI::App& app, const Command& command, Invocation& invocation)
{
    app.set_help_flag("-h,--help", "Print this help and exit");
    if ((command.options & NoPersistOption) != 0)
    {
        app.add_flag("--no-persist", invocation.noPersist,
                     "Do not save the change: it is gone when the server, or this process on a --local FILE, ends");
    }
    if ((command.options & WithOption) != 0)
    {
        app.add_option("--with", invocation.with, "The document with the new groups")->type_name("FILE");
    }
    if ((command.options & CountOption) != 0)
    {
        app.add_option("--count", invocation.count, "End after that many changes")
            ->type_name("N")
            ->check(CLI::PositiveNumber);
    }
    if ((command.options & AllOption) != 0)
    {
        app.add_flag("--all", invocation.all, "Print all settings, not the user layer alone");
    }
    app.description(std::string(command.summary) + "\n\n" + command.manual);
    app.formatter(std::make_shared<HelpFormatter>(std::string("[--server HOST:PORT | --local FILE] [--json] ") +
                                                  command.name + ' ' + command.synopsis));
    app.footer(std::string("Examples:\n") + command.examples);
}

/// The option of the command that `argument` names, alone or with its value; null for none.
const CLI::Option* FindOption(const CLI::App& app, const std::string& argument)
{
    return argument.starts_with("--") ? app.get_option_no_throw(argument.substr(0, argument.find('='))) : nullptr;
}

bool TakesValue(const CLI::Option* pOption)
{
    return pOption->get_items_expected_max() > 0;
}

bool IsFlag(const CLI::Option* pOption)
{
    return pOption != nullptr && !TakesValue(pOption);
}

/// Moves the last option of a command, one argument or two, from the end of the operands to `options`.
bool TakeLastOption(const CLI::App& app, std::size_t fewestOperands, Arguments& operands, Arguments& options)
{
    const std::size_t size = operands.size();
    if (size > fewestOperands)
    {
        const CLI::Option* pOption = FindOption(app, operands.back());
        const bool hasOwnValue = operands.back().find('=') != std::string::npos;
        if (pOption != nullptr && TakesValue(pOption) == hasOwnValue)
        {
            options.push_back(operands.back());
            operands.pop_back();
            return true;
        }
        if (pOption != nullptr && TakesValue(pOption))
        {
            throw Failure(StatusWrongCommandLine, operands.back() + " needs a value",
                          "behind a first '--' everything is an operand");
        }
    }
    if (size > fewestOperands + 1)
    {
        const CLI::Option* pOption = FindOption(app, operands[size - 2]);
        if (pOption != nullptr && TakesValue(pOption) && operands[size - 2].find('=') == std::string::npos)
        {
            options.push_back(operands[size - 2] + '=' + operands.back());
            operands.resize(size - 2);
            return true;
        }
    }
    return false;
}

/// Takes the options of a command out of its operands.
Arguments TakeOptions(const CLI::App& app, const Command& command, Arguments& operands)
{
    const bool isFixed = command.mostOperands != Command::AnyNumber;
    const std::size_t first = isFixed ? command.fewestOperands : 0;
    if (operands.size() > std::max<std::size_t>(first, 1) && operands.front() == EndOfOptions)
    {
        operands.erase(operands.begin());
        return {};
    }
    Arguments options;
    while (TakeLastOption(app, first, operands, options))
    {
    }
    // With one operand too many, a flag in front of them can only be meant as one: merge --no-persist FILE.
    while (operands.size() > command.mostOperands && IsFlag(FindOption(app, operands.front())))
    {
        options.push_back(operands.front());
        operands.erase(operands.begin());
    }
    return options;
}

void CheckNumberOfOperands(const Command& command, const Arguments& operands)
{
    if (operands.size() >= command.fewestOperands && operands.size() <= command.mostOperands)
    {
        return;
    }
    const bool tooFew = operands.size() < command.fewestOperands;
    throw Failure(StatusWrongCommandLine,
                  std::string(command.name) + " was given too " + (tooFew ? "few" : "many") + " arguments",
                  std::string("it is used as: korlo-settings [OPTION]... ") + command.name + ' ' + command.synopsis);
}

bool IsHelpFlag(const std::string& argument)
{
    return argument == "-h" || argument == "--help";
}

std::variant<CommandRun, Information> ParseCommand(const Command& command, const Arguments& arguments,
                                                   Invocation invocation)
{
    CLI::App app;
    DeclareCommand(app, command, invocation);
    if (arguments.size() == 1 && IsHelpFlag(arguments.front()))
    {
        return Information{app.help()};
    }
    Arguments operands = arguments;
    app.parse(TakeOptions(app, command, operands));
    CheckNumberOfOperands(command, operands);
    invocation.operands = std::move(operands);
    return CommandRun{&command, std::move(invocation)};
}

/// True for the first word of a name of two.
bool BeginsCommand(const std::string& word)
{
    return std::any_of(AllCommands().begin(), AllCommands().end(),
                       [&word](const Command& command) { return std::string(command.name).starts_with(word + ' '); });
}

/// Takes the name of a command, one word or two, from the front of the arguments.
const Command& TakeCommand(Arguments& arguments)
{
    std::string name;
    bool isBeginning = true;
    for (std::size_t words = 1; isBeginning && words <= arguments.size(); ++words)
    {
        name += (name.empty() ? "" : " ") + arguments[words - 1];
        if (const Command* pCommand = FindCommand(name))
        {
            arguments.erase(arguments.begin(), std::next(arguments.begin(), static_cast<std::ptrdiff_t>(words)));
            return *pCommand;
        }
        isBeginning = BeginsCommand(name);
    }
    throw Failure(StatusWrongCommandLine,
                  (name.starts_with('-') ? "unknown option " : "unknown command ") + Quoted(name),
                  "'korlo-settings --help' lists all that there are");
}

std::variant<CommandRun, Information> Parse(const Arguments& arguments)
{
    CLI::App app("Reads, changes and watches settings.");
    try
    {
        Invocation invocation;
        Arguments rest = TakeToolOptions(app, arguments, invocation);
        if (rest.empty())
        {
            throw Failure(StatusWrongCommandLine, "a command is missing", "'korlo-settings --help' lists them");
        }
        const Command& command = TakeCommand(rest);
        return ParseCommand(command, rest, std::move(invocation));
    }
    catch (const CLI::CallForHelp&)
    {
        return Information{app.help()};
    }
    catch (const CLI::CallForVersion& version)
    {
        return Information{std::string(version.what()) + '\n'};
    }
}

}  // namespace

std::variant<CommandRun, Information> ParseCommandLine(const std::vector<std::string>& arguments)
{
    try
    {
        return Parse(arguments);
    }
    catch (const CLI::ParseError& error)
    {
        throw Failure(StatusWrongCommandLine, error.what(), "see 'korlo-settings --help'");
    }
}

}  // namespace korlo::settings::cli
