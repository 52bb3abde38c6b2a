#include "Command.h"

#include "Commands.h"
#include "NumberText.h"

namespace korlo::settings::cli
{
namespace
{

unsigned long ParseCount(const std::string& text)
{
    const unsigned long count = NumberIn<unsigned long>(text).value_or(0);
    if (count == 0)
    {
        throw Failure(StatusWrongCommandLine, "--count takes a whole number above 0, not " + Quoted(text),
                      "for example --count 1");
    }
    return count;
}

unsigned long ParseWithin(const std::string& text)
{
    constexpr unsigned long mostMs = 60ul * 60 * 1000;
    const unsigned long milliseconds = NumberIn<unsigned long>(text).value_or(0);
    if (milliseconds == 0 || milliseconds > mostMs)
    {
        throw Failure(StatusWrongCommandLine, "--within takes a number of milliseconds, not " + Quoted(text),
                      "for example --within 150");
    }
    return milliseconds;
}

unsigned long ParseWait(const std::string& text)
{
    constexpr unsigned long mostSeconds = 365ul * 24 * 60 * 60;
    const unsigned long seconds = NumberIn<unsigned long>(text).value_or(mostSeconds + 1);
    if (seconds > mostSeconds)
    {
        throw Failure(StatusWrongCommandLine, "--wait takes a whole number of seconds, not " + Quoted(text),
                      "for example --wait 30");
    }
    return seconds;
}

std::string ParseControlPath(const std::string& path)
{
    if (path.empty())
    {
        throw Failure(StatusWrongCommandLine, "--control takes the path of a socket, not ''",
                      std::string("for example --control ") + control::DefaultPath);
    }
    return path;
}

// What commands take of their own.
constexpr std::span<const Option> NoOptions;
constexpr Option NoPersist[] = {{"--no-persist", nullptr,
                                 "Do not save the change: it is gone when the server, or a --local process, ends.",
                                 [](Invocation& invocation, const std::string&) { invocation.noPersist = true; }}};
constexpr Option With[] = {{"--with", "FILE", "The document with the new groups; '-' is standard input.",
                            [](Invocation& invocation, const std::string& value) { invocation.with = value; }}};
constexpr Option Count[] = {
    {"--count", "N", "End after N changes.",
     [](Invocation& invocation, const std::string& value) { invocation.count = ParseCount(value); }}};
constexpr Option OfLog[] = {
    {"--count", "N", "Print the last N entries, not all.",
     [](Invocation& invocation, const std::string& value) { invocation.count = ParseCount(value); }},
    {"--follow", nullptr, "Go on with each entry as it comes, until it is interrupted.",
     [](Invocation& invocation, const std::string&) { invocation.follow = true; }}};
constexpr Option All[] = {{"--all", nullptr, "Print all settings, not the user layer alone.",
                           [](Invocation& invocation, const std::string&) { invocation.all = true; }}};
constexpr Option Wait[] = {
    {"--wait", "SECONDS", "Wait until the server is there, but no longer than that.",
     [](Invocation& invocation, const std::string& value) { invocation.waitSeconds = ParseWait(value); }}};
constexpr Option OfComplete[] = {
    {"--null", nullptr, "End each candidate with a zero byte, after what kind they are: files or words.",
     [](Invocation& invocation, const std::string&) { invocation.endWithZero = true; }},
    {"--within", "MS", "Say nothing if that takes longer, in milliseconds; 150 without it.",
     [](Invocation& invocation, const std::string& value) { invocation.withinMs = ParseWithin(value); }}};

// What all of them take.
constexpr Option OfTool[] = {
    {"--server", "ADDRESS", "The settings server to talk to: HOST:PORT, [IPV6]:PORT or unix:PATH.",
     [](Invocation& invocation, const std::string& value) { invocation.target.server = value; }},
    {"--local", "FILE", "Work on this file, in this process, without a server.",
     [](Invocation& invocation, const std::string& value) { invocation.target.localFile = value; }},
    {"--control", "PATH", "The control door of the server, in the place of /run/korlo-settings/control.",
     [](Invocation& invocation, const std::string& value) { invocation.control = ParseControlPath(value); }},
    {"--json", nullptr, "Print results as JSON.",
     [](Invocation& invocation, const std::string&) { invocation.asJson = true; }},
    {"--version", nullptr, "Print the version and exit.",
     [](Invocation& invocation, const std::string&) { invocation.asksForVersion = true; }},
    {"--help", nullptr, "Print this help and exit; -h does so, too, where it stands alone.",
     [](Invocation& invocation, const std::string&) { invocation.asksForHelp = true; }},
};

}  // namespace

std::span<const Option> ToolOptions()
{
    return OfTool;
}

const std::vector<Command>& AllCommands()
{
    static const std::vector<Command> commands = {
        {"get", "NAME-OR-PATTERN...", "Prints groups as INI text, or one bare value.",
         "  korlo-settings --local device.ini get 'Network/*'\n"
         "  korlo-settings --local device.ini get '[Audio]volume'\n"
         "  korlo-settings --local device.ini get Audio Display --json\n",
         "A single '[Group]Key' prints the bare value of that key; among several operands it adds that key "
         "alone. A group whose name begins with '[' is found by a pattern. Status 1 when there is no such "
         "key, or no group matches.",
         1, Command::AnyNumber, NoOptions, RunGet, Command::TakesSettings},
        {"set", "'[Group]Key' VALUE", "Sets one value and persists it.",
         "  korlo-settings --local device.ini set '[Audio]volume' 65\n"
         "  korlo-settings --local device.ini set '[Audio]microphoneGain' -5\n",
         "VALUE is taken as it is, whatever it begins with. Other keys of the group stay. A missing --local "
         "FILE is created. Status 1 when the group is restricted.",
         2, 2, NoPersist, RunSet, Command::LastIsVerbatim},
        {"merge", "[FILE]", "Sets every key of an INI document and removes none.",
         "  korlo-settings --local device.ini merge night.ini\n"
         "  korlo-settings --local device.ini merge < night.ini\n",
         "Reads standard input without FILE or with '-'. A missing --local FILE is created. Status 1 when all "
         "groups of the document are restricted.",
         0, 1, NoPersist, RunMerge},
        {"test-and-merge", "EXPECTED CHANGES", "Merges one INI file if the settings hold every value of another.",
         "  korlo-settings --local device.ini test-and-merge seen.ini changes.ini\n",
         "Nobody else's change comes between the test and the merge. Status 1 when the settings hold other "
         "values than EXPECTED; nothing is changed then.",
         2, 2, NoOptions, RunTestAndMerge},
        {"overwrite", "NAME-OR-PATTERN...", "Erases groups and puts those of an INI document in their place.",
         "  korlo-settings --local device.ini overwrite 'Network/*' --with network.ini\n",
         "Reads standard input without --with. A group that the document does not hold is gone. A missing "
         "--local FILE is created.",
         1, Command::AnyNumber, With, RunOverwrite},
        {"erase", "NAME-OR-PATTERN...", "Erases groups, and records it, so that their defaults do not return.",
         "  korlo-settings --local device.ini erase Network/Guest\n",
         "Status 1 when no group matches, or those that do are restricted.", 1, Command::AnyNumber, NoOptions,
         RunErase},
        {"restore", "NAME-OR-PATTERN...", "Returns groups to their defaults.",
         "  korlo-settings --server 127.0.0.1:4711 restore 'Network/*'\n",
         "With --local, the defaults are what FILE holds, so that nothing changes. Status 1 when no group "
         "matches.",
         1, Command::AnyNumber, NoOptions, RunRestore},
        {"list", "[PATTERN]", "Prints the names of groups, one a line.",
         "  korlo-settings --local device.ini list\n"
         "  korlo-settings --local device.ini list 'Network/*'\n",
         "All names without PATTERN. Status 1 when no group matches PATTERN.", 0, 1, NoOptions, RunList},
        {"watch", "NAME-OR-PATTERN...", "Prints each change as it arrives, until it is interrupted.",
         "  korlo-settings --local device.ini watch 'Network/*' < changes.ini\n"
         "  korlo-settings --server 127.0.0.1:4711 watch '*' --count 1 --json\n",
         "Prints the groups that changed, whole, under a comment with their names; an erased group is named "
         "only. With --json, an object a line. SIGINT and SIGTERM end it with status 0. When the server goes, "
         "it waits for the server to come back, and then prints what has changed meanwhile; standard error tells of "
         "both, and when the watching begins. "
         "With --local, the changes are those of this process: it merges the INI documents on standard "
         "input, which lines of a single '.' separate, into FILE one by one, and ends with them.",
         1, Command::AnyNumber, Count, RunWatch},
        {"dump", "", "Prints the user layer, which is what clients persisted, or all settings.",
         "  korlo-settings --server 127.0.0.1:4711 dump\n"
         "  korlo-settings --server 127.0.0.1:4711 dump --all --json\n",
         "The user layer holds a record of the groups that were erased, too. The settings of a --local FILE "
         "are defaults; it has no user layer.",
         0, 0, All, RunDump},
        {"subscribed", "", "Prints the names and patterns that clients are subscribed to, one a line.",
         "  korlo-settings --server 127.0.0.1:4711 subscribed\n", "Nobody is subscribed to a --local FILE.", 0, 0,
         NoOptions, RunSubscribed},
        {"resource show", "RESOURCE", "Prints the total of a resource, and what each consumer holds of it.",
         "  korlo-settings --server 127.0.0.1:4711 resource show Bandwidth\n"
         "  korlo-settings --server 127.0.0.1:4711 resource show Bandwidth --json\n",
         "The total is 100 unless the settings say otherwise.", 1, 1, NoOptions, RunResourceShow},
        {"resource reserve", "RESOURCE CONSUMER UNITS-OR-PERCENT%", "Sets what a consumer holds of a resource.",
         "  korlo-settings --server 127.0.0.1:4711 resource reserve Bandwidth Camera 20\n"
         "  korlo-settings --server 127.0.0.1:4711 resource reserve Bandwidth Camera 25%\n",
         "The amount is what the consumer holds from then on, in all: a number of units, or a share of the "
         "total, rounded up to whole units. 0 gives everything back. Status 1, and nothing is changed, when "
         "that is more than the others and the consumer's own cap leave, or the consumer is not allowed to "
         "use the resource.",
         3, 3, NoOptions, RunResourceReserve},
        {"check", "FILE...", "Finds the lines of INI files that make no sense.",
         "  korlo-settings check device.ini network.ini\n",
         "Prints each as FILE:LINE: message. Status 1 when there are any, 3 when a file cannot be read.", 1,
         Command::AnyNumber, NoOptions, RunCheck},
        {"status", "", "Tells how the server is: its store, saves, clients, doors and files.",
         "  korlo-settings status\n"
         "  korlo-settings status --wait 30 --json\n",
         "Asks the control door of the server, whatever --server and --local say; the answer comes while a disk hangs, "
         "too. Status 0 when all is well, 1 when a change is unsaved because a save failed, 3 when the server is not "
         "there. With --json, an object with the names of the server's own answer.",
         0, 0, Wait, RunStatus},
        {"clients", "", "Tells who is connected to the server, what they watch, and what waits for them.",
         "  korlo-settings clients\n"
         "  korlo-settings clients --json\n",
         "Asks the control door of the server, whatever --server and --local say. With --json, an array of objects.", 0,
         0, NoOptions, RunClients},
        {"save", "", "Returns when everything that was changed before is on the disk.", "  korlo-settings save\n",
         "Asks the control door of the server, whatever --server and --local say. A server that gathers changes "
         "(--save-delay) saves at once. Status 1, with the reason, when the save fails; 3 when the server is not "
         "there.",
         0, 0, NoOptions, RunSave},
        {"log", "[PATTERN...]", "Prints who changed what, newest last.",
         "  korlo-settings log\n"
         "  korlo-settings log 'Network/*' --count 5\n"
         "  korlo-settings log --follow --json\n",
         "Asks the control door of the server for its journal, whatever --server and --local say. Patterns select "
         "entries by the groups that they are about. A line tells when, by whom and how groups and keys were changed, "
         "what was refused, and what could not be saved; never a value. With --json, an object a line. With --follow, "
         "an entry that repeats an earlier one is that one again with a higher count; SIGINT and SIGTERM end it with "
         "status 0. Standard error tells of entries that were dropped before they were read. Status 3 when the door "
         "cannot be reached, the server keeps no journal, or it ends.",
         0, Command::AnyNumber, OfLog, RunLog},
        {"explain", "'[Group]Key' | GROUP KEY", "Tells where a value is from, and why no other place gave it.",
         "  korlo-settings explain '[Audio]volume'\n"
         "  korlo-settings explain '[Audio]volume' --json\n",
         "Asks the control door of the server, whatever --server and --local say. Prints the value, and below it each "
         "place that gives the key one: its layer (default, user, restricted, or unsaved for a change that was not "
         "persisted), file and line, its value, and why it counts or not; first the one that counts. Long values are "
         "cut; --json prints them whole. Status 1 when the key has no value, which is explained all the same; 3 when "
         "the door cannot be reached. GROUP and KEY as two operands are taken as they are, brackets in GROUP too.",
         1, 2, NoOptions, RunExplain},
        {"diff", "[PATTERN...]", "Compares the settings with the defaults.",
         "  korlo-settings diff\n"
         "  korlo-settings diff Audio 'Network/*' --json\n",
         "The defaults are those that a start of the server would load now; the control door gives them. The settings "
         "are those that 'get' prints. Prints what differs as lines of INI text, the default behind '-' and the "
         "setting behind '+', below the names of their groups. Restricted groups are left out. Status 0 when nothing "
         "differs, 1 when something does.",
         0, Command::AnyNumber, NoOptions, RunDiff},
        {"access check", "USER read|change GROUP", "Tells whether a user may read or change a group, and why.",
         "  korlo-settings access check www-data read Network/Wifi\n"
         "  korlo-settings access check 33 change 'Network/*' --json\n",
         "Asks the control door of the server, whatever --server and --local say. The user counts as a client on a "
         "Unix-domain socket, with all the groups that the system gives it; a pattern asks for everything that it can "
         "match. Prints what decided: the rule, its file and line. Status 0 allowed, 1 refused, 2 unknown user, 3 "
         "when the door cannot be reached.",
         3, 3, NoOptions, RunAccessCheck},
        {"access reload", "", "Lets the server read its access rules anew.",
         "  korlo-settings access reload\n"
         "  korlo-settings --control /run/korlo-settings/control access reload --json\n",
         "Asks the control door of the server, whatever --server and --local say. The new rules hold at once, for "
         "clients that are connected, too. Status 1, with the first mistake, when the rules make no sense: those "
         "before stay in force. Status 3 when the door cannot be reached.",
         0, 0, NoOptions, RunAccessReload},
        {"complete", "WORD...", "Prints what the last word may become, one candidate a line.",
         "  korlo-settings complete -- --local device.ini get Net\n",
         "For the shells, which call it when TAB is pressed. The words before the last one are those that the command "
         "line holds so far. Says nothing, with status 0, when there is no server, it does not answer at once, or "
         "anything else fails.",
         1, Command::AnyNumber, OfComplete, RunComplete, Command::IsHidden},
    };
    return commands;
}

}  // namespace korlo::settings::cli
