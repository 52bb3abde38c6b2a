#include "FolderLock.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "Failure.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::cli
{
namespace
{

std::string FolderOf(const std::string& file)
{
    // What cannot be resolved is left to the opening that follows, which says why.
    std::error_code unresolved;
    std::filesystem::path path = std::filesystem::weakly_canonical(std::filesystem::absolute(file), unresolved);
    if (unresolved)
    {
        path = file;
    }
    path = path.parent_path();
    return path.empty() ? "." : path.string();
}

[[noreturn]] void Fail(const std::string& operation, const std::string& folder, int error)
{
    throw Failure(StatusUnusable,
                  "failed to " + operation + " the folder " + Quoted(folder) + ": " + osa::SystemReason(error));
}

}  // namespace

FolderLock::FolderLock(const std::string& file)
{
    const std::string folder = FolderOf(file);
    _folder = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (_folder == -1)
    {
        Fail("open", folder, errno);
    }
    while (::flock(_folder, LOCK_EX) == -1)
    {
        if (const int error = errno; error != EINTR)
        {
            ::close(_folder);
            Fail("lock", folder, error);
        }
    }
}

FolderLock::~FolderLock()
{
    ::close(_folder);
}

}  // namespace korlo::settings::cli
