#include "korlo/core/IniFile.h"

#include <algorithm>
#include <array>

#include "ReadWholeFile.h"
#include "core/IniLoader.h"
#include "core/IniParser.h"
#include "core/IniWriter.h"
#include "korlo/core/StringUtil.h"
#include "korlo/osa/Exception.h"

namespace korlo::core
{
namespace
{

/// Collects bad lines and nothing else.
class BadLineCollector : public IIniSink
{
public:
    void OnGroup(std::string_view) override {}
    void OnValue(std::string_view, std::string_view) override {}
    void OnBadLine(std::size_t number, const char* reason) override { _lines.push_back({number, reason}); }

    std::vector<IniFile::BadLine> Take() { return std::move(_lines); }

private:
    std::vector<IniFile::BadLine> _lines;
};

std::size_t ReadSome(std::streambuf& in, char* pTo, std::size_t room)
{
    return static_cast<std::size_t>(in.sgetn(pTo, static_cast<std::streamsize>(room)));
}

/// What is left of the stream behind `head`, all in one text.
std::string ReadToEnd(std::streambuf& in, std::string_view head)
{
    std::string text(head);
    std::size_t length = head.size();
    do
    {
        text.resize(length * 2);  // reading stays linear however long the stream turns out to be
        length += ReadSome(in, text.data() + length, text.size() - length);
    } while (length == text.size());
    text.resize(length);
    return text;
}

bool EqualsIgnoringCase(std::string_view text, std::string_view lowerCase)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                      [lower](char left, char right) { return lower(left) == right; });
}

bool IsOneOf(std::string_view text, const std::array<std::string_view, 4>& words)
{
    return std::any_of(words.begin(), words.end(), [text](auto word) { return EqualsIgnoringCase(text, word); });
}

}  // namespace

IniFile::IniFile(const char* path)
{
    Load(path);
}

void IniFile::Clear()
{
    _groups.clear();
}

void IniFile::Load(const char* path)
{
    LoadFromText(ReadWholeFile(osa::NotNull(path, "Path")), path);
}

void IniFile::LoadFromStream(std::istream& in)
{
    const std::istream::sentry ready(in, true);
    if (ready)
    {
        LoadFromStream(*in.rdbuf());
        in.setstate(std::ios::eofbit);
    }
}

void IniFile::LoadFromStream(std::streambuf& in)
{
    std::array<char, 1024> head;  // most blocks fit, and cost no allocation
    const std::size_t length = ReadSome(in, head.data(), head.size());
    const std::string_view text(head.data(), length);
    length < head.size() ? LoadFromText(text, nullptr) : LoadFromText(ReadToEnd(in, text), nullptr);
}

void IniFile::LoadFromString(const std::string& text)
{
    LoadFromText(text, nullptr);
}

void IniFile::LoadFromText(std::string_view text, const char* source)
{
    IniLoader loader(source);
    IniParser parser(text, loader);
    parser.Run();
    GroupMap loaded = loader.TakeGroups();
    if (_groups.empty())  // the usual case: the loader's compact layout is taken over as it is
    {
        _groups = std::move(loaded);
        return;
    }
    for (auto& [name, values] : loaded)
    {
        KeyValueMap& mine = _groups[name];
        if (mine.empty())
        {
            mine = std::move(values);
            continue;
        }
        for (auto& [key, value] : values)
        {
            mine.insert_or_assign(key, std::move(value));
        }
    }
}

void IniFile::SaveToStream(std::ostream& out) const
{
    IniWriter writer(out);
    for (const auto& [name, values] : _groups)
    {
        writer.WriteGroup(name, values);
    }
    writer.Flush();
}

void IniFile::SaveGroupToStream(std::ostream& out, const std::string& group) const
{
    if (const KeyValueMap* pValues = _groups.Lookup(group))
    {
        IniWriter writer(out);
        writer.WriteGroup(group, *pValues);
        writer.Flush();
    }
}

std::vector<IniFile::BadLine> IniFile::FindBadLines(const char* path)
{
    const std::string text = ReadWholeFile(osa::NotNull(path, "Path"));
    BadLineCollector collector;
    IniParser(text, collector).Run();
    return collector.Take();
}

void IniFile::MergeSettings(const IniFile& other)
{
    if (_groups.empty())  // a copy is laid out compactly, which what is added group by group is not
    {
        _groups = other._groups;
        return;
    }
    for (const auto& [name, values] : other._groups)
    {
        MergeGroup(name, values);
    }
}

void IniFile::MergeSettings(const IniFile& other, const std::string& group)
{
    if (const KeyValueMap* pValues = other._groups.Lookup(group))
    {
        MergeGroup(group, *pValues);
    }
}

void IniFile::MergeGroup(const std::string& name, const KeyValueMap& values)
{
    KeyValueMap& mine = (*this)[name];
    if (mine.empty())
    {
        mine = values;
        return;
    }
    for (const auto& [key, value] : values)
    {
        mine.insert_or_assign(key, value);
    }
}

bool IniFile::ContainsSettings(const IniFile& other) const
{
    for (const auto& [name, values] : other._groups)
    {
        // A group without keys asks for nothing, not even that the group is here.
        const KeyValueMap* pMine = values.empty() ? &values : _groups.Lookup(name);
        if (pMine == nullptr)
        {
            return false;
        }
        for (const auto& [key, value] : values)
        {
            const std::string* pValue = pMine->Lookup(key);
            if (pValue == nullptr || *pValue != value)
            {
                return false;
            }
        }
    }
    return true;
}

const std::string& IniFile::GetValue(const std::string& group, const std::string& key) const
{
    const std::string* pValue = Lookup(group, key);
    if (pValue == nullptr)
    {
        throw osa::Exception("No key '%s' in group '%s'", key.c_str(), group.c_str());
    }
    return *pValue;
}

std::string IniFile::GetValueOrDefault(const std::string& group, const std::string& key) const
{
    const std::string* pValue = Lookup(group, key);
    return pValue == nullptr ? std::string() : *pValue;
}

int IniFile::GetIntOrDefault(const std::string& group, const std::string& key, int def) const
{
    const std::string* pValue = Lookup(group, key);
    int number = 0;
    return pValue != nullptr && StringUtil::TryParse(*pValue, number) ? number : def;
}

bool IniFile::GetBoolOrDefault(const std::string& group, const std::string& key, bool def) const
{
    const std::string* pValue = Lookup(group, key);
    if (pValue == nullptr)
    {
        return def;
    }
    if (IsOneOf(*pValue, {"true", "yes", "on", "1"}))
    {
        return true;
    }
    return IsOneOf(*pValue, {"false", "no", "off", "0"}) ? false : def;
}

void IniFile::SetValue(const std::string& group, const std::string& key, const std::string& value)
{
    (*this)[group].insert_or_assign(key, value);
}

void IniFile::SetInt(const std::string& group, const std::string& key, int value)
{
    SetValue(group, key, std::to_string(value));
}

void IniFile::ValueListAppendUnique(const std::string& group, const std::string& value)
{
    KeyValueMap& values = _groups[group];
    if (std::any_of(values.begin(), values.end(), [&value](const auto& pair) { return pair.second == value; }))
    {
        return;
    }
    // Free at once unless keys were removed or chosen by hand; at the latest after as many steps as there are keys.
    std::size_t number = values.size() + 1;
    while (!values.try_emplace(std::to_string(number), value).second)
    {
        ++number;
    }
}

void IniFile::ValueListAppendUnique(const std::string& group, const std::set<std::string>& added)
{
    if (added.empty())
    {
        return;
    }
    KeyValueMap& values = _groups[group];
    std::set<std::string> missing = added;
    for (const auto& [key, value] : values)
    {
        missing.erase(value);
    }
    std::size_t number = values.size() + 1;  // only rises: all values together pass over each taken key once
    for (const std::string& value : missing)
    {
        while (!values.try_emplace(std::to_string(number), value).second)
        {
            ++number;
        }
    }
}

const IniFile::KeyValueMap& IniFile::operator[](const std::string& group) const
{
    const KeyValueMap* pValues = _groups.Lookup(group);
    if (pValues == nullptr)
    {
        throw osa::Exception("No group '%s'", group.c_str());
    }
    return *pValues;
}

const std::string* IniFile::Lookup(std::string_view group, std::string_view key) const
{
    const KeyValueMap* pValues = _groups.Lookup(group);
    return pValues == nullptr ? nullptr : pValues->Lookup(key);
}

}  // namespace korlo::core
