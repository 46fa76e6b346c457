#include "LogicLayer/HashTable.h"
#include "support/FailingAllocations.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

struct Node
{
    explicit Node(int value) : key(value) {}

    const int key;
    HashLink<Node> place;
};

using Table = HashTable<Node, &Node::place>;

constexpr std::size_t fewestBuckets = 8;

std::set<const Node*> visited(const Table& table, std::uint64_t hash)
{
    std::set<const Node*> nodes;
    table.visit(hash, [&](const Node& node) { EXPECT_TRUE(nodes.insert(&node).second) << "visited twice"; });
    return nodes;
}

Node* find(const Table& table, std::uint64_t hash, int key)
{
    return table.find(hash, [&](const Node& node) { return node.key == key; });
}

struct HashCase
{
    const char* name;
    std::uint64_t (*hash)(std::uint64_t number);

    friend void PrintTo(const HashCase& row, std::ostream* stream) { *stream << row.name; }
};

struct HashTableSizeTest : ::testing::TestWithParam<HashCase>
{};

struct HashTableTest : ::testing::Test
{
    Node& insert(int key, std::uint64_t hash)
    {
        nodes.emplace_back(key);
        table.insert(nodes.back(), hash);
        return nodes.back();
    }

    std::deque<Node> nodes;
    Table table;
};

}  // namespace

TEST_P(HashTableSizeTest, NumberOfBucketsFollowsTheNumberOfNodesWhateverTheirHashes)
{
    constexpr std::size_t most = 5000;
    std::deque<Node> nodes;
    Table table;

    for (std::size_t size = 1; size <= most; ++size) {
        nodes.emplace_back(static_cast<int>(size));
        table.insert(nodes.back(), GetParam().hash(size));
        ASSERT_EQ(table.size(), size);
        ASSERT_EQ(table.buckets(), std::max(size, fewestBuckets));
    }
    for (const Node& node : nodes)
        ASSERT_EQ(find(table, GetParam().hash(static_cast<std::size_t>(node.key)), node.key), &node);
    for (std::size_t size = most; size-- > 0;) {
        table.erase(nodes[size]);
        ASSERT_EQ(table.size(), size);
        ASSERT_GE(table.buckets(), std::max(size, fewestBuckets));
        ASSERT_LE(table.buckets(), std::max(2 * size + 1, fewestBuckets));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Hashes, HashTableSizeTest,
    ::testing::Values(HashCase{"Equal", [](std::uint64_t) { return std::uint64_t{0x1234567890abcdef}; }},
                      HashCase{"EqualInTheirLowBits", [](std::uint64_t number) { return number << 40 | 5; }},
                      HashCase{"EqualInTheirHighBits", [](std::uint64_t number) { return number; }},
                      HashCase{"AllBitsSet", [](std::uint64_t) { return ~std::uint64_t{0}; }},
                      HashCase{"Spread",
                               [](std::uint64_t number) { return number * 0x9e3779b97f4a7c15 >> 7; }}),
    [](const auto& row) { return row.param.name; });

TEST_F(HashTableTest, NodesOfAnotherHashAreNotVisited)
{
    const Node& one = insert(1, 5);
    const Node& other = insert(2, 5 + 8);  // in the same one of eight buckets

    EXPECT_THAT(visited(table, 5), UnorderedElementsAre(&one));
    EXPECT_THAT(visited(table, 5 + 8), UnorderedElementsAre(&other));
    EXPECT_THAT(visited(table, 5 + 16), IsEmpty());
    EXPECT_EQ(find(table, 5, 2), nullptr);
    EXPECT_EQ(find(table, 5 + 8, 2), &other);
}

TEST_F(HashTableTest, EveryNodeOfAHashIsVisited)
{
    const Node& one = insert(1, 5);
    const Node& same = insert(1, 5);
    const Node& other = insert(2, 5);

    EXPECT_THAT(visited(table, 5), UnorderedElementsAre(&one, &same, &other));
    EXPECT_EQ(find(table, 5, 2), &other);
    EXPECT_EQ(find(table, 5, 3), nullptr);
}

TEST_F(HashTableTest, NodesCanBeErasedInAnyOrderOfTheirBucket)
{
    Node& first = insert(1, 5);
    Node& second = insert(2, 5);
    Node& third = insert(3, 5);

    table.erase(second);
    EXPECT_THAT(visited(table, 5), UnorderedElementsAre(&first, &third));
    table.erase(third);
    EXPECT_THAT(visited(table, 5), UnorderedElementsAre(&first));
    table.erase(first);
    EXPECT_THAT(visited(table, 5), IsEmpty());
    table.insert(second, 6);
    EXPECT_THAT(visited(table, 6), UnorderedElementsAre(&second));
    EXPECT_THAT(visited(table, 5), IsEmpty());
}

TEST_F(HashTableTest, RandomInsertionsAndRemovalsAgreeWithAModel)
{
    constexpr int steps = 50000;
    std::mt19937 random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp) every run gets the same
    std::multimap<std::uint64_t, Node*> model;
    const auto randomHash = [&] { return std::uint64_t{random() % 700} << (random() % 3 * 20); };

    for (int step = 0; step < steps; ++step) {
        const bool isGrowing = step / 2000 % 2 == 0;  // grows and shrinks in turn
        if (model.empty() || random() % 100 < (isGrowing ? 70 : 30)) {
            const std::uint64_t hash = randomHash();
            model.emplace(hash, &insert(step, hash));
        }
        else {
            const auto from = model.lower_bound(randomHash());
            const auto erased = from == model.end() ? model.begin() : from;
            table.erase(*erased->second);
            model.erase(erased);
        }

        ASSERT_EQ(table.size(), model.size());
        const std::uint64_t hash = randomHash();
        std::set<const Node*> expected;
        for (auto [node, end] = model.equal_range(hash); node != end; ++node)
            expected.insert(node->second);
        ASSERT_EQ(visited(table, hash), expected) << "step " << step;
    }
}

TEST_F(HashTableTest, BucketsForWhichThereIsNoMemoryAreDoneWithout)
{
    constexpr int count = 2000;

    for (int i = 0; i < count; ++i) {
        nodes.emplace_back(i);
        failsAtAllocation(1, [&] { table.insert(nodes.back(), static_cast<std::uint64_t>(i)); });
    }

    EXPECT_EQ(table.size(), nodes.size());
    EXPECT_LE(table.buckets(), 64u);
    for (const Node& node : nodes)
        ASSERT_EQ(find(table, static_cast<std::uint64_t>(node.key), node.key), &node);
    const std::size_t before = table.buckets();
    insert(count, count);
    EXPECT_EQ(table.buckets(), before + 1) << "it grows as soon as it can";
    while (table.size() != 0)
        table.erase(nodes[table.size() - 1]);
    EXPECT_EQ(table.buckets(), fewestBuckets);
}

}  // namespace Nubo::ServiceDiscovery::Testing
