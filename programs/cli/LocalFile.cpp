#include "LocalFile.h"

#include "IniText.h"
#include "IniTextEditor.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

/// Only what the change altered: another process may have altered the rest meanwhile.
void CarryOver(IniFile& target, const IniFile& before, const IniFile& after)
{
    for (const auto& [group, values] : before)
    {
        if (!after.HasGroup(group))
        {
            target.RemoveGroup(group);
            continue;
        }
        for (const auto& [key, value] : values)
        {
            if (!after.HasValue(group, key))
            {
                target[group].erase(key);
            }
        }
    }
    for (const auto& [group, values] : after)
    {
        target[group];  // one without keys, too
    }
    target.MergeSettings(ChangedValues(before, after));
}

}  // namespace

LocalFile::LocalFile(const std::string& path, Purpose purpose) : _file(path), _purpose(purpose)
{
    if (purpose == Changing || purpose == ChangingOrCreating)
    {
        _lock.emplace(path);
    }
    if (purpose != ChangingOrCreating || _file.Exists())
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
    const bool isMissing = _purpose == ChangingOrCreating && !_file.Exists();
    const IniTextEditor editor(isMissing ? std::string() : _file.Read());
    IniFile wanted = editor.GetDocument();
    CarryOver(wanted, before, after);
    if (!(wanted == editor.GetDocument()))
    {
        _file.Replace(editor.Edit(wanted));
    }
}

}  // namespace korlo::settings::cli
