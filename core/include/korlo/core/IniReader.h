#pragma once
// Reads INI text (docs/ini-format.md) for whoever wants to know on which line things stand.

#include <cstddef>
#include <string_view>

namespace korlo::core
{

/// Hears what a text holds, in the order of the text, repetitions included. Lines are counted from 1; the views are
/// valid during the call.
///
/// Thread safety: called on the thread that reads.
class IIniObserver
{
public:
    virtual ~IIniObserver() = default;

    /// A group begins, or goes on.
    virtual void OnGroup(std::size_t line, std::string_view name) = 0;

    /// A key of the group that was named last; never called before the first OnGroup.
    virtual void OnValue(std::size_t line, std::string_view key, std::string_view value) = 0;

    /// A line that makes no sense, and why. An IniFile skips it. Keys below an unreadable group line are bad lines too.
    virtual void OnBadLine(std::size_t line, const char* reason) = 0;
};

/// Reads a text without building a document. What an observer throws ends the reading and passes out.
///
///     class KeyCounter : public IIniObserver { ... };
///     KeyCounter counter;
///     IniReader::ReadFile("/etc/device.ini", counter);
///
/// Thread safety: no state; any thread.
class IniReader
{
public:
    IniReader() = delete;

    /// Reads INI text to its end.
    static void ReadText(std::string_view text, IIniObserver& observer);

    /// @throws osa::Exception naming the path and the reason when the file cannot be opened or read; the observer has
    ///         heard nothing by then.
    static void ReadFile(const char* path, IIniObserver& observer);

    /// The same, and a file of more than `mostBytes` is one that cannot be read. No more than that is taken into
    /// memory.
    static void ReadFile(const char* path, IIniObserver& observer, std::size_t mostBytes);
};

}  // namespace korlo::core
