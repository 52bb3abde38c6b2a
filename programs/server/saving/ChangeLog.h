#pragma once
// The text of the log that lies beside the user file.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/GroupNameCollection.h"
#include "settings/server/UserLayerChange.h"

namespace korlo::daemon
{

/// What tells one content of the user file from another.
///
/// Thread safety: none of its own; the owner guards it.
struct ContentMark
{
    static ContentMark Of(std::string_view content);

    bool operator==(const ContentMark&) const = default;

    std::size_t bytes;
    std::uint32_t checksum;
};

/// A log: which content of the user file it belongs to, and what was changed since, a record for each change. It is INI
/// text, whose comments are the log's own lines:
///
///     #log 1 of 16 bytes c8d21859 35220860
///     #change 40 bcc4b424
///     #remove [Network/Wifi]
///     [Audio]
///     volume=3
///
/// The grammar, in which NUMBER is decimal without leading zeros and CHECKSUM eight hexadecimal digits, 0-9 and a-f:
///
///     log      = first *record
///     first    = "#log 1 of " NUMBER " bytes " CHECKSUM-1 " " CHECKSUM-2 LF
///     record   = "#change " NUMBER " " CHECKSUM-3 LF body
///     body     = *( "#remove " group-line LF ) INI-text
///
/// Of the first line NUMBER and CHECKSUM-1 are the content's, and CHECKSUM-2 is that of the line up to the last blank.
/// Of a record NUMBER is the length of the body in bytes, and CHECKSUM-3 that of NUMBER LF body. The groups that a body
/// removes go first, then its settings are merged. INI text quotes what it cannot carry, so no line of a body but its
/// own begins with '#', and any byte survives in names and values.
///
/// What stands behind the last record that is whole is an end of the log by itself:
///
///     end        meets                                    means
///     Whole      nothing                                  every record counts
///     Cut        the beginning of a record or first line  a write that was cut; it was never answered
///     Damaged    anything else                            more may be lost than a change that was never answered
///
/// A record that is shorter than its length says is damaged, and not cut, where a record follows it, or where it would
/// be right for its true length: then it is the length that was damaged.
///
/// Thread safety: none of its own; the views are into the text that was read.
class ChangeLog
{
public:
    enum End
    {
        Whole,
        Cut,
        Damaged
    };

    struct Record
    {
        std::size_t line;       ///< of its first line, counted from 1
        std::string_view body;  ///< begins in the line after
    };

    /// What the body of a record says.
    struct Parts
    {
        explicit Parts(std::string_view body);

        settings::GroupNameCollection removed;
        std::size_t removedLines = 0;  ///< each group stands on a line of its own
        std::string_view merged;       ///< INI text
    };

    static std::string FirstLineFor(const ContentMark& content);
    static std::string RecordOf(const settings::server::UserLayerChange& change);

    /// Reads a log up to its end, or to where it is cut or damaged.
    explicit ChangeLog(std::string_view text);

    /// Nothing where the first line is cut or damaged; there are no records then.
    const std::optional<ContentMark>& GetContent() const { return _content; }

    const std::vector<Record>& GetRecords() const { return _records; }
    End GetEnd() const { return _end; }

    /// Where that end begins, counted from 1.
    std::size_t GetEndLine() const { return _line; }

    /// Makes the changes of all records.
    void ApplyTo(core::IniFile& layer) const;

private:
    std::string_view ReadFirstLine(std::string_view text);
    std::size_t ReadRecord(std::string_view text);

    std::optional<ContentMark> _content;
    std::vector<Record> _records;
    End _end = Whole;
    std::size_t _line = 1;
};

}  // namespace korlo::daemon
