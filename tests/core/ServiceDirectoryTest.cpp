#include "korlo/osa/ServiceDirectory.h"

#include <gtest/gtest.h>

namespace korlo::osa
{
namespace
{

TEST(ServiceDirectoryTest, FindsWhatWasRegisteredUntilItIsUnregistered)
{
    std::string address = "untouched";
    unsigned short port = 1;
    EXPECT_FALSE(ServiceDirectory::Find("directory-test", address, port));
    EXPECT_EQ(address, "untouched");
    EXPECT_EQ(port, 1);

    ServiceDirectory::Register("directory-test", "127.0.0.1", 5000);
    EXPECT_TRUE(ServiceDirectory::Find("directory-test", address, port));
    EXPECT_EQ(address, "127.0.0.1");
    EXPECT_EQ(port, 5000);
    EXPECT_FALSE(ServiceDirectory::Find("directory-tes", address, port));

    ServiceDirectory::Unregister("directory-test");
    EXPECT_FALSE(ServiceDirectory::Find("directory-test", address, port));
    EXPECT_NO_THROW(ServiceDirectory::Unregister("directory-test"));
}

TEST(ServiceDirectoryTest, ALaterEntryReplacesTheFormerOne)
{
    std::string address;
    unsigned short port = 0;
    ServiceDirectory::Register("directory-test", "127.0.0.1", 5000);
    ServiceDirectory::Register("directory-test", "::1", 5001);
    EXPECT_TRUE(ServiceDirectory::Find("directory-test", address, port));
    EXPECT_EQ(address, "::1");
    EXPECT_EQ(port, 5001);
    ServiceDirectory::Unregister("directory-test");
}

}  // namespace

}  // namespace korlo::osa
