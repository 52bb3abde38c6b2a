#pragma once
// What the command lines of the daemons, which have options and no commands, have in common.

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "EarlyExit.h"
#include "HelpText.h"

namespace korlo
{

/// What --help says beside the options.
struct HelpFrame
{
    std::string usage;
    std::string examples;  ///< lines
    std::string notes;
};

inline std::string HelpOf(const CLI::App& app, const HelpFrame& frame)
{
    std::vector<HelpRow> rows;
    for (const CLI::Option* pOption : app.get_options())
    {
        const std::string value = pOption->get_type_name();
        const std::string standard = pOption->get_default_str();
        rows.push_back({"--" + pOption->get_lnames().front() + (value.empty() ? "" : ' ' + value),
                        pOption->get_description() + (standard.empty() ? "." : " (default: " + standard + ").")});
    }
    return HelpText(frame.usage, app.get_description(), rows, frame.examples, frame.notes);
}

/// Gives the command line to the options of `app`.
/// @param program its name.
/// @throws EarlyExit with status 2 and one line for a wrong one; with status 0 and the text that --help or --version
///         asks for.
inline void ParseOptionsOf(CLI::App& app, const std::string& program, const HelpFrame& frame, int argc,
                           const char* const* argv)
{
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp&)
    {
        throw EarlyExit(0, HelpOf(app, frame));
    }
    catch (const CLI::CallForVersion&)
    {
        throw EarlyExit(0, program + ' ' + app.version() + '\n');
    }
    catch (const CLI::ParseError& error)
    {
        throw EarlyExit(WrongCommandLine, error.what());
    }
}

}  // namespace korlo
