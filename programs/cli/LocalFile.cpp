#include "LocalFile.h"

#include "IniTextEditor.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

void RemoveMissingKeys(IniFile& target, const std::string& group, const IniFile::KeyValueMap& before,
                       const IniFile::KeyValueMap& after)
{
    for (const auto& [key, value] : before)
    {
        if (!after.contains(key))
        {
            target[group].erase(key);
        }
    }
}

void CarryOver(IniFile& target, const IniFile& before, const IniFile& after)
{
    for (const auto& [group, values] : before)
    {
        const auto kept = after.Find(group);
        if (kept == after.end())
        {
            target.RemoveGroup(group);
        }
        else
        {
            RemoveMissingKeys(target, group, values, kept->second);
        }
    }
    for (const auto& [group, values] : after)
    {
        IniFile::KeyValueMap& targetValues = target[group];
        const auto previous = before.Find(group);
        for (const auto& [key, value] : values)
        {
            // Not what this change left alone: another process may have changed it meanwhile.
            const bool isNew = previous == before.end() || !previous->second.contains(key);
            if (isNew || previous->second.find(key)->second != value)
            {
                targetValues.insert_or_assign(key, value);
            }
        }
    }
}

}  // namespace

LocalFile::LocalFile(const std::string& path, Access access) : _file(path), _access(access)
{
    if (access == Change || access == ChangeOrCreate)
    {
        _lock.emplace(path);
    }
    if (access != ChangeOrCreate || _file.Exists())
    {
        _document.Load(path.c_str());
    }
}

void LocalFile::Apply(const IniFile& before, const IniFile& after)
{
    if (before == after)
    {
        return;
    }
    std::optional<FolderLock> ownLock;
    if (!_lock)
    {
        ownLock.emplace(_file.GetPath());
    }
    const std::string text = ReadText();
    const IniTextEditor editor(text);
    IniFile wanted = editor.GetDocument();
    CarryOver(wanted, before, after);
    if (!(wanted == editor.GetDocument()))
    {
        _file.Replace(editor.Edit(wanted));
    }
}

std::string LocalFile::ReadText() const
{
    return _access == ChangeOrCreate && !_file.Exists() ? std::string() : _file.Read();
}

}  // namespace korlo::settings::cli
