#include "model/ZBAuxData.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <limits>

namespace zorbel::test {

using Tree = std::shared_ptr<const ZBAuxDataDictionary>;

ZBAuxDatum agg(std::int64_t value) { return std::make_shared<ZBAuxData>(value, true); }
ZBAuxDatum plain(std::int64_t value) { return std::make_shared<ZBAuxData>(value, false); }
Tree tree(ZBAuxDataDictionary::Entries entries) {
    return std::make_shared<ZBAuxDataDictionary>(std::move(entries));
}

TEST(ZBAuxDataTest, MergeSumsAggregatesAndDropsOthers) {
    const Tree nested = tree({{"m", tree({{"x", agg(1)}, {"y", plain(2)}})}});
    EXPECT_EQ(serialize(nested->jsonRepresentation()), R"({"m":{"x":1,"y":2}})");
    const std::tuple<Tree, Tree, const char*> rows[] = {
        {tree({{"a", agg(5)}}), nullptr, R"({"a":5})"},
        {tree({{"a", plain(5)}}), nullptr, nullptr},
        {nested, nullptr, R"({"m":{"x":1}})"},
        {tree({{"m", tree({{"y", plain(2)}})}}), nullptr, nullptr},
        {tree({{"a", agg(5)}}), tree({{"b", plain(1)}, {"m", tree({{"y", plain(2)}})}}), R"({"a":5})"},
        {tree({{"a", agg(5)}}), tree({{"b", agg(7)}}), R"({"a":5,"b":7})"},
        {nested, tree({{"m", tree({{"x", agg(-3)}})}}), R"({"m":{"x":-2}})"},
        // A sum aggregates further.
        {tree({{"a", agg(5)}})->mergeWithData(tree({{"a", agg(7)}}).get()), tree({}), R"({"a":12})"},
        // The receiver's leaf decides.
        {tree({{"a", agg(5)}}), tree({{"a", plain(7)}}), R"({"a":12})"},
        {tree({{"a", plain(7)}}), tree({{"a", agg(5)}}), nullptr},
        {tree({{"a", agg(std::numeric_limits<std::int64_t>::max())}}), tree({{"a", agg(1)}}),
         R"({"a":-9223372036854775808})"},
    };
    for (const auto& [receiver, argument, text] : rows) {
        const Tree merged = receiver->mergeWithData(argument.get());
        EXPECT_EQ(merged ? serialize(merged->jsonRepresentation()) : "nothing", text ? text : "nothing");
    }
    EXPECT_DEATH(nested->mergeWithData(tree({{"m", agg(3)}}).get()),
                 "datum1.isContainer == datum2.isContainer");
}

}  // namespace zorbel::test
