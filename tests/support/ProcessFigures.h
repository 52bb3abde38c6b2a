#pragma once
// What the system counts for a process.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/types.h>

namespace korlo
{

/// Figures of a process as they are now; 0 for one that has ended.
///
/// Thread safety: all methods, from any thread.
class ProcessFigures
{
public:
    explicit ProcessFigures(pid_t process) : _path("/proc/" + std::to_string(process) + '/') {}

    std::size_t CountThreads() const { return CountEntries("task"); }
    std::size_t CountDescriptors() const { return CountEntries("fd"); }

    std::size_t GetResidentKiB() const
    {
        std::ifstream status(_path + "status");
        for (std::string word; status >> word;)
        {
            if (word == "VmRSS:")
            {
                std::size_t kib = 0;
                status >> kib;
                return kib;
            }
        }
        return 0;
    }

private:
    std::size_t CountEntries(const std::string& folder) const
    {
        std::error_code ignored;
        std::size_t count = 0;
        for (std::filesystem::directory_iterator entry(_path + folder, ignored), end; !ignored && entry != end;
             entry.increment(ignored))
        {
            ++count;
        }
        return count;
    }

    const std::string _path;
};

}  // namespace korlo
