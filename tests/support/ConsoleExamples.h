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

/// A line as the reader of a manual page sees it: a backslash in the source makes the next character an ordinary one.
inline std::string WithoutEscapes(std::string line)
{
    for (std::size_t at = 0; (at = line.find('\\', at)) != std::string::npos; ++at)
    {
        line.erase(at, 1);
    }
    return line;
}

/// The `$ ` lines of ```console blocks, `> ` lines that continue them, and what follows as their output. In the source
/// of a manual page (.scd) blocks have no language, so those that begin with `$ ` count.
inline std::vector<ConsoleExample> ReadConsoleExamples(const std::string& path)
{
    const bool isManualPage = path.ends_with(".scd");
    std::ifstream document(path);
    std::vector<ConsoleExample> examples;
    enum
    {
        Outside,
        AtBegin,
        InConsole,
        InOther
    } place = Outside;
    std::size_t number = 0;
    for (std::string line; std::getline(document, line);)
    {
        ++number;
        if (line.starts_with("```"))
        {
            const auto block = isManualPage ? AtBegin : line == "```console" ? InConsole : InOther;
            place = place == Outside ? block : Outside;
            continue;
        }
        if (place == AtBegin)
        {
            place = line.starts_with("$ ") ? InConsole : InOther;
        }
        if (place != InConsole)
        {
            continue;
        }
        if (isManualPage)
        {
            line = WithoutEscapes(line);
        }
        if (line.starts_with("$ "))
        {
            examples.push_back({number, line.substr(2), ""});
        }
        else if (line.starts_with("> "))
        {
            examples.back().command += '\n' + line.substr(2);
        }
        else
        {
            examples.back().output += line + '\n';
        }
    }
    return examples;
}

}  // namespace korlo
