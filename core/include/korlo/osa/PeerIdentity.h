#pragma once
// Who is at the other end of a Unix-domain socket.

#include <optional>
#include <string>
#include <vector>

namespace korlo::osa
{

/// What the kernel vouched for when the peer connected: user and groups are those that it had then, whatever it became
/// since, and whoever it handed the connection to. Process and program are for people to read, not to decide on: the
/// process may have ended, its number be another's by now, and a program chooses its own name.
///
/// The kernel shows users and groups that this process's user namespace does not know as its overflow ids. Those, and
/// the usual ones (65534), are nobody's: they are left out.
///
/// Thread safety: none of its own; the owner guards it. It does not change once a socket has it.
struct PeerIdentity
{
    /// Absent: nobody whom this machine knows.
    std::optional<unsigned int> user;

    /// Every group of the peer, ascending, each once: its own and the supplementary ones.
    std::vector<unsigned int> groups;

    /// False where the system tells only the peer's own group (before Linux 4.13): `groups` may then lack some, which
    /// matters to whoever denies something to a group.
    bool areGroupsComplete = false;

    /// 0 when the peer's process is invisible from this process's process namespace.
    int process = 0;

    /// The name of the process, at most 15 bytes of any value, or empty. Whoever prints it escapes control characters.
    std::string program;
};

}  // namespace korlo::osa
