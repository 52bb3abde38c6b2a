#pragma once
// What sockets of both kinds do alike. A pair is a TcpPair or a UnixPair.

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "korlo/osa/Mutex.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocket.h"
#include "support/TcpPair.h"

namespace korlo
{

template <typename Pair>
void ExpectThatALargeWriteIsCompleted()
{
    Pair pair;
    std::string head(3000000, '\0');
    for (std::size_t i = 0; i < head.size(); ++i)
    {
        head[i] = static_cast<char>(i * 7 % 251);
    }
    const std::string tail(5000000, 't');
    for (const unsigned int timeoutMs : {osa::Infinite, 30'000u})
    {
        auto writing = std::async(std::launch::async, [&] {
            return pair.client.WriteAll(head.data(), head.size(), tail.data(), tail.size(), timeoutMs);
        });
        EXPECT_EQ(ReadBytes(*pair.pServer, head.size() + tail.size()), head + tail);
        const osa::TcpSocket::IoResult result = writing.get();
        EXPECT_EQ(result.status, osa::TcpSocket::Done);
        EXPECT_EQ(result.bytes, head.size() + tail.size());
    }
}

template <typename Pair>
void ExpectThatTheEndComesBehindTheLastBytes()
{
    Pair pair;
    EXPECT_EQ(pair.pServer->WriteAll("last", 4, osa::Infinite).status, osa::TcpSocket::Done);
    pair.pServer.reset();
    EXPECT_EQ(ReadBytes(pair.client, 4), "last");
    char byte = 0;
    EXPECT_EQ(pair.client.ReadSome(&byte, 1, osa::Infinite).status, osa::TcpSocket::EndOfStream);
    EXPECT_EQ(pair.client.ReadSome(&byte, 1, 0).status, osa::TcpSocket::EndOfStream);
}

template <typename Pair>
void ExpectThatACloseWakesTheReader()
{
    using namespace std::chrono_literals;
    for (const unsigned int timeoutMs : {osa::Infinite, 60'000u})
    {
        Pair pair;
        auto reading = std::async(std::launch::async, [&] {
            char byte = 0;
            return pair.client.ReadSome(&byte, 1, timeoutMs).status;
        });
        EXPECT_EQ(reading.wait_for(5ms), std::future_status::timeout);
        pair.client.Close();
        ASSERT_EQ(reading.wait_for(10s), std::future_status::ready);
        EXPECT_EQ(reading.get(), osa::TcpSocket::EndOfStream);
    }
}

/// @param size more bytes than the system keeps for a connection.
template <typename Pair>
void ExpectThatACloseWakesTheWriter(std::size_t size)
{
    using namespace std::chrono_literals;
    Pair pair;
    const std::string bytes(size, 'x');
    auto writing = std::async(std::launch::async,
                              [&] { return pair.client.WriteAll(bytes.data(), bytes.size(), osa::Infinite).status; });
    EXPECT_EQ(writing.wait_for(20ms), std::future_status::timeout);
    pair.client.Close();
    ASSERT_EQ(writing.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(writing.get(), osa::TcpSocket::Failed);
}

template <typename Pair>
void ExpectThatAnInterruptedReadGoesOn()
{
    struct sigaction count = {};
    struct sigaction before = {};
    static std::atomic<int> interruptions;
    interruptions = 0;
    count.sa_handler = [](int) { ++interruptions; };  // without SA_RESTART
    ::sigaction(SIGUSR1, &count, &before);
    for (const unsigned int timeoutMs : {osa::Infinite, 60'000u})
    {
        Pair pair;
        char byte = 0;
        std::thread reader([&] { pair.client.ReadSome(&byte, 1, timeoutMs); });
        const int former = interruptions;
        while (interruptions < former + 20)
        {
            ::pthread_kill(reader.native_handle(), SIGUSR1);
            std::this_thread::yield();
        }
        pair.pServer->WriteAll("!", 1, osa::Infinite);
        reader.join();
        EXPECT_EQ(byte, '!');
    }
    ::sigaction(SIGUSR1, &before, nullptr);
}

inline void ExpectThatACloseWakesEveryAccept(osa::TcpListener& listener)
{
    using namespace std::chrono_literals;
    std::vector<std::future<bool>> accepting;
    for (int i = 0; i < 3; ++i)
    {
        accepting.push_back(std::async(std::launch::async, [&] { return listener.Accept() == nullptr; }));
    }
    EXPECT_EQ(accepting.front().wait_for(5ms), std::future_status::timeout);
    listener.Close();
    for (std::future<bool>& accept : accepting)
    {
        ASSERT_EQ(accept.wait_for(10s), std::future_status::ready);
        EXPECT_TRUE(accept.get());
    }
}

}  // namespace korlo
