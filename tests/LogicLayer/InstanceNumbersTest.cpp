#include "LogicLayer/InstanceNumbers.h"
#include "support/FailingAllocations.h"

#include <cstdint>
#include <ostream>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr std::uint16_t last = 0xFFFE;

InstanceNumbers numbersOf(const std::vector<std::uint16_t>& values)
{
    InstanceNumbers numbers;
    for (const std::uint16_t value : values)
        numbers.insert(value);
    return numbers;
}

std::vector<std::uint16_t> upTo(std::uint16_t highest)
{
    std::vector<std::uint16_t> values;
    for (std::uint32_t value = 1; value <= highest; ++value)
        values.push_back(static_cast<std::uint16_t>(value));
    return values;
}

struct NumbersCase
{
    const char* name;
    std::vector<std::uint16_t> numbers;
    std::uint16_t highest;
    std::uint16_t lowestFree;

    friend void PrintTo(const NumbersCase& row, std::ostream* stream) { *stream << row.name; }
};

struct InstanceNumbersTest : ::testing::TestWithParam<NumbersCase>
{};

}  // namespace

TEST_P(InstanceNumbersTest, HighestAndLowestFreeNumberAreKnown)
{
    const InstanceNumbers numbers = numbersOf(GetParam().numbers);

    EXPECT_EQ(numbers.size(), GetParam().numbers.size());
    EXPECT_EQ(numbers.highest(), GetParam().highest);
    EXPECT_EQ(numbers.lowestFree(last), GetParam().lowestFree);
}

INSTANTIATE_TEST_SUITE_P(Numbers, InstanceNumbersTest,
                         ::testing::Values(NumbersCase{"None", {}, 0, 1}, NumbersCase{"One", {1}, 1, 2},
                                           NumbersCase{"Zero", {0}, 0, 1}, NumbersCase{"Gap", {3, 1}, 3, 2},
                                           NumbersCase{"GapAtTheBegin", {2, 3}, 3, 1},
                                           NumbersCase{"Twice", {2, 1, 2, 1}, 2, 3},
                                           NumbersCase{"ZeroAndMore", {0, 0, 1, 2}, 2, 3},
                                           NumbersCase{"Reserved", {0xFFFF}, 0xFFFF, 1},
                                           NumbersCase{"LastIsFree", upTo(0xFFFD), 0xFFFD, 0xFFFE},
                                           NumbersCase{"NoneIsFree", upTo(0xFFFE), 0xFFFE, 0},
                                           NumbersCase{"NotEvenTheReservedOne", upTo(0xFFFF), 0xFFFF, 0}),
                         [](const auto& row) { return row.param.name; });

TEST(InstanceNumbersErasureTest, NumberThatIsUsedTwiceStaysInUseWhenOneGoes)
{
    InstanceNumbers numbers = numbersOf({1, 2, 2});

    numbers.erase(2);
    EXPECT_EQ(numbers.highest(), 2);
    EXPECT_EQ(numbers.lowestFree(last), 3);

    numbers.erase(2);
    EXPECT_EQ(numbers.highest(), 1);
    EXPECT_EQ(numbers.lowestFree(last), 2);
}

TEST(InstanceNumbersErasureTest, RandomChangesAgreeWithAModel)
{
    std::mt19937 random(4);  // NOLINT(cert-msc32-c,cert-msc51-cpp) every run gets the same
    InstanceNumbers numbers;
    std::multiset<std::uint16_t> model;

    for (int step = 0; step < 20000; ++step) {
        const auto number = static_cast<std::uint16_t>(random() % 60);
        const auto known = model.find(number);
        if (known == model.end() || random() % 2 == 0) {
            numbers.insert(number);
            model.insert(number);
        }
        else {
            numbers.erase(number);
            model.erase(known);
        }

        std::uint16_t free = 1;
        while (model.count(free) != 0)
            ++free;
        ASSERT_EQ(numbers.size(), model.size());
        ASSERT_EQ(numbers.highest(), model.empty() ? 0 : *model.rbegin());
        ASSERT_EQ(numbers.lowestFree(50), free <= 50 ? free : 0) << "step " << step;
    }
}

TEST(InstanceNumbersMemoryTest, InsertionAllocatesNothingWhenThereIsRoomForOne)
{
    InstanceNumbers numbers;
    for (std::uint16_t number = 1; number < 1000; ++number) {
        numbers.reserveOne();
        EXPECT_FALSE(failsAtAllocation(1, [&] { numbers.insert(number); })) << "at " << number;
    }

    EXPECT_EQ(numbers.size(), 999u);
}

TEST(InstanceNumbersMemoryTest, NumbersStayWhenThereIsNoMemoryForRoom)
{
    InstanceNumbers numbers = numbersOf({1, 2, 3});
    const auto reserve = [&] {
        while (numbers.size() < 100) {
            numbers.reserveOne();
            numbers.insert(7);
        }
    };

    EXPECT_TRUE(failsAtAllocation(1, reserve));

    EXPECT_EQ(numbers.highest(), numbers.size() == 3 ? 3 : 7);
    EXPECT_LT(numbers.size(), 100u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
