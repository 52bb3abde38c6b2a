#include "common/Protocol.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "common/DelimitedIstream.h"
#include "common/ReadDelimitedValues.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::common
{
namespace
{

constexpr char Blank = ' ';
constexpr char LineEnd = '\n';

/// Runs one part of the conversation. What it throws fails the stream, whose place in the conversation nobody knows any
/// more, and passes out.
template <typename Part>
void FailStreamOnThrow(std::ios& stream, const Part& part)
{
    try
    {
        part();
    }
    catch (...)
    {
        try
        {
            stream.setstate(std::ios_base::badbit);
        }
        catch (const std::ios_base::failure&)
        {
            // The stream throws for its own flags, too: what came first tells more.
        }
        throw;
    }
}

}  // namespace

std::string_view FirstWord(std::string_view line)
{
    constexpr std::string_view blanks = " \t\n\v\f\r";
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    return line.substr(0, line.find_first_of(blanks));
}

bool FitsGroupList(const std::string& nameOrPattern)
{
    return nameOrPattern != word::EndOfBlock && nameOrPattern.find(LineEnd) == std::string::npos;
}

void CheckGroupList(const GroupNameCollection& groups)
{
    const auto misfit = std::find_if_not(groups.begin(), groups.end(), FitsGroupList);
    if (misfit != groups.end())
    {
        throw osa::Exception("Group name '%s' cannot be sent: it is a full stop or holds a line break",
                             misfit->c_str());
    }
}

void WriteGroupList(std::ostream& out, const GroupNameCollection& groups)
{
    for (const std::string& entry : groups)
    {
        out << entry << LineEnd;
    }
    out << word::EndOfBlock << LineEnd;
}

template <typename Write>
void RequestWriter::Send(const Write& write) const
{
    FailStreamOnThrow(_out, [&] {
        write();
        _out.flush();
    });
}

void RequestWriter::SendList(std::string_view command, const GroupNameCollection& groups) const
{
    Send([&] {
        _out << command << LineEnd;
        WriteGroupList(_out, groups);
    });
}

void RequestWriter::WriteBody(const core::IniFile& settings) const
{
    settings.SaveToStream(_out);
    _out << word::EndOfBlock << LineEnd;
}

void RequestWriter::Get(const GroupNameCollection& groups) const
{
    _out << word::Get << Blank;
    SendList(word::Delimited, groups);
}

void RequestWriter::Merge(const core::IniFile& changes, bool persist) const
{
    Send([&] {
        _out << word::Merge << (persist ? "" : " ") << (persist ? "" : word::NoPersist) << LineEnd;
        WriteBody(changes);
    });
}

void RequestWriter::TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) const
{
    Send([&] {
        _out << word::TestAndMerge << LineEnd;
        WriteBody(expected);
        WriteBody(changes);
    });
}

void RequestWriter::Overwrite(const GroupNameCollection& groups, const core::IniFile& settings) const
{
    Send([&] {
        _out << word::Overwrite << LineEnd;
        WriteGroupList(_out, groups);
        WriteBody(settings);
    });
}

void RequestWriter::Restore(const GroupNameCollection& groups) const
{
    SendList(word::Restore, groups);
}

void RequestWriter::Subscribe(const GroupNameCollection& groups) const
{
    SendList(word::Subscribe, groups);
}

void RequestWriter::Dump(bool all) const
{
    _out << word::Dump << (all ? " " : "") << (all ? word::All : "") << LineEnd << std::flush;
}

void RequestWriter::InfoSubscribed() const
{
    _out << word::Info << Blank << word::Subscribed << LineEnd << std::flush;
}

void RequestWriter::Quit() const
{
    _out << word::Quit << LineEnd << std::flush;
}

void ResponseReader::ReadSettings(core::IniFile& settings) const
{
    FailStreamOnThrow(_in, [&] {
        stl::DelimitedStreamBuf body(&_in, word::EndOfBlock);
        settings.LoadFromStream(body);
    });
}

bool ResponseReader::ReadOutcome() const
{
    std::string line;
    std::getline(_in, line);
    return _in.good() && line == word::Ok;
}

void ResponseReader::ReadNotification(GroupNameCollection& groups, core::IniFile& settings) const
{
    FailStreamOnThrow(_in, [&] { readDelimitedValues(&_in, std::inserter(groups, groups.end())); });
    ReadSettings(settings);
}

std::string ResponseReader::ReadText() const
{
    std::string text;
    FailStreamOnThrow(_in, [&] {
        stl::DelimitedStreamBuf block(&_in, word::EndOfBlock);
        text.assign(std::istreambuf_iterator<char>(&block), std::istreambuf_iterator<char>());
    });
    return text;
}

void ResponseReader::Skip(std::string_view keyword) const
{
    constexpr auto everything = std::numeric_limits<std::streamsize>::max();
    if (keyword == word::Data)
    {
        stl::DelimitedIstream(&_in, word::EndOfBlock).ignore(everything);
    }
    else
    {
        _in.ignore(everything, LineEnd);
    }
}

}  // namespace korlo::settings::common
