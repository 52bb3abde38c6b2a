#include "settings/IniWatcher.h"

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "settings/IChangeCallback.h"
#include "settings/KorloSettingsClient.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;

constexpr unsigned int DoNotWait = 0;

}  // namespace

/// Thread safety: OnChange from any thread; everything else, and the target, on the thread that owns the watcher. What
/// both touch is guarded by `_pendingMutex`.
class IniWatcher::IniWatcherImpl final : public IChangeCallback
{
public:
    IniWatcherImpl(KorloSettingsClient* pClient, IniFile* pTargetIni)
        : _pLogger(core::Logger::GetLogger("IniWatcher")),
          _pClient(pClient),
          _pendingMutex(nullptr),
          _pTarget(pTargetIni)
    {
        if (pClient == nullptr)
        {
            throw osa::Exception("%s was NULL", "client");
        }
        if (pTargetIni == nullptr)
        {
            throw osa::Exception("%s was NULL", "targetIni");
        }
    }

    ~IniWatcherImpl() override { _pClient->UnSubscribe(this); }

    void AddPattern(const std::string& nameOrPattern) { _watched.insert(nameOrPattern); }

    bool Update()
    {
        if (!_started)
        {
            Start();
            return true;
        }
        const osa::MutexAutoLock lock(&_pendingMutex);
        return ApplyPending();
    }

    bool TryUpdate()
    {
        if (!_started)
        {
            throw osa::Exception("TryUpdate called before Update");
        }
        try
        {
            const osa::MutexAutoLock lock(&_pendingMutex, DoNotWait, true);
            return ApplyPending();
        }
        catch (const osa::LockException&)
        {
            return false;
        }
    }

    void OnChange(const GroupNameCollection& changedGroups, const IniFile& settings) override
    {
        _pLogger->Trace("Gathering a change of %u groups", static_cast<unsigned int>(changedGroups.size()));
        const osa::MutexAutoLock lock(&_pendingMutex);
        // A group that has changed before keeps none of its earlier content; one that comes without content was erased,
        // and is named in `_pendingGroups` alone.
        for (const std::string& group : changedGroups)
        {
            _pending.RemoveGroup(group);
        }
        _pendingGroups.insert(changedGroups.begin(), changedGroups.end());
        _pending.MergeSettings(settings);
        _hasPending = true;
    }

private:
    void Start()
    {
        _pTarget->Clear();
        _pClient->GetSettings(_watched, *_pTarget);
        _pClient->Subscribe(this, _watched);
        _started = true;  // last: what throws above is done again by the next Update
    }

    bool ApplyPending() KORLO_REQUIRES(_pendingMutex)
    {
        if (!_hasPending)
        {
            return false;
        }
        for (const std::string& group : _pendingGroups)
        {
            _pTarget->RemoveGroup(group);
        }
        _pTarget->MergeSettings(_pending);
        _pendingGroups.clear();
        _pending.Clear();
        _hasPending = false;
        return true;
    }

    core::Logger* _pLogger;         // not owned
    KorloSettingsClient* _pClient;  // borrowed
    GroupNameCollection _watched;
    bool _started = false;
    osa::Mutex _pendingMutex;
    bool _hasPending KORLO_GUARDED_BY(_pendingMutex) = false;
    GroupNameCollection _pendingGroups KORLO_GUARDED_BY(_pendingMutex);  // every group that was named since
    IniFile _pending KORLO_GUARDED_BY(_pendingMutex);                    // the latest content of those that are left
    IniFile* _pTarget;                                                   // borrowed
};

IniWatcher::IniWatcher(KorloSettingsClient* pClient, IniFile* pTargetIni)
    : _pImpl(std::make_unique<IniWatcherImpl>(pClient, pTargetIni))
{
}

IniWatcher::~IniWatcher() = default;

void IniWatcher::AddPattern(const std::string& nameOrPattern)
{
    _pImpl->AddPattern(nameOrPattern);
}

bool IniWatcher::Update()
{
    return _pImpl->Update();
}

bool IniWatcher::TryUpdate()
{
    return _pImpl->TryUpdate();
}

}  // namespace korlo::settings
