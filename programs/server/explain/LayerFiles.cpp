#include "explain/LayerFiles.h"

#include <algorithm>

#include <sys/stat.h>

#include "korlo/osa/Exception.h"

namespace korlo::daemon
{
namespace
{

std::int64_t Nanoseconds(const timespec& time)
{
    constexpr std::int64_t perSecond = 1'000'000'000;
    return time.tv_sec * perSecond + time.tv_nsec;
}

}  // namespace

LayerFiles::LayerFiles(const SettingsFiles& files) : _files(files)
{
    try
    {
        for (const std::string& path : _files.Find())
        {
            _loaded.emplace_back(path, MarkOf(path));
        }
    }
    catch (const osa::Exception&)
    {
        // A folder cannot be read: the load says so, and ends the start.
    }
}

std::optional<LayerFiles::Mark> LayerFiles::MarkOf(const std::string& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
    {
        return std::nullopt;
    }
    return Mark{status.st_dev, status.st_ino, status.st_size, Nanoseconds(status.st_mtim), Nanoseconds(status.st_ctim)};
}

std::vector<LayerFiles::File> LayerFiles::Find() const
{
    std::vector<std::string> paths;
    try
    {
        paths = _files.Find();
    }
    catch (const osa::Exception&)
    {
        // A folder is gone: its files are listed below.
    }
    std::vector<File> files;
    files.reserve(paths.size());
    for (const std::string& path : paths)
    {
        const std::optional<Mark> mark = MarkOf(path);
        const auto loaded = std::ranges::find(_loaded, path, &decltype(_loaded)::value_type::first);
        files.push_back({path, loaded == _loaded.end() || !mark || loaded->second != mark});
    }
    for (const auto& [path, mark] : _loaded)
    {
        if (std::ranges::find(paths, path) == paths.end())
        {
            files.push_back({path, true});
        }
    }
    return files;
}

}  // namespace korlo::daemon
