#include "StoreTest.hpp"

namespace storage::cloudprovider
{

namespace
{

struct SizeRow
{
    const char* name;
    std::optional<std::string> value;
    std::optional<std::uint64_t> size; // none: the default
    bool isLogged;
};

class OpenFileContextTest : public StoreTest, public ::testing::WithParamInterface<SizeRow>
{
};

TEST_P(OpenFileContextTest, TakesSizesFromTheEnvironment)
{
    const std::tuple<const char*, std::uint64_t, const std::uint64_t OpenFileContext::*> sizes[] = {
        {"ZV_CLOUD_PART_SIZE_OVERRIDE", 5'242'880, &OpenFileContext::partSize},
        {"ZV_CLOUD_DOWNLOADED_PART_CACHE_OVERRIDE", 104'857'600, &OpenFileContext::downloadedPartCacheLimit}};
    for (const auto& [variable, usual, field] : sizes)
    {
        SCOPED_TRACE(variable);
        const ScopedVariable scope(variable, GetParam().value);
        const OpenFileContext context(iri("a//b"), store, nullptr);
        EXPECT_EQ(context.*field, GetParam().size.value_or(usual));
        EXPECT_EQ(context.key, "a/b");
        const Lines records = log.take(16);
        ASSERT_EQ(records.size(), GetParam().isLogged ? 1 : 0);
        EXPECT_TRUE(records.empty() || records.front().starts_with("Exception caught: ")) << records.front();
    }
    EXPECT_EQ(store->takeCalls(), Lines());
}

INSTANTIATE_TEST_SUITE_P(Values, OpenFileContextTest,
    ::testing::Values(SizeRow{"unset", std::nullopt, std::nullopt, false}, SizeRow{"empty", "", std::nullopt, false},
        SizeRow{"number", "1048576", 1'048'576, false}, SizeRow{"blanksAndText", " 12abc", 12, false},
        SizeRow{"sign", "+7", 7, false}, SizeRow{"leadingZero", "010", 10, false}, SizeRow{"zero", "0", 0, false},
        SizeRow{"minusOne", "-1", ~std::uint64_t{0}, false},
        SizeRow{"largest", "18446744073709551615", ~std::uint64_t{0}, false},
        SizeRow{"tooLarge", "18446744073709551616", std::nullopt, true}, SizeRow{"text", "abc", std::nullopt, true},
        SizeRow{"noUtf8", "1\xFF", std::nullopt, true}),
    RowName());

} // namespace

} // namespace storage::cloudprovider
