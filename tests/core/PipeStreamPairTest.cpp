#include "korlo/osa/PipeStreamPair.h"

#include <chrono>
#include <future>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

std::string ReadAll(std::istream& stream)
{
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

std::future<std::string> ReadLineFrom(PipeStreamPair& pipe)
{
    return std::async(std::launch::async, [&pipe] {
        std::string line;
        std::getline(*pipe.GetIstream(), line);
        return line;
    });
}

TEST(PipeStreamPairTest, HandsWhatIsWrittenToTheReader)
{
    PipeStreamPair pipe;
    *pipe.GetOstream() << "get " << 12 << std::endl;
    std::string word;
    int number = 0;
    *pipe.GetIstream() >> word >> number;
    EXPECT_EQ(word, "get");
    EXPECT_EQ(number, 12);
}

TEST(PipeStreamPairTest, ALineWakesTheReaderThatWaitsForIt)
{
    PipeStreamPair pipe;
    auto line = ReadLineFrom(pipe);
    EXPECT_EQ(line.wait_for(5ms), std::future_status::timeout);
    *pipe.GetOstream() << "data" << std::endl;
    ASSERT_EQ(line.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(line.get(), "data");
}

TEST(PipeStreamPairTest, MuchTextWakesTheReaderWithoutAFlush)
{
    PipeStreamPair pipe;
    auto line = ReadLineFrom(pipe);
    EXPECT_EQ(line.wait_for(5ms), std::future_status::timeout);
    const std::string text(1000000, 'x');
    *pipe.GetOstream() << text << '\n';
    pipe.ClosePipe();
    EXPECT_EQ(line.get(), text);
}

TEST(PipeStreamPairTest, NeverMakesTheWriterWait)
{
    PipeStreamPair pipe;
    const std::string piece(1 << 16, 'x');
    for (int i = 0; i < 64; ++i)
    {
        pipe.GetOstream()->write(piece.data(), static_cast<std::streamsize>(piece.size())).flush();
    }
    pipe.ClosePipe();
    EXPECT_EQ(ReadAll(*pipe.GetIstream()).size(), 64 * piece.size());
}

TEST(PipeStreamPairTest, TheReaderMeetsTheEndAfterAllThatWasWrittenBeforeTheClose)
{
    PipeStreamPair pipe;
    *pipe.GetOstream() << "not flushed";
    pipe.ClosePipe();
    EXPECT_EQ(ReadAll(*pipe.GetIstream()), "not flushed");
    EXPECT_TRUE(pipe.GetIstream()->get() == std::char_traits<char>::eof());
}

TEST(PipeStreamPairTest, AllIsReadWhenTheReaderComesInTheMiddle)
{
    PipeStreamPair pipe;
    *pipe.GetOstream() << "one ";
    auto all = std::async(std::launch::async, [&pipe] { return ReadAll(*pipe.GetIstream()); });
    *pipe.GetOstream() << "two ";
    pipe.GetOstream()->put('3');
    pipe.ClosePipe();
    ASSERT_EQ(all.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(all.get(), "one two 3");
}

TEST(PipeStreamPairTest, TheCloseFromAnotherThreadEndsAWaitingReader)
{
    PipeStreamPair pipe;
    auto line = ReadLineFrom(pipe);
    EXPECT_EQ(line.wait_for(5ms), std::future_status::timeout);
    pipe.ClosePipe();
    ASSERT_EQ(line.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(line.get(), "");
    EXPECT_TRUE(pipe.GetIstream()->fail());
}

TEST(PipeStreamPairTest, TheWritersStreamFailsAfterTheClose)
{
    PipeStreamPair flushed;
    std::ostream* const pOutput = flushed.GetOstream();
    flushed.ClosePipe();
    pOutput->flush();
    EXPECT_TRUE(pOutput->bad());

    PipeStreamPair written;
    std::ostream* const pWritten = written.GetOstream();
    written.ClosePipe();
    *pWritten << "late";
    EXPECT_TRUE(pWritten->bad());
    EXPECT_EQ(ReadAll(*written.GetIstream()), "");

    PipeStreamPair put;
    std::ostream* const pPut = put.GetOstream();
    put.ClosePipe();
    pPut->put('x');
    EXPECT_TRUE(pPut->bad());
}

TEST(PipeStreamPairTest, WhoAsksForTheWritersStreamAfterTheCloseGetsItBad)
{
    PipeStreamPair pipe;
    EXPECT_FALSE(pipe.IsClosed());
    EXPECT_TRUE(pipe.GetOstream()->good());
    pipe.ClosePipe();
    pipe.ClosePipe();
    EXPECT_TRUE(pipe.IsClosed());
    EXPECT_TRUE(pipe.GetOstream()->bad());
}

TEST(PipeStreamPairTest, AnyThreadMayCloseWhileOthersReadAndWrite)
{
    PipeStreamPair pipe;
    auto writer = std::async(std::launch::async, [&pipe] {
        std::size_t written = 0;
        while (*pipe.GetOstream() << "0123456789" << std::flush)
        {
            written += 10;
        }
        return written;
    });
    std::promise<void> flowing;
    auto reader = std::async(std::launch::async, [&pipe, &flowing] {
        std::string first(1000, '\0');
        pipe.GetIstream()->read(first.data(), 1000);
        flowing.set_value();
        return first.size() + ReadAll(*pipe.GetIstream()).size();
    });
    flowing.get_future().wait();
    pipe.ClosePipe();
    ASSERT_EQ(writer.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    const std::size_t written = writer.get();
    const std::size_t read = reader.get();
    // The last write may have gone in before the close and its flush have failed after it.
    EXPECT_TRUE(read == written || read == written + 10) << read << " of " << written;
}

TEST(PipeStreamPairTest, KeepsEveryByteOfALongConversation)
{
    PipeStreamPair request;
    PipeStreamPair response;
    auto echo = std::async(std::launch::async, [&] {
        std::string line;
        while (std::getline(*request.GetIstream(), line))
        {
            *response.GetOstream() << line << std::endl;
        }
        response.ClosePipe();
    });
    for (std::size_t i = 0; i < 2000; ++i)
    {
        const std::string sent(i * 37 % 3000, static_cast<char>('a' + i % 26));
        *request.GetOstream() << sent << std::endl;
        std::string received;
        std::getline(*response.GetIstream(), received);
        ASSERT_EQ(received, sent);
    }
    request.ClosePipe();
    EXPECT_EQ(echo.wait_for(10s), std::future_status::ready);
}

}  // namespace

}  // namespace korlo::osa
