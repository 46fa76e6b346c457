#include "LogicLayer/IntrusiveList.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <list>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct Node
{
    int number = 0;
    ListLink<Node> inOne;
    ListLink<Node> inOther;
};

using One = IntrusiveList<Node, &Node::inOne>;
using Other = IntrusiveList<Node, &Node::inOther>;

/// The numbers from front to back.
template <class List>
std::vector<int> numbers(const List& list)
{
    std::vector<int> result;
    for (const Node& node : list)
        result.push_back(node.number);
    return result;
}

struct IntrusiveListTest : ::testing::Test
{
    IntrusiveListTest()
    {
        for (std::size_t i = 0; i < nodes.size(); ++i)
            nodes[i].number = static_cast<int>(i);
    }

    void fill()
    {
        for (Node& node : nodes)
            list.pushBack(node);
    }

    std::array<Node, 4> nodes;
    One list;
};

}  // namespace

TEST_F(IntrusiveListTest, NewListIsEmpty)
{
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.begin(), list.end());
    EXPECT_EQ(list.front(), nullptr);
    EXPECT_EQ(list.back(), nullptr);
}

TEST_F(IntrusiveListTest, NodesAreInTheOrderInWhichTheyWereAdded)
{
    fill();

    EXPECT_THAT(numbers(list), ElementsAre(0, 1, 2, 3));
    EXPECT_FALSE(list.empty());
    EXPECT_EQ(list.front(), &nodes[0]);
    EXPECT_EQ(list.back(), &nodes[3]);
    EXPECT_EQ(One::next(nodes[0]), &nodes[1]);
    EXPECT_EQ(One::next(nodes[3]), nullptr);
}

TEST_F(IntrusiveListTest, IteratorsCanBeSteppedBothWays)
{
    fill();

    auto position = list.begin();

    EXPECT_EQ((position++)->number, 0);
    EXPECT_EQ((*position).number, 1);
    EXPECT_EQ((++position)->number, 2);
    EXPECT_NE(position, list.begin());
}

TEST_F(IntrusiveListTest, FirstMiddleAndLastNodeCanBeErased)
{
    fill();

    list.erase(nodes[1]);
    EXPECT_THAT(numbers(list), ElementsAre(0, 2, 3));
    list.erase(nodes[0]);
    EXPECT_EQ(list.front(), &nodes[2]);
    list.erase(nodes[3]);
    EXPECT_EQ(list.back(), &nodes[2]);
    list.erase(nodes[2]);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.back(), nullptr);
}

TEST_F(IntrusiveListTest, ErasedNodeCanBeAddedAgain)
{
    fill();

    list.erase(nodes[1]);
    list.pushBack(nodes[1]);

    EXPECT_THAT(numbers(list), ElementsAre(0, 2, 3, 1));
}

TEST_F(IntrusiveListTest, NodeMovesToTheBack)
{
    fill();

    list.moveToBack(nodes[0]);
    EXPECT_THAT(numbers(list), ElementsAre(1, 2, 3, 0));
    list.moveToBack(nodes[2]);
    EXPECT_THAT(numbers(list), ElementsAre(1, 3, 0, 2));
    list.moveToBack(nodes[2]);
    EXPECT_THAT(numbers(list), ElementsAre(1, 3, 0, 2));
    EXPECT_EQ(list.back(), &nodes[2]);
}

TEST_F(IntrusiveListTest, OnlyNodeThatMovesToTheBackStays)
{
    list.pushBack(nodes[0]);

    list.moveToBack(nodes[0]);

    EXPECT_THAT(numbers(list), ElementsAre(0));
    EXPECT_EQ(list.front(), &nodes[0]);
}

TEST_F(IntrusiveListTest, NodeCanBeInTwoListsAtOnce)
{
    Other other;
    fill();
    other.pushBack(nodes[2]);
    other.pushBack(nodes[1]);

    list.erase(nodes[1]);

    EXPECT_THAT(numbers(list), ElementsAre(0, 2, 3));
    EXPECT_THAT(numbers(other), ElementsAre(2, 1));
}

TEST_F(IntrusiveListTest, RandomChangesAgreeWithAModel)
{
    std::mt19937 random(3);  // NOLINT(cert-msc32-c,cert-msc51-cpp) every run gets the same
    std::list<int> model;

    for (int step = 0; step < 5000; ++step) {
        Node& node = nodes[random() % nodes.size()];
        const auto known = std::find(model.begin(), model.end(), node.number);
        if (known == model.end()) {
            list.pushBack(node);
            model.push_back(node.number);
        }
        else if (random() % 2 == 0) {
            list.erase(node);
            model.erase(known);
        }
        else {
            list.moveToBack(node);
            model.splice(model.end(), model, known);
        }

        ASSERT_EQ(numbers(list), std::vector<int>(model.begin(), model.end())) << "step " << step;
        ASSERT_EQ(list.empty(), model.empty());
        ASSERT_EQ(list.back() ? list.back()->number : -1, model.empty() ? -1 : model.back());
    }
}

}  // namespace Nubo::ServiceDiscovery::Testing
