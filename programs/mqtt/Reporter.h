#pragma once
// Which groups the broker has to be told of.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "BrokerLink.h"
#include "LogBudget.h"
#include "Payload.h"
#include "TopicNames.h"
#include "korlo/core/Logger.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::mqtt
{

using Clock = std::chrono::steady_clock;

/// Keeps what the broker holds of each group, a version and a fingerprint, equal to what the settings hold. It keeps
/// states, never messages: of a group that changes while it may not be sent, one bit. What it knows of the broker it
/// learns anew from each connection, so that nothing that was lost on the way, or was changed there by somebody else,
/// stays.
///
/// | state     | enters when                       | what happens                                     | next      |
/// |-----------|-----------------------------------|--------------------------------------------------|-----------|
/// | Away      | the broker is lost                | changes are forgotten                            | Learning  |
/// | Learning  | the broker is there               | retained reports are taken in                    | Comparing |
/// | Comparing | they are all there, or the server | all groups are read; those that differ are ready | Reporting |
/// |           | is there again                    |                                                  |           |
/// | Reporting | all have been compared            | what changes becomes ready, is read and sent     | Comparing |
///
/// Thread safety: none of its own; the owner guards it.
class Reporter
{
public:
    /// @param link borrowed; must outlive the reporter.
    /// @param patterns the groups that are reported; never restricted ones or the bridge's own.
    /// @param rest how long a group rests after it was sent.
    Reporter(BrokerLink& link, const TopicNames& topics, const GroupNameCollection& patterns, Clock::duration rest);

    void OnBrokerLost();
    void OnBrokerFound();
    void OnHeld(const TopicNames::Parts& topic, std::string_view payload);
    void OnAllHeldIsKnown();
    void OnSettingsFound();
    void OnChanged(const GroupNameCollection& groups);

    /// Lets groups that have rested be sent again.
    void EndRests(Clock::time_point now);

    /// What is to be read now: entries of a read; empty when there is nothing, or too much is on its way already.
    GroupNameCollection TakeNextRead();

    /// The answer to the last one.
    void OnRead(const core::IniFile& settings, Clock::time_point now);
    void OnReadFailed();

    /// False when that was no report.
    bool OnPublished(int message, const std::string& reason);

    /// When EndRests is due.
    std::optional<Clock::time_point> GetNextTime() const;

private:
    enum Phase
    {
        Away,
        Learning,
        Comparing,
        Reporting
    };

    struct Group
    {
        std::uint64_t version = 0;                 // the last one
        std::optional<std::uint64_t> fingerprint;  // of what the broker holds, or will once it has what is on its way
        std::optional<std::uint64_t> refused;      // of what it will not hold
        bool isHeld = false;                       // it holds something, be it rubbish
        bool isResting = false;                    // was sent a moment ago
        bool hasChanged = false;                   // while it rested
    };

    struct OnItsWay
    {
        std::string group;
        std::optional<std::uint64_t> fingerprint;
        bool wasHeld;
    };

    bool IsReported(const std::string& group) const;
    void NoteChange(const std::string& group);
    void Compare(const core::IniFile& settings);
    void Send(const std::string& name, const State* pState, Clock::time_point now);
    void Report(const std::string& name, const State& state, Clock::time_point now);
    void Publish(const std::string& name, const std::string& payload, std::optional<std::uint64_t> fingerprint,
                 Clock::time_point now);
    void ForgetIfIdle(const std::string& name);

    core::Logger* const _pLogger;
    BrokerLink& _link;
    const TopicNames& _topics;
    const Clock::duration _rest;
    common::GroupNameMatcher _matcher;
    GroupNameCollection _patterns;

    Phase _phase = Away;
    bool _mustCompare = false;
    std::map<std::string, Group> _groups;  // those of which the broker holds something, and those that rest
    GroupNameCollection _ready;            // to be read and, if they differ, sent
    GroupNameCollection _reading;          // what the read that is under way is for
    bool _isComparing = false;             // that read is for all groups
    std::deque<std::pair<Clock::time_point, std::string>> _rests;  // ends, in order
    std::map<int, OnItsWay> _onTheirWay;                           // by the number of the message
    LogBudget _refusals{"groups that cannot be reported"};
};

}  // namespace korlo::settings::mqtt
