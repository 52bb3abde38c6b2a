// What a connection does where memory runs out, and what it keeps.

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "settings/server/ClientHandler.h"
#include "support/ExchangeStore.h"
#include "support/Heap.h"

namespace korlo::settings::server
{
namespace
{

constexpr std::size_t LargeBytes = 1024 * 1024;

/// Lets no block be larger than half of a large value, to the end of its scope.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class ShortMemory
{
public:
    ShortMemory() { heap.largest = LargeBytes / 2; }
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;
    ~ShortMemory() { heap.largest = SIZE_MAX; }
};

/// A store with one large group.
class ClientHandlerMemoryTest : public testing::Test
{
protected:
    ClientHandlerMemoryTest()
    {
        core::IniFile large;
        large.SetValue("Large", "k", std::string(LargeBytes, 'x'));
        store.manager.MergeSettings(large, 0);
    }

    ExchangeStore store;
};

TEST_F(ClientHandlerMemoryTest, AResponseThatMemoryDoesNotSufficeForIsNotSentInPart)
{
    for (const char* request : {"get delimited\nAudio\nLarge\n.\n", "get\nLarge\n.\n", "dump\n", "dump all\n"})
    {
        SCOPED_TRACE(request);
        std::istringstream in(std::string(request) + "get delimited\nAudio\n.\n");
        std::ostringstream out;
        ClientHandler handler(&store.env, &in, &out);
        const ShortMemory shortMemory;
        EXPECT_THROW(handler.Run(), std::bad_alloc);
        EXPECT_EQ(out.str(), "");
    }
}

TEST_F(ClientHandlerMemoryTest, ANotificationThatMemoryDoesNotSufficeForIsNotSentInPart)
{
    std::istringstream in;
    std::ostringstream out;
    ClientHandler handler(&store.env, &in, &out);
    {
        const ShortMemory shortMemory;
        EXPECT_THROW(handler.OnChange({"Large"}, core::IniFile()), std::bad_alloc);
    }
    EXPECT_EQ(out.str(), "");
    handler.OnChange({"Audio"}, core::IniFile());
    EXPECT_EQ(out.str(), "async change\nAudio\n.\n" + Audio + ".\n");
}

/// Takes nothing once it holds so many bytes.
class FullBuffer : public std::stringbuf
{
protected:
    std::streamsize xsputn(const char* bytes, std::streamsize size) override
    {
        return str().empty() ? std::stringbuf::xsputn(bytes, size) : 0;
    }
};

TEST_F(ClientHandlerMemoryTest, AResponseThatTheStreamDoesNotTakeEndsTheConnection)
{
    std::istringstream in("get\nAudio\n.\nget\nNet/wlan0\n.\nmerge\n[Audio]\nvolume=9\n.\n");
    FullBuffer buffer;
    std::ostream out(&buffer);
    ClientHandler(&store.env, &in, &out).Run();
    EXPECT_EQ(buffer.str(), Audio);
    EXPECT_EQ(store.Serve("get\nAudio\n.\n"), Audio);
}

/// Gives one text, and then calls a function where it would wait for more.
class ObservedInput : public std::streambuf
{
public:
    ObservedInput(std::string text, std::function<void()> beforeWait)
        : _text(std::move(text)),
          _beforeWait(std::move(beforeWait))
    {
        setg(_text.data(), _text.data(), _text.data() + _text.size());
    }

protected:
    int_type underflow() override
    {
        _beforeWait();
        return traits_type::eof();
    }

private:
    std::string _text;
    std::function<void()> _beforeWait;
};

TEST_F(ClientHandlerMemoryTest, AConnectionThatWaitsKeepsNoLongCommandLine)
{
    constexpr std::size_t lineBytes = 15 * LargeBytes;
    constexpr std::size_t littleBytes = 64 * 1024;
    std::size_t whileWaiting = 0;
    ObservedInput input("info " + std::string(lineBytes, 'x') + '\n', [&] { whileWaiting = heap.usableBytes; });
    std::istream in(&input);
    std::ostringstream out;
    ClientHandler handler(&store.env, &in, &out);
    const std::size_t before = heap.usableBytes;
    handler.Run();
    EXPECT_GT(whileWaiting, 0u);
    EXPECT_LT(whileWaiting, before + littleBytes);
}

}  // namespace
}  // namespace korlo::settings::server
