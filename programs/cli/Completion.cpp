#include "Completion.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "CommandLine.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

constexpr const char* Brackets = "[]";

/// What the synopsis of a command calls its operand of that number, from 0; several where it has several forms.
std::vector<std::string> OperandNames(const Command& command, std::size_t number)
{
    std::vector<std::string> names;
    std::istringstream words(command.synopsis);
    std::size_t at = 0;
    for (std::string word; words >> word; ++at)
    {
        if (word == "|")
        {
            at = static_cast<std::size_t>(-1);
            continue;
        }
        if (word.starts_with('[') && word.ends_with(']'))
        {
            word = word.substr(1, word.size() - 2);
        }
        const bool isRepeated = word.ends_with("...");
        word.erase(isRepeated ? word.size() - 3 : word.size());
        if (at == number || (isRepeated && at < number))
        {
            names.push_back(word);
        }
    }
    return names;
}

/// Completes one word.
///
/// Thread safety: none of its own; lives within one call.
class Completer
{
public:
    Completer(CommandLineBeginning line, std::string word) : _line(std::move(line)), _word(std::move(word)) {}

    Completion Run();

private:
    using Adder = void (Completer::*)();

    void AddCommands();
    void AddOptions();
    void AddValueBehind(std::size_t equals);
    void AddFor(const std::string& name);
    void AddFile() { _completion.isFile = true; }
    void AddGroups();
    void AddSettings();
    void AddKeysOf(const std::string& group, const IniFile& settings, const std::string& prefix);
    void AddKeys();
    void AddResources() { AddNamesBelow("Resources/"); }
    void AddConsumers() { AddNamesBelow("Resources/" + _line.invocation.operands[0] + "/Consumers/"); }
    void AddNamesBelow(const std::string& prefix);
    void AddNothing() {}
    void Add(const std::string& candidate);
    IniFile Read(const std::string& pattern) const;

    const CommandLineBeginning _line;
    std::string _word;          // what is typed of the argument, or of the value behind its '='
    std::string _head;          // what stands before that value: "--with="
    bool _mayBeOption = false;  // what looks like an option is one
    Completion _completion;
};

Completion Completer::Run()
{
    const std::size_t equals = _word.find('=');
    if (_line.pOpen != nullptr)
    {
        AddFor(_line.pOpen->value);
    }
    else if (_line.hasOptions && _word.starts_with("--") && equals != std::string::npos)
    {
        AddValueBehind(equals);
    }
    else if (_line.hasOptions && _word.starts_with('-'))
    {
        AddOptions();
    }
    else if (_line.pCommand == nullptr)
    {
        AddCommands();
    }
    else
    {
        _mayBeOption = _line.hasOptions;
        for (const std::string& name : OperandNames(*_line.pCommand, _line.invocation.operands.size()))
        {
            AddFor(name);
        }
    }
    return std::move(_completion);
}

void Completer::AddCommands()
{
    const std::string before = _line.name.empty() ? std::string() : _line.name + ' ';
    for (const Command& command : AllCommands())
    {
        const std::string name = command.name;
        if (name.starts_with(before) && !command.Is(Command::IsHidden))
        {
            Add(name.substr(before.size(), name.find(' ', before.size()) - before.size()));
        }
    }
}

void Completer::AddOptions()
{
    for (const Option* pOption : _line.GetOptions())
    {
        if (!_line.given.contains(pOption->name))
        {
            Add(pOption->name);
        }
    }
}

void Completer::AddValueBehind(std::size_t equals)
{
    _head = _word.substr(0, equals + 1);
    _word.erase(0, equals + 1);
    for (const Option* pOption : _line.GetOptions())
    {
        if (pOption->value != nullptr && _head == std::string(pOption->name) + '=')
        {
            AddFor(pOption->value);
        }
    }
}

/// @param name what the help calls the operand or the value.
void Completer::AddFor(const std::string& name)
{
    static constexpr std::pair<std::string_view, Adder> adders[] = {
        {"NAME-OR-PATTERN", &Completer::AddGroups},
        {"PATTERN", &Completer::AddGroups},
        {"GROUP", &Completer::AddGroups},
        {"'[Group]Key'", &Completer::AddSettings},
        {"KEY", &Completer::AddKeys},
        {"RESOURCE", &Completer::AddResources},
        {"CONSUMER", &Completer::AddConsumers},
        {"FILE", &Completer::AddFile},
        {"PATH", &Completer::AddFile},
        {"EXPECTED", &Completer::AddFile},
        {"CHANGES", &Completer::AddFile},
        // What only the person knows.
        {"ADDRESS", &Completer::AddNothing},
        {"MS", &Completer::AddNothing},
        {"N", &Completer::AddNothing},
        {"SECONDS", &Completer::AddNothing},
        {"UNITS-OR-PERCENT%", &Completer::AddNothing},
        {"USER", &Completer::AddNothing},
        {"VALUE", &Completer::AddNothing},
        {"WORD", &Completer::AddNothing},
    };
    if (name.find('|') != std::string::npos)
    {
        std::istringstream words(name);
        for (std::string word; std::getline(words, word, '|');)
        {
            Add(word);
        }
        return;
    }
    for (const auto& [known, pAdd] : adders)
    {
        if (name == known)
        {
            (this->*pAdd)();
            return;
        }
    }
    throw std::logic_error("Nobody knows how to complete " + name);
}

void Completer::AddGroups()
{
    const bool takesSettings = _line.pCommand->Is(Command::TakesSettings);
    if (takesSettings && _word.starts_with('['))
    {
        AddSettings();
        return;
    }
    for (const auto& [group, values] : Read(_word + '*'))
    {
        if (!takesSettings || !group.starts_with('['))
        {
            Add(group);
        }
    }
}

void Completer::AddSettings()
{
    if (!_word.empty() && !_word.starts_with('['))
    {
        return;
    }
    const std::size_t end = _word.find_first_of(Brackets, 1);
    if (end != std::string::npos)
    {
        const std::string group = _word.substr(1, end - 1);
        AddKeysOf(group, Read(group), _word.substr(0, end + 1));
        return;
    }
    const std::string beginning = _word.empty() ? std::string() : _word.substr(1);
    IniFile settings;
    for (const auto& [group, values] : Read(beginning + '*'))
    {
        if (group.starts_with(beginning) && group.find_first_of(Brackets) == std::string::npos)
        {
            settings[group] = values;
        }
    }
    for (const auto& [group, values] : settings)
    {
        const std::string locator = '[' + group + ']';
        settings.size() == 1 && !values.empty() ? AddKeysOf(group, settings, locator) : Add(locator);
    }
}

void Completer::AddKeysOf(const std::string& group, const IniFile& settings, const std::string& prefix)
{
    if (const auto found = settings.Find(group); found != settings.end())
    {
        for (const auto& [key, value] : found->second)
        {
            Add(prefix + key);
        }
    }
}

void Completer::AddKeys()
{
    const std::string& group = _line.invocation.operands[0];
    AddKeysOf(group, Read(group), std::string());
}

void Completer::AddNamesBelow(const std::string& prefix)
{
    for (const auto& [group, values] : Read(prefix + _word + '*'))
    {
        if (group.starts_with(prefix))
        {
            Add(group.substr(prefix.size(), group.find('/', prefix.size()) - prefix.size()));
        }
    }
}

void Completer::Add(const std::string& candidate)
{
    const bool looksLikeOption = candidate.starts_with("--") || candidate == "-h";
    if (candidate.starts_with(_word) && !candidate.empty() && candidate.find('\0') == std::string::npos &&
        !(_mayBeOption && looksLikeOption))
    {
        _completion.candidates.insert(_head + candidate);
    }
}

IniFile Completer::Read(const std::string& pattern) const
{
    return Session(_line.invocation.target, Session::Reading).Read({pattern});
}

}  // namespace

Completion Complete(std::vector<std::string> words)
{
    std::string word;
    if (!words.empty())
    {
        word = std::move(words.back());
        words.pop_back();
    }
    return Completer(ParseBeginning(words), std::move(word)).Run();
}

}  // namespace korlo::settings::cli
