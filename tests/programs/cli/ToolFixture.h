#pragma once
// Runs of korlo-settings in a fresh folder.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings::cli
{

/// The command that runs the tool: its path, after an emulator's if it is built for another processor.
inline std::vector<std::string> ToolCommand()
{
    std::istringstream words(KORLO_EMULATOR);
    std::vector<std::string> command;
    for (std::string word; words >> word;)
    {
        command.push_back(word);
    }
    command.emplace_back(KORLO_SETTINGS_TOOL);
    return command;
}

/// What came of one run.
struct ToolResult
{
    int status;
    std::string output;
    std::string errors;
};

/// A folder with a settings file, and the tool.
///
/// Thread safety: none of its own; the owner guards it.
class ToolTest : public testing::Test
{
protected:
    using Arguments = std::vector<std::string>;

    static Arguments Command(const Arguments& arguments)
    {
        Arguments command = ToolCommand();
        command.insert(command.end(), arguments.begin(), arguments.end());
        return command;
    }

    static ToolResult Run(const Arguments& arguments, const std::string& input = "",
                          const ChildProcess::Variables& variables = {})
    {
        ChildProcess child(Command(arguments), variables);
        child.Write(input);
        child.CloseInput();
        const int status = child.Wait();
        return {status, child.GetOutput(), child.GetErrors()};
    }

    /// Runs a command on the settings file.
    ToolResult OnFile(Arguments arguments, const std::string& input = "") const
    {
        arguments.insert(arguments.begin(), {"--local", _path});
        return Run(arguments, input);
    }

    ToolResult OnFileAsJson(Arguments arguments) const
    {
        arguments.insert(arguments.begin(), {"--local", _path, "--json"});
        return Run(arguments);
    }

    std::string PathOf(const std::string& name) const { return _folder.PathOf(name); }

    std::string Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(PathOf(name), std::ios::binary) << text;
        return PathOf(name);
    }

    void WriteFile(const std::string& text) const { Write("settings.ini", text); }

    static std::string Read(const std::string& path)
    {
        std::ostringstream text;
        text << std::ifstream(path, std::ios::binary).rdbuf();
        return text.str();
    }

    std::string ReadFile() const { return Read(_path); }

    TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("settings.ini");
};

/// Compares a result with all that it must be.
inline void ExpectResult(const ToolResult& result, int status, const std::string& output,
                         const testing::Matcher<std::string>& errors = testing::IsEmpty())
{
    EXPECT_EQ(result.status, status) << result.errors;
    EXPECT_EQ(result.output, output);
    EXPECT_THAT(result.errors, errors);
}

}  // namespace korlo::settings::cli
