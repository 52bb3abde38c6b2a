#include "SettingsFiles.h"

#include <algorithm>
#include <filesystem>

#include "korlo/osa/Exception.h"

namespace korlo::daemon
{
namespace
{

namespace fs = std::filesystem;

bool IsSettingsFile(const fs::directory_entry& entry, SettingsFiles::Folders folders)
{
    const std::string name = entry.path().filename().string();
    std::error_code ignored;
    return name.ends_with(".ini") && !name.starts_with('.') &&
           (folders == SettingsFiles::Listed || !entry.is_directory(ignored));
}

void AddFolder(const std::string& folder, SettingsFiles::Folders folders, std::vector<std::string>& files)
{
    const std::size_t first = files.size();
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error))
    {
        if (IsSettingsFile(*entry, folders))
        {
            files.push_back(entry->path().string());
        }
    }
    if (error)
    {
        throw osa::Exception("Failed to read folder '%s': %s", folder.c_str(), error.message().c_str());
    }
    std::sort(files.begin() + static_cast<std::ptrdiff_t>(first), files.end());
}

}  // namespace

std::vector<std::string> SettingsFiles::Find(Folders folders) const
{
    std::vector<std::string> files;
    for (const std::string& path : _filesAndFolders)
    {
        std::error_code ignored;
        if (fs::is_directory(path, ignored))
        {
            AddFolder(path, folders, files);
        }
        else
        {
            files.push_back(path);
        }
    }
    return files;
}

}  // namespace korlo::daemon
