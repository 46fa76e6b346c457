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
using ::testing::Contains;
using ::testing::Each;
using ::testing::Ge;
using ::testing::Le;
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

constexpr std::size_t mostMissingOptions(std::size_t size)
{
    return 14 + size / 10;
}

constexpr std::size_t mostReadingFaults(std::size_t size)
{
    return 16 + size / 4;
}

struct DatagramCostTest : ::testing::TestWithParam<CostlyDatagram>
{};

/// The kind's name, without the blanks between its words.
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
    const std::size_t most = mostMissingOptions(datagram.size());
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

TEST(ReadingFaultsTest, ReadingReportsAFaultForEveryFourBytesAndCountsTheOthers)
{
    CostScene scene(Known::Nothing);
    std::string options;
    for (int i = 0; i < 100; ++i)
        options += "00 04 01 00 01 01 00"_bytes;  // a configuration that is refused, with three lines
    const std::string datagram = Packets::packet(Entry{}.bytes(), options);
    const std::size_t most = mostReadingFaults(datagram.size());
    const LogCatcher log;

    scene.handle(datagram);

    EXPECT_THAT(log.complaints(), SizeIs(Ge(most)));
    EXPECT_THAT(log.complaints(), SizeIs(Le(most + 3)));
    EXPECT_THAT(log.warnings(), Contains(StartsWith("Warning: SDRequestHandler - left out ")));
}

TEST(ReadingFaultsTest, EveryOptionOfAnUnknownTypeIsReported)
{
    CostScene scene(Known::Nothing);
    std::string options;
    for (int i = 0; i < 1000; ++i)
        options += "00 01 77 00"_bytes;
    const LogCatcher log;

    scene.handle(Packets::packet(Entry{}.bytes(), options));

    EXPECT_EQ(log.count("Error: Failed to deserialise Option due to unknown type 0x'77'! (Adding placeholder "
                        "instead.)"),
              1000u);
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

TEST(StateCostTest, NoKindOfDatagramCostsMuchMoreForWhatTheUnitKnows)
{
    CostScene few(Known::Few);
    CostScene many(Known::Instances);
    for (const CostlyDatagram& kind : costlyDatagrams()) {
        const std::string datagram = kind.make(1212);

        const double cost = microsecondsToHandle(few, datagram, 3);

        EXPECT_LE(microsecondsToHandle(many, datagram, 3), 9 * cost) << kind.name;
    }
}

// Sanitizers slow code down, each to a different degree: the bounds are three times those of an optimised
// build.

TEST_P(DatagramCostTest, DatagramCostsNoMoreThanSoManyKnownOffers)
{
    CostScene scene(Known::Few);
    for (const std::size_t size : {std::size_t{128}, std::size_t{1212}, std::size_t{8000}}) {
        const std::string datagram = GetParam().make(size);
        const std::string known = knownOffers(datagram.size());
        const double reference = microsecondsToHandle(scene, known, 3) / static_cast<double>(known.size());
        const double cost = microsecondsToHandle(scene, datagram, 3) / static_cast<double>(datagram.size());

        EXPECT_LE(cost, 60 * reference) << size << " bytes";
    }
}

TEST_P(DatagramCostTest, DatagramLogsSoManyLinesAtMost)
{
    CostScene scene(Known::Few);
    for (const std::size_t size : {std::size_t{128}, std::size_t{1212}}) {
        const std::string datagram = GetParam().make(size);
        const LogCatcher log;

        scene.handle(datagram);

        const std::size_t handled = datagram.size() / 8;  // two lines for each entry at most
        EXPECT_LE(log.complaints().size(),
                  mostReadingFaults(datagram.size()) + mostMissingOptions(datagram.size()) + handled + 1);
        scene.forget();
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, DatagramCostTest, ::testing::ValuesIn(costlyDatagrams()), testName);

}  // namespace Nubo::ServiceDiscovery::Testing
