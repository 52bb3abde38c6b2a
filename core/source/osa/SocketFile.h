#pragma once
// The file through which clients find a Unix-domain socket.

#include <memory>
#include <string>

#include <sys/types.h>

#include "korlo/osa/TcpListener.h"
#include "osa/SocketAddress.h"

namespace korlo::osa
{

/// The file of a socket that this process listens on; removed with this object, if it is still the one that it made.
///
/// Thread safety: none of its own; the owner guards it.
class SocketFile
{
public:
    /// Binds a socket to a path, which makes a file that nobody may write to, gives the file its rights and lets the
    /// socket listen, in this order. So nobody gets in with rights that are not yet right.
    ///
    /// A file that is there already is replaced if it is a socket that refuses to be connected to. Nothing else is ever
    /// removed: neither the socket of a server that lives, nor any other file, nor a link to one.
    /// @throws Exception naming the path and the reason; no file of this call is left then.
    static std::unique_ptr<SocketFile> Listen(int descriptor, const std::string& path, const SocketFileRights& rights);

    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    /// To be called while the socket still listens. So no other server takes the file for left over and puts its own in
    /// its place between the look at the file and its removal; and the number of the file is not another's meanwhile.
    ~SocketFile();

private:
    explicit SocketFile(const std::string& path);

    void SetRights(const SocketFileRights& rights) const;

    const std::string _path;
    dev_t _device = 0;
    ino_t _inode = 0;
};

}  // namespace korlo::osa
