#include "SettingsFiles.h"

#include <algorithm>
#include <filesystem>

#include "korlo/osa/Exception.h"

namespace korlo::daemon
{
namespace
{

namespace fs = std::filesystem;

bool IsNamedLikeAFile(const fs::directory_entry& entry)
{
    const std::string name = entry.path().filename().string();
    return name.ends_with(".ini") && !name.starts_with('.');
}

bool IsSettingsFile(const fs::directory_entry& entry)
{
    std::error_code ignored;
    return IsNamedLikeAFile(entry) && !entry.is_directory(ignored);
}

template <typename Choose>
void AddFolder(const std::string& folder, std::vector<std::string>& files, const Choose& choose)
{
    const std::size_t first = files.size();
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error))
    {
        if (choose(*entry))
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

template <typename Choose>
std::vector<std::string> FindFiles(const std::vector<std::string>& filesAndFolders, const Choose& choose)
{
    std::vector<std::string> files;
    for (const std::string& path : filesAndFolders)
    {
        std::error_code ignored;
        if (fs::is_directory(path, ignored))
        {
            AddFolder(path, files, choose);
        }
        else
        {
            files.push_back(path);
        }
    }
    return files;
}

}  // namespace

std::vector<std::string> SettingsFiles::Find() const
{
    return FindFiles(_filesAndFolders, IsSettingsFile);
}

std::vector<std::string> SettingsFiles::FindWithFolders() const
{
    return FindFiles(_filesAndFolders, IsNamedLikeAFile);
}

}  // namespace korlo::daemon
