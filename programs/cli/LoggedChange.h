#pragma once
// An entry of the server's journal, as its control door gives it.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "korlo/core/IniFile.h"

namespace korlo::settings::cli
{

/// A change, or several that were alike. Texts are empty, and numbers 0, where the entry says nothing.
///
/// Thread safety: none of its own; the owner guards it.
struct LoggedChange
{
    /// Reads one group of an answer.
    /// @throws Failure with StatusUnusable when it makes no sense.
    LoggedChange(const std::string& group, const core::IniFile::KeyValueMap& values);

    /// One line without its line break, whatever the names hold.
    std::string GetText() const;

    std::uint64_t number = 0;
    std::string time;
    std::string peer;
    std::string user;
    std::uint64_t process = 0;
    std::string program;
    std::string operation;
    std::string outcome;
    std::uint64_t count = 0;
    std::vector<std::string> groups;
    std::map<std::string, std::vector<std::string>> keys;  // by group
    std::uint64_t more = 0;                                // names that are left out
    std::uint64_t moreGroups = 0;                          // groups that are left out, with all their keys

private:
    void AddKey(const std::string& locator);
    std::string GetAuthor() const;
};

}  // namespace korlo::settings::cli
