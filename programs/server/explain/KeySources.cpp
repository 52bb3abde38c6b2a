#include "explain/KeySources.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

#include "RestrictedFilesLoader.h"
#include "korlo/core/IniReader.h"
#include "korlo/core/StringUtil.h"
#include "korlo/osa/Exception.h"
#include "saving/ChangeLog.h"
#include "saving/UserFileTexts.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::daemon
{
namespace
{

using settings::SettingLocator;

struct Value
{
    std::size_t line;
    std::string text;
};

/// Keeps of one file what concerns the key.
///
/// Thread safety: none of its own; lives on the stack of who reads the file.
class KeyFinder : public core::IIniObserver
{
public:
    explicit KeyFinder(const SettingLocator& locator) : _locator(locator) {}

    void OnGroup(std::size_t, std::string_view name) override
    {
        _isGroup = name == _locator.group;
        _isClaims = name == ClaimingGroup;
        _isRecord = name == RecordGroup;
    }

    void OnValue(std::size_t line, std::string_view key, std::string_view value) override
    {
        if (_isGroup && key == _locator.key)
        {
            values.push_back({line, std::string(value)});
        }
        if (_isClaims && key == _locator.group)
        {
            claim = Value{line, std::string(value)};  // of several lines the last one holds
        }
        if (_isRecord && core::StringUtil::MatchesPattern(std::string(value), _locator.group))
        {
            record.push_back({line, std::string(key), std::string(value)});
        }
    }

    void OnBadLine(std::size_t, const char*) override {}

    std::vector<Value> values;
    std::optional<Value> claim;
    std::vector<RecordEntry> record;

private:
    const SettingLocator& _locator;
    bool _isGroup = false;
    bool _isClaims = false;
    bool _isRecord = false;
};

/// Reads the layers one after the other.
///
/// Thread safety: none of its own; lives on the stack of who asks.
class Finder
{
public:
    Finder(const StoreFiles& files, const SettingLocator& locator)
        : _files(files),
          _locator(locator),
          _isRestricted(settings::server::GroupDiscriminator::IsRestrictedGroup(locator.group))
    {
    }

    KeySources Find()
    {
        _sources.changedDefaults = ReadLayer(Layer::Default, _files.defaults.Find());
        ReadUserFile(_files.user);
        _sources.changedRestricted = ReadLayer(Layer::Restricted, _files.restricted.Find());
        return std::move(_sources);
    }

private:
    /// The first of the files that is changed.
    std::optional<std::string> ReadLayer(Layer layer, const std::vector<LayerFiles::File>& files)
    {
        std::optional<std::string> changed;
        for (const LayerFiles::File& file : files)
        {
            if (file.isChanged && !changed)
            {
                changed = file.path;
            }
            if (const std::optional<KeyFinder> found = Read(layer, file.path))
            {
                Add(layer, file, *found, WhyNot(layer, found->claim, file.path));
            }
        }
        return changed;
    }

    void ReadUserFile(const std::string& path)
    {
        std::error_code ignored;
        if (path.empty() || !std::filesystem::exists(path, ignored))
        {
            return;
        }
        try
        {
            const UserFileTexts texts = UserFileTexts::Read(path);
            KeyFinder found(_locator);
            core::IniReader::ReadText(texts.content, found);
            Add(Layer::User, {path, false}, found, _isRestricted ? RestrictedText : "");
            _sources.record = std::move(found.record);
            if (texts.belongs)
            {
                ReadLog(texts);
            }
        }
        catch (const osa::Exception& exception)
        {
            _sources.occurrences.push_back({Layer::User, path, 0, std::nullopt, exception.what(), true});
        }
    }

    /// Each record over what was before it.
    void ReadLog(const UserFileTexts& texts)
    {
        const ChangeLog log(texts.log);
        for (const ChangeLog::Record& record : log.GetRecords())
        {
            const ChangeLog::Parts parts(record.body);
            if (parts.removed.contains(_locator.group))
            {
                LoseUserValues(texts.logPath, "removed by " + texts.logPath + ':' + std::to_string(record.line));
            }
            if (parts.removed.contains(RecordGroup))
            {
                _sources.record.clear();
            }
            KeyFinder found(_locator);
            core::IniReader::ReadText(parts.merged, found);
            const std::size_t linesBefore = record.line + parts.removedLines;
            for (const Value& value : found.values)
            {
                LoseUserValues(texts.logPath, "");
                _sources.occurrences.push_back({Layer::User, texts.logPath, linesBefore + value.line, value.text,
                                                _isRestricted ? RestrictedText : "", false});
            }
            for (RecordEntry& entry : found.record)
            {
                std::erase_if(_sources.record, [&entry](const RecordEntry& other) { return other.key == entry.key; });
                _sources.record.push_back({linesBefore + entry.line, entry.key, entry.value, texts.logPath});
            }
        }
    }

    /// A record of the log goes over the value before it: one of the log is dropped, as it may be one of thousands.
    /// @param why empty where the next value overrides that of the user file.
    void LoseUserValues(const std::string& logPath, const std::string& why)
    {
        std::vector<Occurrence>& all = _sources.occurrences;
        std::erase_if(all, [&logPath](const Occurrence& o) { return o.file == logPath; });
        for (Occurrence& occurrence : all)
        {
            if (occurrence.layer == Layer::User && occurrence.why.empty())
            {
                occurrence.why = why;
            }
        }
    }

    std::optional<KeyFinder> Read(Layer layer, const std::string& path)
    {
        try
        {
            KeyFinder found(_locator);
            core::IniReader::ReadFile(path.c_str(), found);
            return found;
        }
        catch (const osa::Exception& exception)
        {
            _sources.occurrences.push_back({layer, path, 0, std::nullopt, exception.what(), true});
            return std::nullopt;
        }
    }

    void Add(Layer layer, const LayerFiles::File& file, const KeyFinder& found, const std::string& why)
    {
        for (const Value& value : found.values)
        {
            _sources.occurrences.push_back({layer, file.path, value.line, value.text, why, file.isChanged});
        }
    }

    /// Why a default or restricted file gives the group nothing; empty when it does. Notes the file's claim, to which
    /// the files behind it are held.
    std::string WhyNot(Layer layer, const std::optional<Value>& claimed, const std::string& path)
    {
        if (_isRestricted && layer == Layer::Default)
        {
            return RestrictedText;
        }
        if (_isRestricted)
        {
            return _files.clientsAreRefused && _locator.group == RestrictedFilesLoader::RefusedGroup
                       ? "not taken: with access rules the group tells a client what was refused to it"
                       : "";
        }
        if (_locator.group == ClaimingGroup)
        {
            return "not taken: what this group holds are claims, and no settings";
        }
        std::optional<int> own;
        int priority = 0;
        if (claimed && core::StringUtil::TryParse(claimed->text, priority))
        {
            own = priority;
        }
        std::string why;
        if (_strongest && (!own || *own < *_strongest))
        {
            why = "dropped: " + _strongestPlace + " claims the group with priority " + std::to_string(*_strongest) +
                  ", and this file with " + (own ? std::to_string(*own) : "none");
        }
        if (own && (!_strongest || *own > *_strongest))
        {
            _strongest = own;
            _strongestPlace = path + ':' + std::to_string(claimed->line);
        }
        if (why.empty() && _locator.group == RecordGroup)
        {
            why = "not taken: the record of erased groups belongs to the user layer";
        }
        return why;
    }

    static constexpr const char* RestrictedText =
        "not taken: the group is restricted, and only the files of --restricted give it values";

    const StoreFiles& _files;
    const SettingLocator& _locator;
    const bool _isRestricted;
    std::optional<int> _strongest;  // the claim of the group in the files that were read so far
    std::string _strongestPlace;
    KeySources _sources;
};

}  // namespace

KeySources FindKeySources(const StoreFiles& files, const SettingLocator& locator)
{
    return Finder(files, locator).Find();
}

}  // namespace korlo::daemon
