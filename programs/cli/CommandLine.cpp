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
        commands.push_back({command.name, command.summary});
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

/// Reads the arguments from the first to the last.
///
/// Thread safety: none of its own; the owner guards it.
class Reader
{
public:
    /// @param arguments borrowed; must outlive the reader.
    explicit Reader(const Arguments& arguments) : _arguments(arguments) {}

    std::variant<CommandRun, Information> Read();

private:
    void TakeWord(const std::string& word);
    void TakeOption(const std::string& argument);
    bool IsVerbatim() const;
    bool IsWordAhead() const;
    const Option* FindOption(const std::string& argument) const;
    void CheckOperands() const;
    [[noreturn]] void FailForCommand() const;

    const Arguments& _arguments;
    std::size_t _next = 0;               // the argument that is read
    bool _hasOptions = true;             // until a first "--"
    std::string _name;                   // the words of the command's name so far
    const Command* _pCommand = nullptr;  // once its name is complete
    std::set<std::string> _given;        // options with a value
    Invocation _invocation;
};

std::variant<CommandRun, Information> Reader::Read()
{
    for (; _next < _arguments.size(); ++_next)
    {
        const std::string& argument = _arguments[_next];
        if (!_hasOptions || !argument.starts_with("--") || IsVerbatim())
        {
            TakeWord(argument);
        }
        else if (argument == EndOfOptions)
        {
            _hasOptions = false;
        }
        else
        {
            TakeOption(argument);
        }
    }
    if (_invocation.asksForVersion)
    {
        return Information{std::string("korlo-settings ") + KORLO_VERSION + '\n'};
    }
    if (_invocation.asksForHelp || (_hasOptions && _invocation.operands == Arguments{ShortHelp}))
    {
        return Information{_pCommand != nullptr ? HelpOf(*_pCommand) : HelpOfTool()};
    }
    if (_pCommand == nullptr)
    {
        _name.empty() ? throw Failure(StatusWrongCommandLine, "a command is missing", HintAtHelp) : FailForCommand();
    }
    CheckOperands();
    return CommandRun{_pCommand, std::move(_invocation)};
}

void Reader::TakeWord(const std::string& word)
{
    if (_pCommand != nullptr)
    {
        _invocation.operands.push_back(word);
        return;
    }
    if (_hasOptions && word == ShortHelp)
    {
        _invocation.asksForHelp = true;
        return;
    }
    _name += (_name.empty() ? "" : " ") + word;
    bool isBeginning = false;
    for (const Command& command : AllCommands())
    {
        _pCommand = command.name == _name ? &command : _pCommand;
        isBeginning = isBeginning || std::string_view(command.name).starts_with(_name + ' ');
    }
    if (_pCommand == nullptr && !isBeginning)
    {
        FailForCommand();
    }
}

void Reader::TakeOption(const std::string& argument)
{
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const Option* pOption = FindOption(name);
    if (pOption == nullptr)
    {
        const std::string command = _pCommand != nullptr ? std::string(_pCommand->name) + ' ' : std::string();
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
            throw Failure(StatusWrongCommandLine, name + " needs a value", "write " + TermOf(*pOption));
        }
        if (!_given.insert(name).second)
        {
            throw Failure(StatusWrongCommandLine, name + " was given twice", "once is enough");
        }
        value = equals == std::string::npos ? _arguments[_next] : argument.substr(equals + 1);
    }
    pOption->pStore(_invocation, value);
}

/// True for the last operand of a command for which it may look like an option.
bool Reader::IsVerbatim() const
{
    return _pCommand != nullptr && _pCommand->isLastOperandVerbatim &&
           _invocation.operands.size() + 1 == _pCommand->mostOperands && !IsWordAhead();
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
    for (const auto options : {ToolOptions(), _pCommand != nullptr ? _pCommand->options : std::span<const Option>()})
    {
        if (const auto found = std::ranges::find(options, name, &Option::name); found != options.end())
        {
            return &*found;
        }
    }
    return nullptr;
}

void Reader::CheckOperands() const
{
    const std::size_t count = _invocation.operands.size();
    if (count < _pCommand->fewestOperands || count > _pCommand->mostOperands)
    {
        throw Failure(StatusWrongCommandLine,
                      std::string(_pCommand->name) + " was given too " +
                          (count < _pCommand->fewestOperands ? "few" : "many") + " arguments",
                      std::string("it is used as: korlo-settings [OPTION]... ") + _pCommand->name + ' ' +
                          _pCommand->synopsis);
    }
    if (_invocation.target.localFile && _invocation.target.server)
    {
        throw Failure(StatusWrongCommandLine, "--local excludes --server", "name a file or a server");
    }
}

/// For a name that is unknown, or the first word of others.
void Reader::FailForCommand() const
{
    std::string longer;
    for (const Command& command : AllCommands())
    {
        const std::string name = command.name;
        if (name.starts_with(_name.substr(0, _name.find(' ')) + ' '))
        {
            longer += (longer.empty() ? ": it is " : " or ") + Quoted(name);
        }
    }
    const std::string unknown = _name.starts_with('-') ? "unknown option " : "unknown command ";
    throw Failure(StatusWrongCommandLine, unknown + Quoted(_name) + longer, HintAtHelp);
}

}  // namespace

std::variant<CommandRun, Information> ParseCommandLine(const std::vector<std::string>& arguments)
{
    return Reader(arguments).Read();
}

}  // namespace korlo::settings::cli
