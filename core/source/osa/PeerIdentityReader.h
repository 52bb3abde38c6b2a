#pragma once
// Asks the kernel who is at the other end of a Unix-domain socket.

#include "korlo/osa/PeerIdentity.h"

namespace korlo::osa
{

/// @param descriptor a connected Unix-domain socket. Whatever the kernel does not tell is absent.
PeerIdentity ReadPeerIdentity(int descriptor);

}  // namespace korlo::osa
