#include "korlo/osa/ServiceDirectory.h"

#include <map>

#include "korlo/osa/Mutex.h"

namespace korlo::osa
{
namespace
{

struct Service
{
    // cppcheck-suppress unusedStructMember ; it does not follow the iterator in Find
    std::string address;
    // cppcheck-suppress unusedStructMember ; as above
    unsigned short port;
};

struct Directory
{
    Mutex mutex{"ServiceDirectory"};
    std::map<std::string, Service> services KORLO_GUARDED_BY(mutex);
};

/// Lives as long as the process: threads may still connect while static objects are destroyed.
Directory& TheDirectory()
{
    static Directory& directory = *new Directory;
    return directory;
}

}  // namespace

void ServiceDirectory::Register(const std::string& host, const std::string& address, unsigned short port)
{
    Directory& directory = TheDirectory();
    const MutexAutoLock lock(&directory.mutex);
    directory.services.insert_or_assign(host, Service{address, port});
}

void ServiceDirectory::Unregister(const std::string& host)
{
    Directory& directory = TheDirectory();
    const MutexAutoLock lock(&directory.mutex);
    directory.services.erase(host);
}

bool ServiceDirectory::Find(const std::string& host, std::string& address, unsigned short& port)
{
    Directory& directory = TheDirectory();
    const MutexAutoLock lock(&directory.mutex);
    const auto found = directory.services.find(host);
    if (found == directory.services.end())
    {
        return false;
    }
    address = found->second.address;
    port = found->second.port;
    return true;
}

}  // namespace korlo::osa
