#pragma once
// What the observer of a store is told.

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "settings/server/IChangeObserver.h"

namespace korlo::settings::server
{

/// "[Group]Key" for each key, and "[Group]" for a group without one; what was left out as "+3".
inline std::vector<std::string> TextsOf(const ChangedNames& names)
{
    std::vector<std::string> texts;
    std::string group;
    bool isAlone = false;
    const auto finish = [&] {
        if (isAlone)
        {
            texts.push_back(group);
        }
    };
    ChangedNames::Visit(
        names.GetPacked(),
        [&](std::string_view name) {
            finish();
            group = '[' + std::string(name) + ']';
            isAlone = true;
        },
        [&](std::string_view key) {
            isAlone = false;
            texts.push_back(group + std::string(key));
        });
    finish();
    if (names.GetMore() > 0)
    {
        texts.push_back('+' + std::to_string(names.GetMore()));
    }
    return texts;
}

/// Who changes something in a test.
struct TestOrigin : ChangeOrigin
{
};

/// Keeps what it was told.
///
/// Thread safety: all methods, from any thread.
class RecordingObserver : public IChangeObserver
{
public:
    struct Record
    {
        const ChangeOrigin* pOrigin;
        std::string what;
        ChangeOutcome outcome;
        std::vector<std::string> names;
    };

    void OnChange(const ChangeOrigin* pOrigin, const char* what, ChangeOutcome outcome,
                  const ChangedNames& names) noexcept override
    {
        const std::lock_guard lock(_mutex);
        _records.push_back({pOrigin, what, outcome, TextsOf(names)});
    }

    /// What came since the last call.
    std::vector<Record> Take()
    {
        const std::lock_guard lock(_mutex);
        std::vector<Record> records;
        records.swap(_records);
        return records;
    }

    /// The names of the one change since the last call; "none" or "several" else.
    std::vector<std::string> TakeNames()
    {
        const std::vector<Record> records = Take();
        return records.size() == 1 ? records.front().names
                                   : std::vector<std::string>{records.empty() ? "none" : "several"};
    }

private:
    std::mutex _mutex;
    std::vector<Record> _records;
};

}  // namespace korlo::settings::server
