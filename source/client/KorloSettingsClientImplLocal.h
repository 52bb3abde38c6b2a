#pragma once
// The client that needs no server: a store in the application's own process.

#include "client/KorloSettingsClientImpl.h"
#include "settings/server/ISettingsPersister.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::client
{

/// Owns a store that is fed from a defaults document and never writes anything to storage. Every operation is a direct
/// call into the store on the caller's thread.
///
/// It subscribes itself to its store for whatever any application subscriber asked for, reads the changed groups afresh
/// at each notification, and hands them to a dispatcher of its own. The base's dispatcher, from which
/// KorloSettingsClient::UnSubscribe removes, stays empty: so a callback stays registered, and goes on being called,
/// until the client is destroyed. Objects that unsubscribe in their destructors rely on the dispatcher that a remote
/// client uses; with this one they must outlive whatever can still notify.
///
/// Thread safety: all methods, from any thread. Callbacks run on the thread that made the change, with the store's
/// dispatcher's mutex and then the own dispatcher's mutex held, and without the store's lock.
class KorloSettingsClientImplLocal : public KorloSettingsClientImpl, public IChangeCallback
{
public:
    /// Hands out the defaults and keeps nothing else: changes live as long as the client.
    ///
    /// Thread safety: all methods, from any thread; nothing changes after construction.
    class LocalPersister : public server::ISettingsPersister
    {
    public:
        explicit LocalPersister(const core::IniFile* pDefaults)
            : _defaults(pDefaults != nullptr ? *pDefaults : core::IniFile())
        {
        }

        void LoadDefaultSettings(server::SettingsCombiner& combiner) override;
        void LoadUserSettings(server::SettingsCombiner&) override {}
        void SaveUserSettings(const core::IniFile&) override {}

    private:
        core::IniFile _defaults;
    };

    /// @param pDefaults copied; may be null for an empty store.
    explicit KorloSettingsClientImplLocal(const core::IniFile* pDefaults);

    void GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const override;
    void MergeSettings(const core::IniFile& changes, unsigned int flags) override;
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) override;
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups) override;
    void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings) override;
    void RestoreToDefaults(const GroupNameCollection& groups) override;

    /// Called by the store. Subscribers receive whole groups with their current content, not only the changed keys; a
    /// group that is gone is named and not in the document.
    void OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) override;

private:
    LocalPersister _persister;
    server::SettingsManager _settingsManager;
    common::CallbackDispatcher _localDispatcher;
};

}  // namespace korlo::settings::client
