#pragma once
// What hiredis does to a Redis server, by one connection.

#include <hiredis/hiredis.h>
#include <memory>

#include "korlo/osa/Exception.h"
#include "support/ChildProcess.h"

namespace korlo::benchmarks
{

/// Thread safety: none of its own; one thread at a time.
class RedisClient
{
public:
    struct FreeReply
    {
        void operator()(redisReply* pReply) const { freeReplyObject(pReply); }
    };

    using Reply = std::unique_ptr<redisReply, FreeReply>;

    explicit RedisClient(std::uint16_t port) : RedisClient(redisConnect("127.0.0.1", port)) {}
    explicit RedisClient(const std::string& socketPath) : RedisClient(redisConnectUnix(socketPath.c_str())) {}
    RedisClient(const RedisClient&) = delete;
    RedisClient& operator=(const RedisClient&) = delete;
    ~RedisClient() { redisFree(_pContext); }

    template <typename... Args>
    Reply Run(const char* format, Args... args)
    {
        return Reply(static_cast<redisReply*>(redisCommand(_pContext, format, args...)));
    }

    /// Queues a command, to leave with the others at the next TakeReply.
    template <typename... Args>
    void Append(const char* format, Args... args)
    {
        redisAppendCommand(_pContext, format, args...);
    }

    Reply TakeReply()
    {
        void* pReply = nullptr;
        redisGetReply(_pContext, &pReply);
        return Reply(static_cast<redisReply*>(pReply));
    }

private:
    explicit RedisClient(redisContext* pContext) : _pContext(pContext)
    {
        if (_pContext == nullptr || _pContext->err != 0)
        {
            throw osa::Exception("Failed to connect to Redis");
        }
    }

    redisContext* _pContext;
};

}  // namespace korlo::benchmarks
