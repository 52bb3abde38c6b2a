#pragma once
// What a command is, and the table of all of them.

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Failure.h"
#include "Session.h"

namespace korlo::settings::cli
{

/// One run of a command, as the command line asked for it.
struct Invocation
{
    Target target;
    bool asJson = false;
    std::vector<std::string> operands;  ///< as many as the command takes
    bool noPersist = false;             ///< --no-persist
    std::optional<std::string> with;    ///< --with FILE
    unsigned long count = 0;            ///< --count N; 0 without limit
    bool all = false;                   ///< --all
};

/// The options that commands have of their own; a command takes a set of them.
enum CommandOption : unsigned
{
    NoOptions = 0,
    NoPersistOption = 1,
    WithOption = 2,
    CountOption = 4,
    AllOption = 8
};

/// A command of the tool. To add one, write the function that runs it and a row of the table in Command.cpp.
struct Command
{
    static constexpr std::size_t AnyNumber = std::numeric_limits<std::size_t>::max();

    const char* name;      ///< one word, or two with a blank between them
    const char* synopsis;  ///< its operands and options
    const char* summary;   ///< half a line for the list of commands
    const char* manual;    ///< the rest of what a person needs to know
    const char* examples;  ///< lines that can be typed
    std::size_t fewestOperands;
    std::size_t mostOperands;
    unsigned options;  ///< of CommandOption

    /// Does the work and writes the results. May throw Failure.
    ExitStatus (*pRun)(const Invocation& invocation);
};

/// All commands, in the order in which the help lists them.
const std::vector<Command>& AllCommands();

/// Null for an unknown name.
const Command* FindCommand(const std::string& name);

}  // namespace korlo::settings::cli
