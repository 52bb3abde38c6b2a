#pragma once
// The commands that a document shows.

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

namespace korlo
{

/// A command as one types it, and what the document says that it shows.
struct ConsoleExample
{
    std::size_t line;
    std::string command;  // may have several lines
    std::string output;
};

/// The `$ ` lines of ```console blocks, `> ` lines that continue them, and what follows as their output.
inline std::vector<ConsoleExample> ReadConsoleExamples(const std::string& path)
{
    std::ifstream document(path);
    std::vector<ConsoleExample> examples;
    bool inBlock = false;
    std::size_t number = 0;
    for (std::string line; std::getline(document, line);)
    {
        ++number;
        if (line.starts_with("```"))
        {
            inBlock = line == "```console";
        }
        else if (inBlock && line.starts_with("$ "))
        {
            examples.push_back({number, line.substr(2), ""});
        }
        else if (inBlock && line.starts_with("> "))
        {
            examples.back().command += '\n' + line.substr(2);
        }
        else if (inBlock)
        {
            examples.back().output += line + '\n';
        }
    }
    return examples;
}

}  // namespace korlo
