#include "SaveRecord.h"

#include <new>

namespace korlo::daemon
{

void SaveRecord::Begin()
{
    const PlainLock lock(_mutex);
    _begin = Clock::now();
    ++_begun;
}

void SaveRecord::NoteDone(bool hasWritten)
{
    const PlainLock lock(_mutex);
    _begin.reset();
    ++(hasWritten ? _figures.saves : _figures.skipped);
    _figures.isUnsaved = false;
}

void SaveRecord::NoteFailed(const char* reason)
{
    const PlainLock lock(_mutex);
    _begin.reset();
    ++_figures.failed;
    _figures.lastFailureTime = std::chrono::system_clock::now();
    _figures.isUnsaved = true;
    try
    {
        _figures.lastFailure = reason;
    }
    catch (const std::bad_alloc&)
    {
        _figures.lastFailure = "out of memory";  // so short that it takes none
    }
}

void SaveRecord::NoteLog(const LogFigures& log)
{
    const PlainLock lock(_mutex);
    _figures.log = log;
}

std::uint64_t SaveRecord::CountBegun() const
{
    const PlainLock lock(_mutex);
    return _begun;
}

SaveRecord::Figures SaveRecord::GetFigures() const
{
    const PlainLock lock(_mutex);
    Figures figures = _figures;
    if (_begin)
    {
        figures.running = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - *_begin);
    }
    return figures;
}

}  // namespace korlo::daemon
