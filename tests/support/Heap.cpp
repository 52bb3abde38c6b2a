#include "support/Heap.h"

#include <cstdlib>
#include <new>
#include <string_view>

#include <malloc.h>
#include <pthread.h>

namespace korlo
{

constinit Heap heap;

namespace
{

bool MayFailHere()
{
    const char* const thread = heap.failingThread;
    char name[16] = "";
    return thread == nullptr ||
           (pthread_getname_np(pthread_self(), name, sizeof(name)) == 0 && std::string_view(name) == thread);
}

}  // namespace
}  // namespace korlo

void* operator new(std::size_t size)
{
    using korlo::heap;
    if (heap.failAfter >= 0 && korlo::MayFailHere() && heap.failAfter-- == 0)
    {
        if (--heap.failures > 0)
        {
            heap.failAfter = 0;
        }
        throw std::bad_alloc();
    }
    void* const pBlock = size > heap.largest ? nullptr : std::malloc(size);
    if (pBlock == nullptr)
    {
        throw std::bad_alloc();
    }
    ++heap.allocations;
    ++heap.blocks;
    heap.requestedBytes += static_cast<long long>(size);
    heap.usableBytes += static_cast<long long>(malloc_usable_size(pBlock));
    return pBlock;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try
    {
        return operator new(size);
    }
    catch (const std::bad_alloc&)
    {
        return nullptr;
    }
}

void operator delete(void* pBlock) noexcept
{
    using korlo::heap;
    if (pBlock != nullptr)
    {
        --heap.blocks;
        heap.usableBytes -= static_cast<long long>(malloc_usable_size(pBlock));
        std::free(pBlock);
    }
}

void operator delete(void* pBlock, std::size_t) noexcept
{
    operator delete(pBlock);
}

void operator delete(void* pBlock, const std::nothrow_t&) noexcept
{
    operator delete(pBlock);
}
