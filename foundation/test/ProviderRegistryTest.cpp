#include "SmallProvider.hpp"

#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace
{

using fsp::ErrorCode;
using fsp::StorageIRI;

TEST(ProviderRegistryTest, FindsWhoServesAnIri)
{
    fsp::ProviderRegistry registry;
    const auto first = std::make_shared<const SmallProvider>();
    const auto second = std::make_shared<const SmallProvider>();
    registry.registerProvider(StorageIRI(u"x://One/ignored"), first);
    registry.registerProvider(StorageIRI(u"x://two"), second);
    EXPECT_EQ(codeOf([&] { registry.registerProvider(StorageIRI(u"X://ONE"), second); }), ErrorCode::AlreadyExists);

    EXPECT_EQ(registry.resolve(StorageIRI(u"X://oNE/a/b")), first);
    EXPECT_EQ(registry.find(StorageIRI(u"x://two/a")), second);
    for (const std::u16string nobody : {u"y://one/a", u"x://three", u"x:///one"})
    {
        EXPECT_EQ(registry.find(StorageIRI(nobody)), nullptr);
        EXPECT_EQ(codeOf([&] { registry.resolve(StorageIRI(nobody)); }, StorageIRI(nobody)), ErrorCode::NotFound);
    }
    EXPECT_EQ(codeOf([&] { registry.resolve(StorageIRI(u"x://one/%zz")); }), ErrorCode::InvalidLocation);
    EXPECT_EQ(codeOf([&] { registry.registerProvider(StorageIRI(), first); }), ErrorCode::InvalidLocation);

    EXPECT_TRUE(registry.unregisterProvider(StorageIRI(u"x://ONE")));
    EXPECT_FALSE(registry.unregisterProvider(StorageIRI(u"x://one")));
    EXPECT_EQ(registry.find(StorageIRI(u"x://one/a")), nullptr);
    EXPECT_EQ(first.use_count(), 1);
}

TEST(ProviderRegistryTest, ServesThreadsWhileOthersRegister)
{
    fsp::ProviderRegistry registry;
    const auto provider = std::make_shared<const SmallProvider>();
    registry.registerProvider(StorageIRI(u"x://kept"), provider);
    std::atomic<int> lost{0};
    const auto work = [&](std::u16string own)
    {
        const StorageIRI root(own);
        for (int i = 0; i < 500; ++i)
        {
            registry.registerProvider(root, provider);
            lost += registry.find(StorageIRI(u"x://kept/a")) == provider ? 0 : 1;
            lost += registry.unregisterProvider(root) ? 0 : 1;
        }
    };
    {
        const std::jthread first(work, u"x://a");
        const std::jthread second(work, u"x://b");
    }
    EXPECT_EQ(lost, 0);
}

} // namespace
