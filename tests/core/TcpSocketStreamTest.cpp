#include "korlo/osa/TcpSocketStream.h"

#include <chrono>
#include <future>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "support/TcpPair.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

/// Two connected sockets with a stream on either.
struct StreamPair : TcpPair
{
    explicit StreamPair(unsigned int timeoutMs = Infinite) : clientStream(&client, timeoutMs) {}

    TcpSocketStream clientStream;
    TcpSocketStream serverStream{pServer.get(), Infinite};
};

std::string ReadLine(std::istream& stream)
{
    std::string line;
    std::getline(stream, line);
    return line;
}

/// A text that no two places of look alike.
std::string TestText(std::size_t size)
{
    std::string text;
    while (text.size() < size)
    {
        text += std::to_string(text.size()) + ' ';
    }
    text.resize(size);
    return text;
}

TEST(TcpSocketStreamTest, CarriesLinesBothWays)
{
    StreamPair pair;
    EXPECT_TRUE(pair.clientStream.good());
    pair.clientStream.GetOstream() << "get " << 12 << std::endl;
    EXPECT_EQ(ReadLine(pair.serverStream), "get 12");
    pair.serverStream.GetOstream() << "data\n.\n" << std::flush;
    EXPECT_EQ(ReadLine(pair.clientStream), "data");
    EXPECT_EQ(ReadLine(pair.clientStream), ".");
}

TEST(TcpSocketStreamTest, WritesThroughItselfToo)
{
    StreamPair pair;
    pair.clientStream << "quit" << std::endl;
    EXPECT_EQ(ReadLine(pair.serverStream), "quit");
}

TEST(TcpSocketStreamTest, NothingLeavesBeforeTheFlushAndThenAllAtOnce)
{
    for (const std::size_t size : {1u, 4096u, 4097u, 65536u})
    {
        SCOPED_TRACE(size);
        StreamPair pair;
        const std::string text = TestText(size);
        for (const char character : text.substr(0, size / 2))
        {
            pair.clientStream.GetOstream().put(character);
        }
        pair.clientStream.GetOstream() << text.substr(size / 2);
        char byte = 0;
        EXPECT_EQ(pair.pServer->ReadSome(&byte, 1, 0).status, TcpSocket::TimedOut);

        pair.clientStream.GetOstream().flush();
        std::string received(size, '\0');
        pair.serverStream.read(received.data(), static_cast<std::streamsize>(size));
        EXPECT_EQ(received, text);
    }
}

TEST(TcpSocketStreamTest, CarriesMessagesOfAnySize)
{
    for (const std::size_t size : {65537u, 100000u, 3000000u})
    {
        for (const std::size_t pieceSize : {1000u, 65536u, 5000000u})
        {
            SCOPED_TRACE(testing::Message() << size << " in pieces of " << pieceSize);
            StreamPair pair;
            const std::string text = TestText(size);
            auto writing = std::async(std::launch::async, [&] {
                for (std::size_t at = 0; at < size; at += pieceSize)
                {
                    pair.clientStream.GetOstream() << text.substr(at, pieceSize);
                }
                pair.clientStream.GetOstream().flush();
                return pair.clientStream.GetOstream().good();
            });
            std::string received(size, '\0');
            pair.serverStream.read(received.data(), static_cast<std::streamsize>(size));
            EXPECT_TRUE(writing.get());
            EXPECT_TRUE(received == text);
        }
    }
}

TEST(TcpSocketStreamTest, IsReadByOneThreadWhileAnotherWrites)
{
    StreamPair pair;
    constexpr int Lines = 20000;
    const auto write = [](TcpSocketStream& stream) {
        for (int i = 0; i < Lines; ++i)
        {
            stream.GetOstream() << "line " << i << '\n';
            i % 10 == 0 ? stream.GetOstream() << std::flush : stream.GetOstream();
        }
        stream.GetOstream().flush();
    };
    const auto read = [](TcpSocketStream& stream) {
        int count = 0;
        while (count < Lines && ReadLine(stream) == "line " + std::to_string(count))
        {
            ++count;
        }
        return count;
    };
    auto clientWrites = std::async(std::launch::async, [&] { write(pair.clientStream); });
    auto serverWrites = std::async(std::launch::async, [&] { write(pair.serverStream); });
    auto serverReads = std::async(std::launch::async, [&] { return read(pair.serverStream); });
    EXPECT_EQ(read(pair.clientStream), Lines);
    EXPECT_EQ(serverReads.get(), Lines);
}

TEST(TcpSocketStreamTest, ReadingAndWritingFailIndependently)
{
    StreamPair pair(0);
    EXPECT_EQ(ReadLine(pair.clientStream), "");
    EXPECT_TRUE(pair.clientStream.fail());
    EXPECT_TRUE(pair.clientStream.GetOstream().good());
    pair.clientStream.GetOstream() << "still there" << std::endl;
    EXPECT_EQ(ReadLine(pair.serverStream), "still there");
}

TEST(TcpSocketStreamTest, AReadFailsWhenTheTimeIsUp)
{
    StreamPair pair(20);
    pair.serverStream.GetOstream() << "half a line" << std::flush;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ReadLine(pair.clientStream), "half a line");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    EXPECT_TRUE(pair.clientStream.eof());
    EXPECT_EQ(ReadLine(pair.clientStream), "");
    EXPECT_TRUE(pair.clientStream.fail());
}

TEST(TcpSocketStreamTest, AReadFailsAfterAllThatThePeerWroteBeforeItClosed)
{
    StreamPair pair;
    pair.serverStream.GetOstream() << "last words" << std::endl;
    pair.pServer->Close();
    EXPECT_EQ(ReadLine(pair.clientStream), "last words");
    EXPECT_TRUE(pair.clientStream.good());
    EXPECT_EQ(ReadLine(pair.clientStream), "");
    EXPECT_TRUE(pair.clientStream.fail());
}

TEST(TcpSocketStreamTest, AFlushToAPeerThatHasGoneSetsTheBadFlag)
{
    TcpPair pair;
    TcpSocketStream stream(&pair.client, Infinite);
    pair.pServer.reset();
    while (stream.GetOstream() << "merge" << std::endl)
    {
        std::this_thread::yield();
    }
    EXPECT_TRUE(stream.GetOstream().bad());
    EXPECT_FALSE(stream.bad());
}

TEST(TcpSocketStreamTest, AWriteFailsWhenTheTimeIsUpAndDropsTheRest)
{
    StreamPair pair(20);
    const std::string text(32 << 20, 'x');
    pair.clientStream.GetOstream() << text;
    EXPECT_TRUE(pair.clientStream.GetOstream().bad());
}

TEST(TcpSocketStreamTest, ACloseOfTheSocketEndsAReadThatWaits)
{
    StreamPair pair;
    auto line = std::async(std::launch::async, [&] { return ReadLine(pair.clientStream); });
    EXPECT_EQ(line.wait_for(5ms), std::future_status::timeout);
    pair.client.Close();
    ASSERT_EQ(line.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(pair.clientStream.fail());
}

TEST(TcpSocketStreamTest, DropsWhatWasNotFlushedWhenItGoes)
{
    TcpPair pair;
    {
        TcpSocketStream stream(&pair.client, Infinite);
        stream.GetOstream() << "half a request";
    }
    pair.client.Close();
    char byte = 0;
    EXPECT_EQ(pair.pServer->ReadSome(&byte, 1, Infinite).status, TcpSocket::EndOfStream);
}

TEST(TcpSocketStreamTest, RefusesASocketThatIsNull)
{
    try
    {
        const TcpSocketStream stream(nullptr, Infinite);
        FAIL() << "nothing was thrown";
    }
    catch (const Exception& exception)
    {
        EXPECT_STREQ(exception.what(), "Socket was NULL");
    }
}

}  // namespace

}  // namespace korlo::osa
