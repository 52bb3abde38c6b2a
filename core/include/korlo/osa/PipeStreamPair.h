#pragma once
// A pair of streams inside one process: what one thread writes, another reads.

#include <istream>
#include <memory>
#include <ostream>

namespace korlo::osa
{

/// A pipe without an upper bound and without file descriptors: a writer never waits for the reader.
///
/// What is written belongs to the pipe at once, so nothing is lost without a flush; but a reader that waits is woken
/// only by a flush, by the close, or once 64 KiB are waiting. Memory is freed as the reader drains the pipe.
///
/// Once the pipe is closed the reader still gets all that was written before, then the end of the stream; every further
/// write or flush of the writer's stream fails. A stream's flags belong to the thread that uses the stream, so
/// the close itself does not set them: GetOstream does, and IsClosed tells any thread.
///
/// Thread safety: one thread reads while another writes; ClosePipe and IsClosed from any thread.
class PipeStreamPair
{
public:
    PipeStreamPair();
    PipeStreamPair(const PipeStreamPair&) = delete;
    PipeStreamPair& operator=(const PipeStreamPair&) = delete;

    /// Nobody may use the streams any more. What was not read is dropped.
    ~PipeStreamPair();

    /// The reader's end: never null, the same at every call, owned by the pipe.
    std::istream* GetIstream();

    /// The writer's end, as GetIstream. Call it on the thread that writes: when the pipe is closed the stream that it
    /// returns has its bad flag set.
    std::ostream* GetOstream();

    /// Closes the pipe for both ends; doing so again changes nothing.
    void ClosePipe();

    /// True once ClosePipe was called, even if there is still something to read.
    bool IsClosed() const;

private:
    struct Pipe;

    const std::unique_ptr<Pipe> _pPipe;
};

}  // namespace korlo::osa
