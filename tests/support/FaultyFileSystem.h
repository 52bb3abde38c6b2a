#pragma once
// A file system whose calls fail on demand.

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "korlo/osa/FileSystem.h"

namespace korlo
{

/// The real file system, but for one call that goes wrong. Keeps the names of all calls and counts what stays open.
///
/// Thread safety: none of its own; the owner guards it.
class FaultyFileSystem : public osa::IFileSystem
{
public:
    enum Kind
    {
        NoFault,
        FailOnce,       ///< The call has no effect, but an error.
        TakeLittle,     ///< A write takes a part; any other call goes well.
        FillUp,         ///< A write takes a part, and later ones nothing; any other call goes well.
        PowerCut,       ///< Neither this call nor any later one has an effect.
        PowerCutAfter,  ///< This call has its effect, and nothing is heard of it; later ones have none.
        FailAlways      ///< Every call of this name fails.
    };

    /// @param call which call goes wrong, counted from 0.
    void FailAt(std::size_t call, Kind kind, int error)
    {
        _failAt = call;
        _kind = kind;
        _error = error;
    }

    /// Lets every call of that name fail.
    void FailAlwaysAt(const std::string& name, int error)
    {
        _failName = name;
        _kind = FailAlways;
        _error = error;
    }

    /// Lets syncs do nothing but be counted, for tests of many saves.
    void DoNotSync() { _syncs = false; }

    /// Behaves as a file system without hard links.
    void RefuseLinks() { _hasLinks = false; }

    /// Lets every file but new ones and generations before, whose names end in '~', seem to belong to somebody else.
    void LetFilesBelongTo(unsigned int owner, unsigned int group)
    {
        _owner = owner;
        _group = group;
    }

    /// Says yes to every owner and sets none: only a privileged process could.
    void LetOwnersBeSet() { _setsOwners = false; }

    const std::vector<std::string>& GetCalls() const { return _calls; }
    bool HasFailed() const { return _hasFailed; }
    int GetOpenFiles() const { return _openFiles; }

    int Create(const std::string& path, unsigned int mode, int& file) override
    {
        return Opened(Call("Create", [&] { return _real.Create(path, mode, file); }));
    }

    int OpenForReading(const std::string& path, int& file) override
    {
        return Opened(Call("OpenForReading", [&] { return _real.OpenForReading(path, file); }));
    }

    int Read(int file, char* pBuffer, std::size_t size, std::size_t& count) override
    {
        return Call("Read", [&] { return _real.Read(file, pBuffer, size, count); });
    }

    int Write(int file, const char* pData, std::size_t size, std::size_t& count) override
    {
        const bool isShort = (_kind == TakeLittle || _kind == FillUp) && _calls.size() == _failAt;
        if (_kind == FillUp && _calls.size() > _failAt && size > 0)
        {
            _calls.push_back("Write");
            return _error;
        }
        return Call("Write",
                    [&] { return _real.Write(file, pData, isShort ? std::min<std::size_t>(size, 7) : size, count); });
    }

    int SetOwner(int file, unsigned int owner, unsigned int group) override
    {
        return Call("SetOwner", [&] { return _setsOwners ? _real.SetOwner(file, owner, group) : 0; });
    }

    int SetMode(int file, unsigned int mode) override
    {
        return Call("SetMode", [&] { return _real.SetMode(file, mode); });
    }

    int Sync(int file) override
    {
        return Call("Sync", [&] { return _syncs ? _real.Sync(file) : 0; });
    }

    int Close(int file) override
    {
        _real.Close(file);  // an error is no reason to keep it open, and a dead process keeps nothing open
        --_openFiles;
        return Call("Close", [] { return 0; });
    }

    int Stat(const std::string& path, osa::FileStatus& status) override
    {
        return Call("Stat", [&] {
            const int error = _real.Stat(path, status);
            const bool isNew = path.ends_with('~');
            status.owner = isNew || _owner == KeepOwner ? status.owner : _owner;
            status.group = isNew || _group == KeepOwner ? status.group : _group;
            return error;
        });
    }

    int ReadLink(const std::string& path, std::string& target) override
    {
        return Call("ReadLink", [&] { return _real.ReadLink(path, target); });
    }

    int Link(const std::string& existing, const std::string& added) override
    {
        return Call("Link", [&] { return _hasLinks ? _real.Link(existing, added) : EPERM; });
    }

    int Rename(const std::string& from, const std::string& to) override
    {
        return Call("Rename", [&] { return _real.Rename(from, to); });
    }

    int Unlink(const std::string& path) override
    {
        return Call("Unlink", [&] { return _real.Unlink(path); });
    }

    int SyncFolder(const std::string& path) override
    {
        return Call("SyncFolder", [&] { return _syncs ? _real.SyncFolder(path) : 0; });
    }

    int OpenForAppending(const std::string& path, int& file) override
    {
        return Opened(Call("OpenForAppending", [&] { return _real.OpenForAppending(path, file); }));
    }

    int SyncData(int file) override
    {
        return Call("SyncData", [&] { return _syncs ? _real.SyncData(file) : 0; });
    }

private:
    template <typename Real>
    int Call(const std::string& name, Real real)
    {
        const std::size_t call = _calls.size();
        _calls.push_back(name);
        const bool isFirst = _kind == FailAlways ? name == _failName : call == _failAt;
        const bool isLater = (_kind == PowerCut || _kind == PowerCutAfter) && call > _failAt;
        if (_kind == NoFault || !(isFirst || isLater))
        {
            return real();
        }
        _hasFailed = true;
        if (_kind == TakeLittle || _kind == FillUp)
        {
            return real();
        }
        if (_kind == PowerCutAfter && isFirst)
        {
            real();
        }
        return _error;
    }

    int Opened(int error)
    {
        _openFiles += error == 0 ? 1 : 0;
        return error;
    }

    osa::IFileSystem& _real = osa::RealFileSystem();
    std::size_t _failAt = 0;
    std::string _failName;
    Kind _kind = NoFault;
    int _error = 0;
    std::vector<std::string> _calls;
    bool _hasFailed = false;
    bool _syncs = true;
    bool _hasLinks = true;
    bool _setsOwners = true;
    unsigned int _owner = KeepOwner;
    unsigned int _group = KeepOwner;
    int _openFiles = 0;
};

/// What can go wrong with a call, and must cost no file its content.
struct DiskFault
{
    const char* name;
    FaultyFileSystem::Kind kind;
    int error;
};

inline const DiskFault DiskFaults[] = {
    {"no space", FaultyFileSystem::FailOnce, ENOSPC},
    {"input/output error", FaultyFileSystem::FailOnce, EIO},
    {"interruption", FaultyFileSystem::FailOnce, EINTR},
    {"short write", FaultyFileSystem::TakeLittle, 0},
    {"a disk that fills up", FaultyFileSystem::FillUp, ENOSPC},
    {"power cut", FaultyFileSystem::PowerCut, EIO},
    {"power cut after the call", FaultyFileSystem::PowerCutAfter, EIO},
};

}  // namespace korlo
