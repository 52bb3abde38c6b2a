#include "korlo/osa/PipeStreamPair.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <streambuf>
#include <string>

namespace korlo::osa
{
namespace
{

constexpr std::size_t WakeBytes = 64 * 1024;  // so much unflushed text is worth waking the reader for
constexpr std::size_t KeepBytes = 16 * 1024;  // a drained buffer of up to this size is used again

/// The bytes on their way.
///
/// Thread safety: all methods, from any thread; one thread takes.
class ByteQueue
{
public:
    /// False once closed, as Flush.
    bool Write(const char* bytes, std::size_t size)
    {
        const std::lock_guard lock(_mutex);
        if (_closed)
        {
            return false;
        }
        const std::size_t before = _bytes.size();
        _bytes.append(bytes, size);
        if (before < WakeBytes && _bytes.size() >= WakeBytes)  // once, and not again at every write beyond
        {
            _readable.notify_one();
        }
        return true;
    }

    bool Flush()
    {
        const std::lock_guard lock(_mutex);
        _readable.notify_one();
        return !_closed;
    }

    /// Replaces `drained` by all that waits; nothing once the pipe is closed and drained.
    void Take(std::string& drained)
    {
        drained.clear();
        if (drained.capacity() > KeepBytes)
        {
            drained.shrink_to_fit();
        }
        std::unique_lock lock(_mutex);
        _readable.wait(lock, [this] { return _closed || !_bytes.empty(); });
        _bytes.swap(drained);
    }

    void Close()
    {
        const std::lock_guard lock(_mutex);
        _closed = true;
        _readable.notify_one();
    }

    bool IsClosed() const { return _closed; }

private:
    std::atomic<bool> _closed = false;  // changes with _mutex held

    std::mutex _mutex;
    std::condition_variable _readable;
    std::string _bytes;  // guarded by _mutex
};

class Reader : public std::streambuf
{
public:
    explicit Reader(ByteQueue& queue) : _queue(queue) {}

protected:
    int_type underflow() override
    {
        if (gptr() == egptr())
        {
            setg(nullptr, nullptr, nullptr);  // before Take, which gives the memory of the get area away
            _queue.Take(_bytes);
            setg(_bytes.data(), _bytes.data(), _bytes.data() + _bytes.size());
        }
        return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

private:
    ByteQueue& _queue;
    std::string _bytes;  // the get area
};

/// Has no put area: bytes kept here would be out of reach for a thread that closes the pipe.
class Writer : public std::streambuf
{
public:
    explicit Writer(ByteQueue& queue) : _queue(queue) {}

protected:
    int_type overflow(int_type character) override
    {
        if (traits_type::eq_int_type(character, traits_type::eof()))
        {
            return traits_type::not_eof(character);
        }
        const char byte = traits_type::to_char_type(character);
        return _queue.Write(&byte, 1) ? character : traits_type::eof();
    }

    std::streamsize xsputn(const char* bytes, std::streamsize size) override
    {
        return _queue.Write(bytes, static_cast<std::size_t>(size)) ? size : 0;
    }

    int sync() override { return _queue.Flush() ? 0 : -1; }

private:
    ByteQueue& _queue;
};

}  // namespace

struct PipeStreamPair::Pipe
{
    ByteQueue queue;
    Reader reader{queue};
    Writer writer{queue};
    std::istream istream{&reader};
    std::ostream ostream{&writer};
};

PipeStreamPair::PipeStreamPair() : _pPipe(std::make_unique<Pipe>())
{
}

PipeStreamPair::~PipeStreamPair() = default;

std::istream* PipeStreamPair::GetIstream()
{
    return &_pPipe->istream;
}

std::ostream* PipeStreamPair::GetOstream()
{
    if (IsClosed())
    {
        _pPipe->ostream.setstate(std::ios_base::badbit);
    }
    return &_pPipe->ostream;
}

void PipeStreamPair::ClosePipe()
{
    _pPipe->queue.Close();
}

bool PipeStreamPair::IsClosed() const
{
    return _pPipe->queue.IsClosed();
}

}  // namespace korlo::osa
