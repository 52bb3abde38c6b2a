#pragma once
// What the system counts for a process.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

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

    std::size_t GetResidentKiB() const { return GetKiB("VmRSS:"); }

    /// Those that are in no file: what the process has written.
    std::size_t GetAnonymousKiB() const { return GetKiB("RssAnon:"); }

    /// Seconds of the processor that it has used.
    double GetProcessorSeconds() const
    {
        std::ifstream stat(_path + "stat");
        std::string text;
        std::getline(stat, text);
        std::istringstream fields(text.substr(text.rfind(')') + 1));
        const std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
        constexpr std::size_t userTime = 11;  // counted from behind the program's name
        return values.size() <= userTime + 1 ? 0
                                             : (std::stod(values[userTime]) + std::stod(values[userTime + 1])) /
                                                   static_cast<double>(::sysconf(_SC_CLK_TCK));
    }

private:
    std::size_t GetKiB(const char* name) const
    {
        std::ifstream status(_path + "status");
        for (std::string word; status >> word;)
        {
            if (word == name)
            {
                std::size_t kib = 0;
                status >> kib;
                return kib;
            }
        }
        return 0;
    }

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
