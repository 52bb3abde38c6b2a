#pragma once
// What a command and an option are, and the tables of all of them.

#include <cstddef>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ControlProtocol.h"
#include "Failure.h"
#include "Session.h"

namespace korlo::settings::cli
{

/// One run of a command, as the command line asked for it.
struct Invocation
{
    Target target;
    std::string control = control::DefaultPath;  ///< --control PATH
    bool asJson = false;
    std::vector<std::string> operands;  ///< as many as the command takes
    bool noPersist = false;             ///< --no-persist
    std::optional<std::string> with;    ///< --with FILE
    unsigned long count = 0;            ///< --count N; 0 without limit
    bool all = false;                   ///< --all
    unsigned long waitSeconds = 0;      ///< --wait SECONDS
    bool follow = false;                ///< --follow
    bool endWithZero = false;           ///< --null
    unsigned long withinMs = 150;       ///< --within MS
    bool asksForHelp = false;
    bool asksForVersion = false;
};

/// An option of the tool or of a command. To add one, write a row in Command.cpp: of those that all commands
/// take, or of an array that the rows of commands name.
struct Option
{
    const char* name;         ///< with its two dashes
    const char* value;        ///< what the help calls its value; null for a flag
    const char* description;  ///< a sentence for the help

    /// Notes the option in the invocation. May throw Failure for a value that makes no sense.
    /// @param value empty for a flag.
    void (*pStore)(Invocation& invocation, const std::string& value);
};

/// A command of the tool. To add one, write the function that runs it and a row of the table in Command.cpp.
struct Command
{
    static constexpr std::size_t AnyNumber = std::numeric_limits<std::size_t>::max();

    /// What few commands have in common.
    enum Trait : unsigned int
    {
        LastIsVerbatim = 1,  ///< The last operand may look like an option, see ParseCommandLine.
        TakesSettings = 2,   ///< An operand that begins with '[' is a '[Group]Key'.
        IsHidden = 4         ///< No help lists it: programs call it, not people.
    };

    const char* name;      ///< one word, or two with a blank between them
    const char* synopsis;  ///< its operands
    const char* summary;   ///< a sentence
    const char* examples;  ///< lines that can be typed, as HelpText takes them
    const char* remarks;   ///< the rest of what a person needs to know
    std::size_t fewestOperands;
    std::size_t mostOperands;
    std::span<const Option> options;  ///< its own, beside those of the tool

    /// Does the work and writes the results. May throw Failure.
    ExitStatus (*pRun)(const Invocation& invocation);

    unsigned int traits = 0;  ///< a sum of Trait

    bool Is(Trait trait) const { return (traits & trait) != 0; }
};

/// The options that every command takes, in the order in which the help lists them.
std::span<const Option> ToolOptions();

/// All commands, in the order in which the help lists them; it leaves out the hidden ones.
const std::vector<Command>& AllCommands();

}  // namespace korlo::settings::cli
