#pragma once
// The topics of one device.

#include <optional>
#include <string>
#include <string_view>

namespace korlo::settings::mqtt
{

/// A name of any bytes as one level of a topic: what is not a letter, a digit or one of `-._~` becomes `%HH`, in upper
/// case. So no wildcard, separator, zero byte or leading `$` is left, and each name has exactly one form.
std::string EncodeName(std::string_view name);

/// The name whose form this level is; none when the level is the form of no name.
std::optional<std::string> DecodeName(std::string_view level);

/// Makes the topics of a device, and takes apart those that come in.
///
///     const TopicNames topics("panel 7");
///     topics.Reported("Net/eth0");  // korlo/1/panel%207/group/Net%2Feth0/reported
///
/// Thread safety: immutable; any thread.
class TopicNames
{
public:
    enum Kind
    {
        Status,
        Reported,
        Desired,
        Foreign  // not one that this device listens to
    };

    struct Parts
    {
        Kind kind = Foreign;
        std::string level;                 // the group's name as it stands in the topic; empty for others
        std::optional<std::string> group;  // decoded; none when the level is the form of no name
    };

    explicit TopicNames(std::string_view device);

    const std::string& GetStatus() const { return _status; }
    std::string ReportedOf(std::string_view group) const { return OfLevel(EncodeName(group), ReportedEnd); }

    /// Filters for the topics of all groups.
    std::string AllReported() const { return OfLevel(AnyLevel, ReportedEnd); }
    std::string AllDesired() const { return OfLevel(AnyLevel, DesiredEnd); }

    /// @param level as in Parts: so that a level that is no name's gets an answer, too.
    std::string ReportedAtLevel(std::string_view level) const { return OfLevel(level, ReportedEnd); }
    std::string AcceptedAtLevel(std::string_view level) const { return OfLevel(level, "/desired/accepted"); }
    std::string RejectedAtLevel(std::string_view level) const { return OfLevel(level, "/desired/rejected"); }

    Parts Parse(std::string_view topic) const;

private:
    static constexpr std::string_view AnyLevel = "+";
    static constexpr std::string_view ReportedEnd = "/reported";
    static constexpr std::string_view DesiredEnd = "/desired";

    std::string OfLevel(std::string_view level, std::string_view end) const;

    const std::string _status;
    const std::string _groups;  // what comes before a group's level
};

}  // namespace korlo::settings::mqtt
