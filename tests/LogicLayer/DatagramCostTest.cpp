#include "LogicLayer/SDRequestHandler.h"
#include "support/CostScene.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"

#include <cctype>
#include <cstddef>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::Entry;
using ::testing::Each;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

/// `count` entries of 16 bytes, each of which refers to 30 options that are not there.
std::string entriesWithoutTheirOptions(std::size_t count)
{
    std::string entries;
    for (std::size_t i = 0; i < count; ++i)
        entries += Entry{"01", "00 10 ff"}.bytes();
    return Packets::packet(entries, "");
}

std::size_t mostFaultsOf(std::size_t size)
{
    return SDRequestHandler::mostReadingFaults + size / SDRequestHandler::bytesPerReadingFault;
}

struct DatagramCostTest : ::testing::TestWithParam<CostlyDatagram>
{};

/// The kind's name as words in one.
std::string testName(const ::testing::TestParamInfo<CostlyDatagram>& info)
{
    std::string name;
    bool isStart = true;
    for (const char* c = info.param.name; *c; ++c) {
        if (std::isalnum(static_cast<unsigned char>(*c)))
            name += isStart ? static_cast<char>(std::toupper(static_cast<unsigned char>(*c))) : *c;
        isStart = !std::isalnum(static_cast<unsigned char>(*c));
    }
    return name;
}

}  // namespace

TEST(ReadingFaultsTest, MissingOptionsAreReportedUpToTheLimitAndThenCounted)
{
    CostScene scene(Known::Nothing);
    const std::string datagram = entriesWithoutTheirOptions(4);
    const std::size_t most = mostFaultsOf(datagram.size());
    const LogCatcher log;

    scene.handle(datagram);

    ASSERT_THAT(log.warnings(), SizeIs(most + 1));
    EXPECT_EQ(log.warnings().back(), "Warning: SDRequestHandler - left out " + std::to_string(120 - most) +
                                         " further errors and warnings about a message of " +
                                         std::to_string(datagram.size()) + " Bytes.");
    EXPECT_THAT(log.errors(), SizeIs(4)) << "what the handlers say of each entry is not limited";
}

TEST(ReadingFaultsTest, EveryMissingOptionOfAnEntryIsReportedWithinTheLimit)
{
    CostScene scene(Known::Nothing);
    const LogCatcher log;

    scene.handle(Packets::packet(Entry{"01", "00 00 f0"}.bytes(), ""));

    ASSERT_THAT(log.warnings(), SizeIs(15));
    EXPECT_THAT(log.warnings(), Each(StartsWith("Warning: Cannot extract Option #")));
}

TEST(ReadingFaultsTest, LimitIsAnewForEachDatagram)
{
    CostScene scene(Known::Nothing);
    scene.handle(entriesWithoutTheirOptions(4));
    const LogCatcher log;

    scene.handle(Packets::packet(Entry{"01", "00 00 10"}.bytes(), ""));

    EXPECT_THAT(log.warnings(), SizeIs(1));
}

TEST(ReadingFaultsTest, HandlersOfEntriesAreNotLimited)
{
    CostScene scene(Known::Nothing);
    std::string entries;
    for (int i = 0; i < 50; ++i)
        entries += Entry{"01", "00 00 00"}.bytes();
    const LogCatcher log;

    scene.handle(Packets::packet(entries, ""));

    EXPECT_THAT(log.errors(), SizeIs(50));
    EXPECT_THAT(log.warnings(), Each(Not(StartsWith("Warning: SDRequestHandler - left out"))));
}

// Sanitizers slow code down, each kind differently: the bounds are three times what an optimised build keeps
// to.

TEST_P(DatagramCostTest, DatagramCostsNoMoreThanSoManyKnownOffers)
{
    CostScene scene(Known::Few);
    for (const std::size_t size : {std::size_t{128}, std::size_t{1212}, std::size_t{32000}}) {
        const std::string datagram = GetParam().make(size);
        const std::string known = knownOffers(datagram.size());
        const double reference = microsecondsToHandle(scene, known) / static_cast<double>(known.size());
        const double cost = microsecondsToHandle(scene, datagram) / static_cast<double>(datagram.size());

        EXPECT_LE(cost, 60 * reference) << size << " bytes";
    }
}

TEST_P(DatagramCostTest, DatagramLogsOneLineForEightBytesAtMost)
{
    CostScene scene(Known::Few);
    for (const std::size_t size : {std::size_t{128}, std::size_t{1212}}) {
        const std::string datagram = GetParam().make(size);
        const LogCatcher log;

        scene.handle(datagram);

        const std::size_t handled = datagram.size() / 8;  // two lines for each entry at most
        EXPECT_LE(log.errors().size() + log.warnings().size(), mostFaultsOf(datagram.size()) + handled + 1);
        scene.forget();
    }
}

TEST_P(DatagramCostTest, DatagramCostsTheSameWhateverTheUnitKnows)
{
    static CostScene few(Known::Few);
    static CostScene many(Known::Instances);
    const std::string datagram = GetParam().make(1212);
    EXPECT_LE(microsecondsToHandle(many, datagram), 9 * microsecondsToHandle(few, datagram));
}

INSTANTIATE_TEST_SUITE_P(Kinds, DatagramCostTest, ::testing::ValuesIn(costlyDatagrams()), testName);

}  // namespace Nubo::ServiceDiscovery::Testing
