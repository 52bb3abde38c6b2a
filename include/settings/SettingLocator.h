#pragma once
// The address of one setting.

#include <string>

namespace korlo::settings
{

/// A group and a key; as one text "[Group]Key".
///
/// Thread safety: none of its own; the owner guards it.
class SettingLocator
{
public:
    /// Takes any group and key, of any bytes.
    SettingLocator(const std::string& group, const std::string& key);

    /// Takes a text such as "[Network]Address" apart. The group stands between the first '[' or ']' and the second, the
    /// key is everything after the second, whatever it holds; text before the first is ignored. Both may be empty.
    /// @throws osa::Exception "Failed to parse '%s' as a SettingLocator" for a text without two brackets.
    explicit SettingLocator(const std::string& text);

    ~SettingLocator() = default;
    SettingLocator(const SettingLocator&) = default;
    SettingLocator(SettingLocator&&) = default;
    SettingLocator& operator=(const SettingLocator&) = default;
    SettingLocator& operator=(SettingLocator&&) = default;

    std::string group;  ///< its name, without brackets
    std::string key;    ///< its name
};

}  // namespace korlo::settings
