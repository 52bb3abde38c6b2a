#pragma once
// What goes to a client, as a stream buffer.

#include <cstddef>
#include <memory>
#include <streambuf>

#include "OutgoingQueue.h"

namespace korlo::daemon
{

/// Gathers what is written until it is flushed, and hands it to the connection's queue, which never waits. A message of
/// up to 64 KiB is handed over as a whole; of a larger one, the first piece is of that size.
///
/// Thread safety: none of its own; who writes holds the handler's output mutex.
class ClientOutput : public std::streambuf
{
public:
    /// @param queue borrowed.
    explicit ClientOutput(OutgoingQueue& queue);

protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* bytes, std::streamsize count) override;
    int sync() override;

private:
    std::size_t Gathered() const { return static_cast<std::size_t>(pptr() - pbase()); }
    void Gather(const char* bytes, std::size_t size);
    void Grow(std::size_t needed);

    OutgoingQueue& _queue;
    std::unique_ptr<char[]> _pBuffer;
};

}  // namespace korlo::daemon
