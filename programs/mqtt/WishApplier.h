#pragma once
// Makes the settings what the fleet wants them to be.

#include <cstdint>
#include <memory>
#include <string>

#include "BridgeConfiguration.h"
#include "Payload.h"
#include "settings/KorloSettingsClient.h"

namespace korlo::settings::mqtt
{

/// The calls by which a wish is applied; as those of a confirming KorloSettingsClient.
///
/// Thread safety: none of its own; the owner guards it.
class IWishSettings
{
public:
    virtual ~IWishSettings() = default;

    virtual void GetSettings(const GroupNameCollection& entries, core::IniFile& settings) = 0;
    virtual bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) = 0;
    virtual void OverwriteSettings(const GroupNameCollection& entries, const core::IniFile& replacement) = 0;
};

/// A confirming client, made when it is needed, and again after a failure.
///
/// Thread safety: none of its own; the owner guards it.
class ConfirmingSettings : public IWishSettings
{
public:
    explicit ConfirmingSettings(const std::string& address) : _address(address) {}

    void GetSettings(const GroupNameCollection& entries, core::IniFile& settings) override;
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) override;
    void OverwriteSettings(const GroupNameCollection& entries, const core::IniFile& replacement) override;

private:
    template <typename Call>
    auto With(const Call& call);

    /// A client can be neither copied nor moved.
    struct Connection
    {
        explicit Connection(const std::string& address) : client(KorloSettingsClient::Confirming(address)) {}

        KorloSettingsClient client;
    };

    const std::string _address;
    std::unique_ptr<Connection> _pConnection;
};

/// What became of a wish.
struct WishOutcome
{
    enum Result
    {
        Nothing,  // it was applied before
        Accepted,
        Rejected,
        Failed  // whether it is applied is not known; to be tried again
    };

    Result result = Nothing;
    Rejection rejection;
    std::string reason;  // of a failure
};

/// Applies wishes one at a time. A wish is absolute, and its version travels into the store in the very change that it
/// makes: whatever happens, both are there or neither is, and applying it once more changes nothing.
///
/// A merge is a test-and-merge against what was just read of the keys that it changes, repeated until nobody else was
/// quicker, so that a change of them at the device is notified before it is gone. An overwrite names the group alone:
/// the versions of other groups, which come with it in the replacement's other group, are merged, not overwritten.
///
/// Thread safety: none of its own; the owner guards it.
class WishApplier
{
public:
    /// @param settings borrowed; must outlive the applier.
    explicit WishApplier(IWishSettings& settings) : _settings(settings) {}

    /// @param isRepeated it failed before, and what became of it is not known: it is applied even if it has been.
    WishOutcome Apply(const std::string& group, const Desired& wish, bool isRepeated);

private:
    WishOutcome TryApply(const std::string& group, const Desired& wish, bool isRepeated);
    bool Merge(const std::string& group, const Desired& wish, const core::IniFile& current);
    void Replace(const std::string& group, const Desired& wish);

    IWishSettings& _settings;
};

/// An entry that selects the group, and perhaps others: for names that no list can carry it is a pattern.
std::string EntryFor(const std::string& group);

}  // namespace korlo::settings::mqtt
