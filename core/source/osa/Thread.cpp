#include "korlo/osa/Thread.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <system_error>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORLO_SANITIZED_FRAMES 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KORLO_SANITIZED_FRAMES 1
#endif
#endif

namespace korlo::osa
{
namespace
{

// Static thread-local storage lies on the thread's own stack, and nothing portable tells its size. The dynamic linker
// works there too, when the body calls a function for the first time. Pages that nobody touches cost only addresses.
constexpr std::size_t ThreadLocalBytes = 32 * 1024;

#ifdef KORLO_SANITIZED_FRAMES
constexpr std::size_t FrameGrowth = 8;  // red zones and shadow copies make every frame larger
constexpr std::size_t SanitizerBytes = 512 * 1024;
#else
constexpr std::size_t FrameGrowth = 1;
constexpr std::size_t SanitizerBytes = 0;
#endif

constexpr std::size_t MaximumNameLength = 15;  // what the kernel keeps of a thread's name

std::string Reason(int error)
{
    return std::generic_category().message(error);
}

/// The attributes of one new thread.
class Attributes
{
public:
    Attributes() { pthread_attr_init(&_attributes); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes() { pthread_attr_destroy(&_attributes); }

    /// Leaves `bodyBytes` to the body and adds what everybody else takes from the same stack.
    int SetStack(std::size_t bodyBytes)
    {
        std::size_t guardBytes = 0;
        pthread_attr_getguardsize(&_attributes, &guardBytes);
        const auto pageBytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const auto minimumBytes = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
        const std::size_t bytes =
            bodyBytes * FrameGrowth + minimumBytes + ThreadLocalBytes + SanitizerBytes + guardBytes;
        return pthread_attr_setstacksize(&_attributes, (bytes + pageBytes - 1) / pageBytes * pageBytes);
    }

    const pthread_attr_t* Get() const { return &_attributes; }

private:
    pthread_attr_t _attributes;
};

/// What the new thread needs to know. It owns this, because the Thread object may go before it.
struct Start
{
    std::string name;
    Runnable* pBody;
    signed char priority;
};

void SetPriority(const Start& start)
{
    // The kernel keeps niceness for each thread, and 0 names the calling one.
    if (start.priority != 0 && setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) - start.priority) != 0)
    {
        core::Logger::GetLogger("Thread")->Warning("Failed to give thread '%s' the priority %d: %s", start.name.c_str(),
                                                   start.priority, Reason(errno).c_str());
    }
}

extern "C" void* KorloRunThread(void* pArgument)
{
    const std::unique_ptr<Start> pStart(static_cast<Start*>(pArgument));
    // Cut here: the kernel refuses a name that is too long and leaves the thread that of its parent.
    pthread_setname_np(pthread_self(), pStart->name.substr(0, MaximumNameLength).c_str());
    SetPriority(*pStart);
    try
    {
        pStart->pBody->Run();
    }
    catch (const std::exception& exception)  // and nothing else: a cancelled thread unwinds by an exception too
    {
        core::Logger::GetLogger("Thread")->Error("Thread '%s' ended by an exception: %s", pStart->name.c_str(),
                                                 exception.what());
    }
    return nullptr;
}

}  // namespace

Runnable::~Runnable() = default;

void Runnable::Run()
{
}

void Runnable::Stop()
{
}

void Thread::CurrentThread::Sleep(unsigned int durationMs)
{
    do
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(durationMs));
    } while (durationMs == Infinite);
}

Thread::Thread(const char* name, Runnable* pBody, unsigned int stackBytes, signed char priority)
    : _name(name == nullptr ? "" : name),
      _pBody(pBody),
      _stackBytes(stackBytes),
      _priority(priority)
{
    if (pBody == nullptr)
    {
        throw Exception("%s was NULL", "Runnable");
    }
}

// Looks at `_state` without the lock: nobody else may use the object any more.
Thread::~Thread()
{
    if (_state != NotStarted && pthread_equal(_handle, pthread_self()) != 0)
    {
        pthread_detach(_handle);
    }
    else
    {
        Join();
    }
}

void Thread::Run()
{
    const std::lock_guard lock(_mutex);
    if (_state != NotStarted)
    {
        throw Exception("Thread '%s' was started already", _name.c_str());
    }
    Attributes attributes;
    auto pStart = std::make_unique<Start>(Start{_name, _pBody, _priority});
    int error = attributes.SetStack(_stackBytes);
    if (error == 0)
    {
        error = pthread_create(&_handle, attributes.Get(), KorloRunThread, pStart.get());
    }
    if (error != 0)
    {
        throw Exception("Failed to start thread '%s': %s", _name.c_str(), Reason(error).c_str());
    }
    static_cast<void>(pStart.release());  // the new thread owns it now
    _state = Started;
}

void Thread::Join()
{
    std::unique_lock lock(_mutex);
    if (_state != NotStarted && pthread_equal(_handle, pthread_self()) != 0)
    {
        throw Exception("Thread '%s' cannot wait for itself", _name.c_str());
    }
    _joined.wait(lock, [this] { return _state != Joining; });
    if (_state == NotStarted)
    {
        return;
    }
    _state = Joining;  // the handle is this call's alone now: joining a thread twice is undefined
    lock.unlock();     // so that the body may call this object while it is waited for
    pthread_join(_handle, nullptr);
    lock.lock();
    _state = NotStarted;
    _joined.notify_all();
}

}  // namespace korlo::osa
