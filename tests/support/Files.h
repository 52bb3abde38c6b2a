#pragma once
// Small services for tests that work on files.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>

#include "korlo/osa/Exception.h"

namespace korlo
{

inline void WriteFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

/// What is in the file, or nothing where there is none.
inline std::optional<std::string> ContentOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
    {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

/// The names of what is in the folder.
inline std::set<std::string> NamesIn(const std::string& folder)
{
    std::set<std::string> names;
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(folder))
    {
        names.insert(entry.path().filename().string());
    }
    return names;
}

/// The message of the exception that the call throws; empty when it throws none.
template <typename Call>
std::string MessageOf(Call call)
{
    try
    {
        call();
        return {};
    }
    catch (const osa::Exception& exception)
    {
        return exception.what();
    }
}

}  // namespace korlo
