#include "Command.h"

#include "Commands.h"

namespace korlo::settings::cli
{

const std::vector<Command>& AllCommands()
{
    static const std::vector<Command> commands = {
        {"get", "NAME-OR-PATTERN...", "print groups, or one value",
         "Prints the groups as INI text. A single '[Group]Key' prints the bare value of that key; among several\n"
         "operands it adds that key alone. A group whose name begins with '[' is found by a pattern.\n"
         "Status 1 when there is no such key, or no group matches.",
         "  korlo-settings --local device.ini get 'Network/*'\n"
         "  korlo-settings --local device.ini get '[Audio]volume'\n"
         "  korlo-settings --local device.ini --json get Audio Display",
         1, Command::AnyNumber, NoOptions, RunGet},
        {"set", "'[Group]Key' VALUE [--no-persist]", "set one value",
         "VALUE is taken as it is, whatever it begins with. Other keys of the group stay. A missing --local FILE is\n"
         "made. Status 1 when the group is restricted.",
         "  korlo-settings --local device.ini set '[Audio]volume' 65\n"
         "  korlo-settings --local device.ini set '[Audio]microphoneGain' -5",
         2, 2, NoPersistOption, RunSet},
        {"merge", "[FILE] [--no-persist]", "merge an INI document",
         "Sets every key of the document in FILE, or on standard input without FILE or with '-', and removes none.\n"
         "A missing --local FILE is made. Status 1 when all its groups are restricted.",
         "  korlo-settings --local device.ini merge night.ini\n"
         "  korlo-settings --local device.ini merge < night.ini",
         0, 1, NoPersistOption, RunMerge},
        {"test-and-merge", "EXPECTED CHANGES", "merge, if nobody was faster",
         "Merges the INI file CHANGES if the settings hold every value of the INI file EXPECTED at that moment.\n"
         "Status 1 when they do not; nothing is changed then.",
         "  korlo-settings --local device.ini test-and-merge seen.ini changes.ini", 2, 2, NoOptions, RunTestAndMerge},
        {"overwrite", "NAME-OR-PATTERN... [--with FILE]", "replace groups",
         "Erases the groups and puts those of the INI document in FILE in their place; standard input without --with\n"
         "or with '-'. A group that the document does not hold is gone. A missing --local FILE is made.",
         "  korlo-settings --local device.ini overwrite 'Network/*' --with network.ini", 1, Command::AnyNumber,
         WithOption, RunOverwrite},
        {"erase", "NAME-OR-PATTERN...", "erase groups",
         "Their defaults do not come back, either. Status 1 when no group matches, or those that do are restricted.",
         "  korlo-settings --local device.ini erase Network/Guest", 1, Command::AnyNumber, NoOptions, RunErase},
        {"restore", "NAME-OR-PATTERN...", "return groups to their defaults",
         "With --local, the defaults are what FILE holds, so that nothing changes. Status 1 when no group matches.",
         "  korlo-settings --server 127.0.0.1:4711 restore 'Network/*'", 1, Command::AnyNumber, NoOptions, RunRestore},
        {"list", "[PATTERN]", "print group names, one a line",
         "All names without PATTERN. Status 1 when no group matches PATTERN.",
         "  korlo-settings --local device.ini list\n"
         "  korlo-settings --local device.ini list 'Network/*'",
         0, 1, NoOptions, RunList},
        {"watch", "NAME-OR-PATTERN... [--count N]", "print each change as it arrives",
         "Prints the groups that changed, whole, under a comment with their names; an erased group is named only.\n"
         "With --json, an object a line. Ends after N changes, or with status 0 on SIGINT and SIGTERM. Goes on when\n"
         "the server comes back after it was gone; standard error tells of both, and when the watching begins.\n"
         "With --local, the changes are those of this process: it merges the INI documents on standard input, which\n"
         "lines of a single '.' separate, into FILE one by one, and ends with them.",
         "  korlo-settings --local device.ini watch 'Network/*' < changes.ini\n"
         "  korlo-settings --server 127.0.0.1:4711 --json watch '*' --count 1",
         1, Command::AnyNumber, CountOption, RunWatch},
        {"dump", "[--all]", "print the user layer, or all settings",
         "Prints, as INI text, what clients have changed to last: the user layer of the server, with its notes of\n"
         "groups that were erased. With --all, all settings. The settings of a --local FILE are defaults; it has no\n"
         "user layer.",
         "  korlo-settings --server 127.0.0.1:4711 dump\n"
         "  korlo-settings --server 127.0.0.1:4711 --json dump --all",
         0, 0, AllOption, RunDump},
        {"subscribed", "", "print what clients are subscribed to",
         "Prints the names and patterns that the clients of the server are subscribed to, one a line; with --json an\n"
         "array. Nobody is subscribed to a --local FILE.",
         "  korlo-settings --server 127.0.0.1:4711 subscribed", 0, 0, NoOptions, RunSubscribed},
        {"resource show", "RESOURCE", "print who holds how much of a resource",
         "Prints the total of the resource, 100 unless the settings say otherwise, and what each consumer holds and\n"
         "may hold at most.",
         "  korlo-settings --server 127.0.0.1:4711 resource show Bandwidth\n"
         "  korlo-settings --server 127.0.0.1:4711 --json resource show Bandwidth",
         1, 1, NoOptions, RunResourceShow},
        {"resource reserve", "RESOURCE CONSUMER UNITS-OR-PERCENT%", "set what a consumer holds of a resource",
         "The amount is what the consumer holds from then on, in all: a number of units, or a share of the total that\n"
         "is rounded up to whole units. 0 gives everything back. Status 1, and nothing is changed, when that is more\n"
         "than the others and the consumer's own cap leave, or the consumer is not allowed to use the resource.",
         "  korlo-settings --server 127.0.0.1:4711 resource reserve Bandwidth Camera 20\n"
         "  korlo-settings --server 127.0.0.1:4711 resource reserve Bandwidth Camera 25%",
         3, 3, NoOptions, RunResourceReserve},
        {"check", "FILE...", "find lines of INI files that make no sense",
         "Prints each as FILE:LINE: message. Status 1 when there are any, 3 when a file cannot be read.",
         "  korlo-settings check device.ini network.ini", 1, Command::AnyNumber, NoOptions, RunCheck},
    };
    return commands;
}

const Command* FindCommand(const std::string& name)
{
    for (const Command& command : AllCommands())
    {
        if (name == command.name)
        {
            return &command;
        }
    }
    return nullptr;
}

}  // namespace korlo::settings::cli
