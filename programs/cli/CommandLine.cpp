#include "CommandLine.h"

#include <algorithm>
#include <set>

#include "HelpText.h"

namespace korlo::settings::cli
{
namespace
{

using Arguments = std::vector<std::string>;

constexpr const char* EndOfOptions = "--";
constexpr const char* ShortHelp = "-h";
constexpr const char* HintAtHelp = "'korlo-settings --help' lists all that there are";

std::string TermOf(const Option& option)
{
    return option.value != nullptr ? std::string(option.name) + ' ' + option.value : option.name;
}

void AddRows(std::span<const Option> options, std::vector<HelpRow>& rows)
{
    for (const Option& option : options)
    {
        rows.push_back({TermOf(option), option.description});
    }
}

std::string HelpOfTool()
{
    std::vector<HelpRow> options;
    AddRows(ToolOptions(), options);
    std::vector<HelpRow> commands;
    for (const Command& command : AllCommands())
    {
        if (!command.Is(Command::IsHidden))
        {
            commands.push_back({command.name, command.summary});
        }
    }
    return HelpText("korlo-settings [--server ADDRESS | --local FILE] [--control PATH] [--json] COMMAND ...",
                    "Reads, changes and watches the settings of a device.", options,
                    "  korlo-settings list 'Network/*'\n"
                    "  korlo-settings set '[Audio]volume' 65\n"
                    "  korlo-settings --local device.ini get Audio --json\n",
                    "'korlo-settings COMMAND --help' says more, with examples. Groups are given by name or by a "
                    "pattern, in which '*' stands for anything. Options may stand before or after the operands; "
                    "after a first '--' everything is an operand. Without --server and --local the environment "
                    "variable KORLO_SETTINGS_LOCALFILE may name a file, which is then read but never written. "
                    "Exit status: 0 done; 1 no (no such key, no group matches, other values were found); 2 the "
                    "command line was wrong; 3 the server could not be reached or a file could not be used.") +
           "\nCommands:\n" + TextOf(commands);
}

std::string HelpOf(const Command& command)
{
    std::vector<HelpRow> options;
    AddRows(command.options, options);
    AddRows(ToolOptions(), options);
    std::string usage = std::string("korlo-settings [OPTION]... ") + command.name + ' ' + command.synopsis;
    for (const Option& option : command.options)
    {
        usage += " [" + TermOf(option) + ']';
    }
    return HelpText(usage, command.summary, options, command.examples, command.remarks);
}

/// For a name that is unknown, or the first word of others.
[[noreturn]] void FailForCommand(const std::string& given)
{
    std::string longer;
    for (const Command& command : AllCommands())
    {
        const std::string name = command.name;
        if (name.starts_with(given.substr(0, given.find(' ')) + ' '))
        {
            longer += (longer.empty() ? ": it is " : " or ") + Quoted(name);
        }
    }
    const std::string unknown = given.starts_with('-') ? "unknown option " : "unknown command ";
    throw Failure(StatusWrongCommandLine, unknown + Quoted(given) + longer, HintAtHelp);
}

/// Reads the arguments from the first to the last.
///
/// Thread safety: none of its own; the owner guards it.
class Reader
{
public:
    /// @param arguments borrowed; must outlive the reader.
    explicit Reader(const Arguments& arguments) : _arguments(arguments) {}

    CommandLineBeginning Read();

private:
    void TakeWord(const std::string& word);
    void TakeOption(const std::string& argument);
    bool IsVerbatim() const;
    bool IsWordAhead() const;
    const Option* FindOption(const std::string& argument) const;

    const Arguments& _arguments;
    std::size_t _next = 0;  // the argument that is read
    CommandLineBeginning _read;
};

CommandLineBeginning Reader::Read()
{
    for (; _next < _arguments.size(); ++_next)
    {
        const std::string& argument = _arguments[_next];
        if (!_read.hasOptions || !argument.starts_with("--") || IsVerbatim())
        {
            TakeWord(argument);
        }
        else if (argument == EndOfOptions)
        {
            _read.hasOptions = false;
        }
        else
        {
            TakeOption(argument);
        }
    }
    return std::move(_read);
}

void Reader::TakeWord(const std::string& word)
{
    if (_read.pCommand != nullptr)
    {
        _read.invocation.operands.push_back(word);
        return;
    }
    if (_read.hasOptions && word == ShortHelp)
    {
        _read.invocation.asksForHelp = true;
        return;
    }
    _read.name += (_read.name.empty() ? "" : " ") + word;
    bool isBeginning = false;
    for (const Command& command : AllCommands())
    {
        _read.pCommand = command.name == _read.name ? &command : _read.pCommand;
        isBeginning = isBeginning || std::string_view(command.name).starts_with(_read.name + ' ');
    }
    if (_read.pCommand == nullptr && !isBeginning)
    {
        FailForCommand(_read.name);
    }
}

void Reader::TakeOption(const std::string& argument)
{
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const Option* pOption = FindOption(name);
    if (pOption == nullptr)
    {
        const std::string command = _read.pCommand != nullptr ? std::string(_read.pCommand->name) + ' ' : std::string();
        throw Failure(StatusWrongCommandLine, "unknown option " + Quoted(name),
                      "after a first '--' everything is an operand; 'korlo-settings " + command +
                          "--help' lists the options");
    }
    if (pOption->value == nullptr && equals != std::string::npos)
    {
        throw Failure(StatusWrongCommandLine, name + " takes no value", "write " + name + " alone");
    }
    std::string value;
    if (pOption->value != nullptr)
    {
        if (equals == std::string::npos && ++_next == _arguments.size())
        {
            _read.pOpen = pOption;
            return;
        }
        if (!_read.given.insert(name).second)
        {
            throw Failure(StatusWrongCommandLine, name + " was given twice", "once is enough");
        }
        value = equals == std::string::npos ? _arguments[_next] : argument.substr(equals + 1);
    }
    pOption->pStore(_read.invocation, value);
}

/// True for the last operand of a command for which it may look like an option.
bool Reader::IsVerbatim() const
{
    return _read.pCommand != nullptr && _read.pCommand->Is(Command::LastIsVerbatim) &&
           _read.invocation.operands.size() + 1 == _read.pCommand->mostOperands && !IsWordAhead();
}

/// True when a word follows, however the argument in hand is read as an option or as "--".
bool Reader::IsWordAhead() const
{
    for (std::size_t at = _next; at < _arguments.size(); ++at)
    {
        const std::string& argument = _arguments[at];
        if (argument == EndOfOptions)
        {
            return at + 1 < _arguments.size();
        }
        if (!argument.starts_with("--"))
        {
            return true;
        }
        const Option* pOption = FindOption(argument);
        at += pOption != nullptr && pOption->value != nullptr ? 1 : 0;  // an argument without '=', that is
    }
    return false;
}

/// Null for an unknown name.
const Option* Reader::FindOption(const std::string& name) const
{
    const std::vector<const Option*> options = _read.GetOptions();
    const auto found = std::ranges::find(options, name, &Option::name);
    return found != options.end() ? *found : nullptr;
}

void CheckOperands(const CommandLineBeginning& line)
{
    const Command& command = *line.pCommand;
    const std::size_t count = line.invocation.operands.size();
    if (count < command.fewestOperands || count > command.mostOperands)
    {
        throw Failure(StatusWrongCommandLine,
                      std::string(command.name) + " was given too " +
                          (count < command.fewestOperands ? "few" : "many") + " arguments",
                      std::string("it is used as: korlo-settings [OPTION]... ") + command.name + ' ' +
                          command.synopsis);
    }
    if (line.invocation.target.localFile && line.invocation.target.server)
    {
        throw Failure(StatusWrongCommandLine, "--local excludes --server", "name a file or a server");
    }
}

}  // namespace

std::vector<const Option*> CommandLineBeginning::GetOptions() const
{
    std::vector<const Option*> options;
    for (const auto some : {ToolOptions(), pCommand != nullptr ? pCommand->options : std::span<const Option>()})
    {
        for (const Option& option : some)
        {
            options.push_back(&option);
        }
    }
    return options;
}

CommandLineBeginning ParseBeginning(const std::vector<std::string>& arguments)
{
    return Reader(arguments).Read();
}

std::variant<CommandRun, Information> ParseCommandLine(const std::vector<std::string>& arguments)
{
    CommandLineBeginning line = ParseBeginning(arguments);
    if (line.pOpen != nullptr)
    {
        throw Failure(StatusWrongCommandLine, std::string(line.pOpen->name) + " needs a value",
                      "write " + TermOf(*line.pOpen));
    }
    const Invocation& invocation = line.invocation;
    if (invocation.asksForVersion)
    {
        return Information{std::string("korlo-settings ") + KORLO_VERSION + '\n'};
    }
    if (invocation.asksForHelp || (line.hasOptions && invocation.operands == Arguments{ShortHelp}))
    {
        return Information{line.pCommand != nullptr ? HelpOf(*line.pCommand) : HelpOfTool()};
    }
    if (line.pCommand == nullptr)
    {
        line.name.empty() ? throw Failure(StatusWrongCommandLine, "a command is missing", HintAtHelp)
                          : FailForCommand(line.name);
    }
    CheckOperands(line);
    return CommandRun{line.pCommand, std::move(line.invocation)};
}

}  // namespace korlo::settings::cli
