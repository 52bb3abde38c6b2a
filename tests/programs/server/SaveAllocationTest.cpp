// What a save does when the heap has nothing left. A program of its own: see support/Heap.h.

#include <optional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "DelayedPersister.h"
#include "FileSettingsPersister.h"
#include "settings/server/SettingsManager.h"
#include "support/FailEachAllocation.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using settings::server::SettingsManager;

/// Large enough for its text to be moved several times as it grows.
core::IniFile MakeLayer(const std::string& value)
{
    core::IniFile layer;
    for (int group = 0; group < 100; ++group)
    {
        for (int key = 0; key < 100; ++key)
        {
            layer.SetValue("Group" + std::to_string(group), "key" + std::to_string(key), value);
        }
    }
    return layer;
}

std::string TextOf(const core::IniFile& layer)
{
    std::ostringstream text;
    layer.SaveToStream(text);
    return text.str();
}

class SaveAllocationTest : public testing::Test
{
protected:
    /// What is on the disk is the new layer where the save said so, else the old one or, once renamed, the new; beside
    /// it is the generation before and nothing else.
    void ExpectWhole(bool isSaved)
    {
        const std::optional<std::string> content = ContentOf(_path);
        EXPECT_TRUE(content == _newText || (!isSaved && content == _oldText));
        EXPECT_LE(NamesIn(_folder.GetPath()).size(), 2u) << "a new file was left behind";
    }

    const core::IniFile _old = MakeLayer("the value before");
    const core::IniFile _new = MakeLayer("the value that is saved");
    const std::string _oldText = TextOf(_old);
    const std::string _newText = TextOf(_new);
    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
    FileSettingsPersister _files{SettingsFiles({}), _path};
};

TEST_F(SaveAllocationTest, ASaveThatRunsOutOfMemoryLeavesTheOldLayerOrTheNewAndSaysSo)
{
    _files.SaveUserSettings(_old);
    FailEachAllocation([this] { _files.SaveUserSettings(_new); },
                       [this](bool isDone, long long) {
                           ExpectWhole(isDone);
                           _files.SaveUserSettings(_new);
                           ExpectWhole(true);
                           _files.SaveUserSettings(_old);
                       });
}

TEST_F(SaveAllocationTest, ALastSaveThatRunsOutOfMemoryLeavesTheOldLayerOrTheNewAndSaysSo)
{
    _files.SaveUserSettings(_old);
    std::optional<DelayedPersister> delayed;
    std::optional<SettingsManager> store;
    const auto start = [&] {
        constexpr unsigned int hourMs = 3'600'000;
        store.reset();
        delayed.emplace(_files, hourMs);
        store.emplace(&*delayed, nullptr, nullptr, false);
        delayed->Start([&store] { return UserLayerOf(*store); });
        store->MergeSettings(_new, 0);
    };
    start();
    FailEachAllocation([&] { delayed->Finish(); },
                       [&](bool isDone, long long) {
                           ExpectWhole(isDone);
                           _files.SaveUserSettings(_old);
                           start();
                       });
}

}  // namespace
}  // namespace korlo::daemon
