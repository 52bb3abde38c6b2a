#include "settings/server/SerializationManager.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "server/IniFileSettingsSerializer.h"
#include "server/PhpArraySettingsSerializer.h"

namespace korlo::settings::server
{
namespace
{

using Names = std::vector<std::string>;

/// Notes its end, and may throw there.
class DyingSerializer : public ISettingsSerializer
{
public:
    DyingSerializer(std::string name, bool throws, Names& deleted)
        : _name(std::move(name)),
          _throws(throws),
          _deleted(deleted)
    {
    }

    ~DyingSerializer() noexcept(false) override
    {
        _deleted.push_back(_name);
        if (_throws)
        {
            throw std::runtime_error(_name);
        }
    }

    void OnSerialize(const core::IniFile&, const common::GroupNameMatcher&, std::ostream&) const override {}
    void OnDeserialize(std::istream&, core::IniFile&) const override {}

private:
    const std::string _name;
    const bool _throws;
    Names& _deleted;
};

/// A manager with forms of the test's.
class ExtendedManager : public SerializationManager
{
public:
    using SerializationManager::Register;
};

TEST(SerializationManagerTest, HandsOutOneInstanceOfEachForm)
{
    const SerializationManager manager;
    ISettingsSerializer* const pIni = manager.GetSerializer("ini");
    ISettingsSerializer* const pPhpArray = manager.GetSerializer("phparray");
    EXPECT_NE(dynamic_cast<IniFileSettingsSerializer*>(pIni), nullptr);
    EXPECT_NE(dynamic_cast<PhpArraySettingsSerializer*>(pPhpArray), nullptr);
    EXPECT_EQ(manager.GetSerializer("ini"), pIni);
    EXPECT_EQ(manager.GetSerializer("phparray"), pPhpArray);
}

TEST(SerializationManagerTest, AnyOtherNameGivesNull)
{
    const SerializationManager manager;
    for (const std::string& name : Names{"INI", "", " ini", "ini ", "PhpArray", "json", "in", std::string("ini\0", 4)})
    {
        EXPECT_EQ(manager.GetSerializer(name), nullptr) << name;
    }
}

TEST(SerializationManagerTest, ANameIsRegisteredOnce)
{
    Names deleted;
    {
        ExtendedManager manager;
        ISettingsSerializer* const pIni = manager.GetSerializer("ini");
        auto pRefused = std::make_unique<DyingSerializer>("refused", false, deleted);
        EXPECT_FALSE(manager.Register("ini", pRefused.get()));
        EXPECT_EQ(manager.GetSerializer("ini"), pIni);

        auto pTaken = std::make_unique<DyingSerializer>("taken", false, deleted);
        ISettingsSerializer* const pOther = pTaken.get();
        EXPECT_TRUE(manager.Register("other", pTaken.release()));
        EXPECT_EQ(manager.GetSerializer("other"), pOther);
    }
    EXPECT_EQ(deleted, (Names{"refused", "taken"}));
}

TEST(SerializationManagerTest, DeletesItsSerializersInNameOrder)
{
    Names deleted;
    {
        ExtendedManager manager;
        for (const std::string name : {"z", "a", "m"})
        {
            manager.Register(name, std::make_unique<DyingSerializer>(name, false, deleted).release());
        }
    }
    EXPECT_EQ(deleted, (Names{"a", "m", "z"}));
}

TEST(SerializationManagerTest, AThrowingDestructorEndsTheDeletionQuietly)
{
    Names deleted;
    auto pLeft = std::make_unique<DyingSerializer>("x", false, deleted);  // what the manager leaves is deleted here
    {
        ExtendedManager manager;
        manager.Register("q", std::make_unique<DyingSerializer>("q", false, deleted).release());
        manager.Register("t", std::make_unique<DyingSerializer>("t", true, deleted).release());
        manager.Register("x", pLeft.get());
    }
    EXPECT_EQ(deleted, (Names{"q", "t"}));
}

}  // namespace
}  // namespace korlo::settings::server
