#pragma once
// A stream that stands still while a test looks at who waits for it.

#include <atomic>
#include <chrono>
#include <future>
#include <ios>
#include <sstream>

namespace korlo
{

/// A stream whose first write stops for as long as the test wants: it shows who waits for a client, and with which
/// locks.
///
///     ASSERT_EQ(buffer.stopped.get_future().wait_for(30s), std::future_status::ready);
///     // look
///     buffer.go.set_value();
///
/// Thread safety: one thread writes; the test, on another, uses the two promises.
class StoppingBuffer : public std::stringbuf
{
public:
    std::promise<void> stopped;
    std::promise<void> go;

protected:
    std::streamsize xsputn(const char* bytes, std::streamsize size) override
    {
        if (!_once.exchange(true))
        {
            stopped.set_value();
            go.get_future().wait_for(std::chrono::seconds(30));
        }
        return std::stringbuf::xsputn(bytes, size);
    }

private:
    std::atomic<bool> _once = false;
};

}  // namespace korlo
