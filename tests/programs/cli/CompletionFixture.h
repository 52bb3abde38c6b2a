#pragma once
// What is common to the completions in several shells.

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "ToolFixture.h"
#include "korlo/core/IniFile.h"

namespace korlo::settings::cli
{

/// As INI text, whatever bytes it holds.
inline std::string HeaderOf(const std::string& name)
{
    core::IniFile document;
    document[name];
    std::ostringstream text;
    document.SaveToStream(text);
    return text.str();
}

struct NameRow
{
    std::string name;
    std::string plain;    // the beginning that is typed without quotes
    std::string single;   // behind a single quote; empty where it cannot be typed so
    std::string doubled;  // behind a double quote; the same
};

inline const NameRow NameRows[] = {
    {"Audio", "Au", "Au", "Au"},
    {"My Group", "My", "My Gr", "My Gr"},
    {"it's mine", "it", "it", "it's"},
    {"say \"hi\"", "say\\ ", "say \"", "say "},
    {"br[ack]ets", "br\\[", "br[", "br["},
    {"{a,b}", "\\{", "{a", "{a"},
    {"(round)", "\\(", "(r", "(r"},
    {"st*rs?", "st\\*", "st*", "st*"},
    {"back\\slash", "back\\\\", "back\\", "back"},
    {"dollar$HOME`id`", "dollar\\$H", "dollar$", "dollar"},
    {"bang!bang", "bang", "bang!", "bang"},
    {"semi;colon&<pipe>|", "semi\\;", "semi;", "semi;"},
    {"co:lon", "co:l", "co:l", "co:"},
    {"eq=ual@home", "eq=ual@h", "eq=u", "eq="},
    {"#hash", "\\#h", "#h", "#"},
    {"~tilde", "\\~t", "~t", "~"},
    {"Größe/日本", "Grö", "Grö", "Grö"},
    {"new\nline", "new", "new", "new"},
    {"tab\there", "tab", "tab", "tab"},
    {"\x01\x1b[31mred\x7f", "$'\\001", "", ""},
    {"latin\xE9\xFF", "lat", "lat", "lat"},
    {"  outer  ", "\\ ", "  ", "  "},
};

/// A file with all of these groups.
inline std::string TextOfNameRows()
{
    std::string text;
    for (const NameRow& row : NameRows)
    {
        text += HeaderOf(row.name) + "k=v\n";
    }
    return text;
}

/// Programs that help a shell as the real ones do and otherwise write down their arguments.
class CompletingShellTest : public ToolTest
{
protected:
    CompletingShellTest()
    {
        std::filesystem::create_directory(PathOf("bin"));
        MakeProgram("korlo-settings", "if [ \"$1\" = complete ]; then shift; exec " + CommandOf(KORLO_SETTINGS_TOOL) +
                                          "complete --within 60000 \"$@\"; fi\n");
        MakeProgram("korlo-settings-server",
                    "if [ \"$1\" = --help ]; then exec " + CommandOf(KORLO_SETTINGS_SERVER) + "--help; fi\n");
    }

    /// Where the shell finds these before all others.
    std::string SearchPath() const { return PathOf("bin") + ':' + std::getenv("PATH"); }

    /// What the program was given that ran last. None if it was not run.
    Arguments GivenArguments() const
    {
        std::istringstream text(Read(PathOf("arguments")));
        Arguments arguments;
        for (std::string argument; std::getline(text, argument, '\0');)
        {
            arguments.push_back(argument);
        }
        return arguments;
    }

private:
    static std::string CommandOf(const char* program) { return std::string(KORLO_EMULATOR) + ' ' + program + ' '; }

    /// @param exceptions the lines of a script that do what the real program is to do.
    void MakeProgram(const std::string& name, const std::string& exceptions) const
    {
        Write("bin/" + name, "#!/bin/sh\n" + exceptions + "printf '%s\\0' \"$@\" > '" + PathOf("arguments") +
                                 "'\nprintf 'was %s\\n' run\n");
        std::filesystem::permissions(PathOf("bin/" + name), std::filesystem::perms(0755));
    }
};

}  // namespace korlo::settings::cli
