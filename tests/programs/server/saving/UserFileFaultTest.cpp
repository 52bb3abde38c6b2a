// A disk on which each call in turn goes wrong, below a store that appends: what the next start finds.

#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "saving/ChangeLog.h"
#include "support/FaultyFileSystem.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/LongTests.h"
#include "support/SavedStore.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

/// Saves, of which one meets a fold and the last is one; a content of before comes back.
using Step = std::function<void(SavedStore&)>;
const Step Steps[] = {
    [](SavedStore& saved) { saved.Merge("[A]\nk=2\n"); },
    [](SavedStore& saved) { saved.store.OverwriteSettings("A", Ini("[B]\nk=1\n")); },
    [](SavedStore& saved) { saved.Merge("[L]\nk=" + std::string(70'000, 'x') + '\n'); },
    [](SavedStore& saved) { saved.store.OverwriteSettings("L", {}); },
    [](SavedStore& saved) { saved.Merge("[A]\nk=3\n"); },
    [](SavedStore& saved) { saved.Finish(); },
};

class UserFileFaultTest : public testing::Test
{
protected:
    UserFileFaultTest() { Clear(); }

    void Clear()
    {
        std::filesystem::remove_all(_folder.PathOf("state"));
        std::filesystem::create_directory(_folder.PathOf("state"));
    }

    std::string LayerAfterStart(SaveBy saveBy) const
    {
        FaultyFileSystem disk;
        disk.DoNotSync();
        return SavedStore(_path, saveBy, disk).GetLayer();
    }

    /// The layers that a start may find, each with what was to be saved by then.
    struct Outcome
    {
        std::vector<std::string> layers;
        std::size_t firstPossible = 0;  // the last of which a save has said that it is there
    };

    /// Starts, and carries the steps out, until a start fails or the power is gone.
    Outcome Run(SaveBy saveBy, FaultyFileSystem& disk) const
    {
        std::optional<SavedStore> saved;
        if (!MessageOf([&] { saved.emplace(_path, saveBy, disk); }).empty())
        {
            return {{_layerBefore}, 0};
        }
        const bool isLogUnreadable = std::filesystem::exists(_path + ".log.damaged");
        EXPECT_THAT(saved->GetLayer(), testing::AnyOf(_layerBefore, isLogUnreadable ? _contentBefore : _layerBefore));
        Outcome outcome = {{saved->GetLayer()}, 0};
        for (const Step& step : Steps)
        {
            const bool isSaved = MessageOf([&] { step(*saved); }).empty();
            outcome.layers.push_back(saved->GetLayer());
            const bool isLeft = saveBy == SaveBy::Replacing && saved->files.GetRecord().GetFigures().isUnsaved;
            if (isSaved && !isLeft)  // by replacing, the end saves nothing
            {
                outcome.firstPossible = outcome.layers.size() - 1;
            }
        }
        return outcome;
    }

    /// Each fault at each call of a start and the steps behind it; unless tests are long, each at some other calls.
    void TryEachFault(SaveBy saveBy, const std::function<void()>& prepare)
    {
        const std::size_t stride = AreTestsLong() ? 1 : 11;
        std::size_t first = 0;
        for (const DiskFault& fault : DiskFaults)
        {
            bool hasFailed = true;
            first = AreTestsLong() ? 0 : first + 2;
            for (std::size_t call = first; hasFailed && !HasFailure(); call += stride)
            {
                SCOPED_TRACE(std::string(fault.name) + " at call " + std::to_string(call));
                Clear();
                prepare();
                FaultyFileSystem disk;
                disk.DoNotSync();
                disk.FailAt(call, fault.kind, fault.error);
                const Outcome outcome = Run(saveBy, disk);
                hasFailed = disk.HasFailed();
                EXPECT_EQ(disk.GetOpenFiles(), 0);
                const SaveBy next = call % 2 == 0 ? SaveBy::Appending : SaveBy::Replacing;
                const std::string layer = LayerAfterStart(next);
                EXPECT_THAT(std::vector<std::string>(outcome.layers.begin() +
                                                         static_cast<std::ptrdiff_t>(outcome.firstPossible),
                                                     outcome.layers.end()),
                            testing::Contains(layer));
                EXPECT_EQ(LayerAfterStart(next), layer);
            }
        }
    }

    std::string LogBefore() const
    {
        return ChangeLog::FirstLineFor(ContentMark::Of(_contentBefore)) + ChangeLog::RecordOf({{}, Ini(_layerBefore)});
    }

    LogCapture _log;
    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("state/user.ini");
    std::string _layerBefore;    // before the start
    std::string _contentBefore;  // without its log
};

TEST_F(UserFileFaultTest, WhateverFailsTheNextStartHasWhatWasSavedAndNothingHalf)
{
    for (const SaveBy saveBy : SaveByBoth)
    {
        SCOPED_TRACE(testing::PrintToString(saveBy));
        _layerBefore = "";
        TryEachFault(saveBy, [] {});
        _layerBefore = "[A]\nk=1\n";
        TryEachFault(saveBy, [this] { WriteFile(_path, _layerBefore); });
    }
}

TEST_F(UserFileFaultTest, SoItIsBehindALogThatAServerLeftWhichWasKilled)
{
    _contentBefore = "[A]\nk=1\n";
    _layerBefore = "[A]\nk=2\n";
    for (const SaveBy saveBy : SaveByBoth)
    {
        SCOPED_TRACE(testing::PrintToString(saveBy));
        TryEachFault(saveBy, [this] {
            WriteFile(_path, _contentBefore);
            WriteFile(_path + ".log", LogBefore());
        });
    }
}

TEST_F(UserFileFaultTest, SoItIsBehindAFoldThatWasCutBeforeItsLogWasTurnedOver)
{
    _contentBefore = "[A]\nk=1\n";
    _layerBefore = "[A]\nk=2\n";
    TryEachFault(SaveBy::Appending, [this] {
        WriteFile(_path, _layerBefore);
        WriteFile(_path + '~', _contentBefore);
        WriteFile(_path + ".log", LogBefore());
    });
}

}  // namespace
}  // namespace korlo::daemon
