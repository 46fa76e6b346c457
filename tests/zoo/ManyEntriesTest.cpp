#include "support/Packets.h"
#include "zoo/Engine.h"
#include "zoo/LogLimit.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <time.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

/// A kind of entry, and the options that all entries of the datagram refer to.
struct EntryCase
{
    const char* name;
    const char* type;
    const char* runs;
    std::string options;
    const char* ttl = "00 00 78";

    friend void PrintTo(const EntryCase& row, std::ostream* stream) { *stream << row.name; }
};

Multicast::MulticastDataPtr datagramOf(std::size_t entries, const EntryCase& row)
{
    const Packets::Entry entry{row.type, row.runs, "00 01", row.ttl};
    std::string all;
    for (std::size_t i = 0; i < entries; ++i)
        all += entry.bytes();
    return Packets::datagram(Packets::packet(all, row.options));
}

std::string thirtyOptions()
{
    std::string options = Packets::ipv6Option() + Packets::offerConfiguration("Media");
    for (int i = 2; i < 30; ++i)
        options += Packets::loadBalancingOption();
    return options;
}

/// Processor time of the calling thread.
Milliseconds threadTime()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

struct ManyEntriesTest : ::testing::TestWithParam<EntryCase>
{
    ManyEntriesTest() { engine.announceLocal(); }

    /// The shortest of several measurements.
    Milliseconds timeToHandle(std::size_t entries, const EntryCase& row = GetParam())
    {
        const Multicast::MulticastDataPtr datagram = datagramOf(entries, row);
        Milliseconds least = Milliseconds::max();
        for (int i = 0; i < 7; ++i) {
            const Milliseconds start = threadTime();
            engine.handle(datagram);
            least = std::min(least, threadTime() - start);
        }
        return least;
    }

    const LogLimit silence{LogLimit::none};
    Engine engine;
};

/// A configuration with `room` bytes of repetitions of one text.
std::string fullConfiguration(const std::string& name, const std::string& repeatedText,
                              std::size_t room = 1200)
{
    std::vector<std::string> texts{"l6proto=nubo", "otherserv=" + name, "txtvers=1", "version=1.0.0"};
    texts.resize(texts.size() + room / (repeatedText.size() + 1), repeatedText);
    return Packets::configurationOption(texts);
}

const std::string searchedLocal = Packets::configurationOption({"otherserv=Local"});
const std::string searchedNobody = Packets::configurationOption({"otherserv=Nobody"});

}  // namespace

/// The cost of a datagram of up to 64 kB must grow only in proportion to the number of its entries.
TEST_P(ManyEntriesTest, CostWhatEachOfThemCosts)
{
    const Milliseconds few = timeToHandle(400);
    Milliseconds many = timeToHandle(4000);
    for (int i = 0; i < 3 && many / few >= 15; ++i)  // other processes can evict the caches
        many = std::min(many, timeToHandle(4000));

    RecordProperty("milliseconds", std::to_string(many.count()));
    EXPECT_LT(many / few, 15) << "4000 entries take " << many.count() << " ms, 400 take " << few.count();
}

using LargeConfigurationTest = ManyEntriesTest;

/// In a datagram of 64 kB, one half can be a single configuration to which every entry in the other half
/// refers.
TEST_P(LargeConfigurationTest, IsNotReadForEachEntryThatRefersToIt)
{
    const EntryCase& row = GetParam();
    const std::string repeatedText = row.options;
    const auto withConfiguration = [&](std::size_t room) {
        const bool isOffer = std::string(row.type) == "01";
        const std::string name = isOffer ? "Media" : "Nobody";
        return EntryCase{row.name, row.type, row.runs,
                         Packets::ipv6Option() + fullConfiguration(name, repeatedText, room), row.ttl};
    };
    const Milliseconds parsing = timeToHandle(1, withConfiguration(30000));
    const Milliseconds small = timeToHandle(2000, withConfiguration(100));
    const Milliseconds large = timeToHandle(2000, withConfiguration(30000));

    RecordProperty("milliseconds", std::to_string(large.count()));
    EXPECT_LT(large / (parsing + small), 3)
        << "2000 entries take " << large.count() << " ms, " << small.count()
        << " with a small configuration, that takes " << parsing.count();
}

INSTANTIATE_TEST_SUITE_P(
    Texts, LargeConfigurationTest,
    ::testing::Values(EntryCase{"OffersOfManyVersions", "01", "00 01 11", "version=1"},
                      EntryCase{"StopOffersOfManyVersions", "01", "00 01 11", "version", "00 00 00"},
                      EntryCase{"OffersOfManyCategories", "01", "00 01 11", "category"},
                      EntryCase{"OffersOfManyProtocols", "01", "00 01 11", "l6proto"},
                      EntryCase{"SearchesForManyNames", "00", "00 01 01", "otherserv=x"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Kinds, ManyEntriesTest,
    ::testing::Values(
        EntryCase{"Offers", "01", "00 01 11", Packets::ipv6Option() + Packets::offerConfiguration("Media")},
        EntryCase{"OffersWithAllOptionsTheyCanHave", "01", "00 0f ff", thirtyOptions()},
        EntryCase{"OffersWithTheSameOptionThirtyTimes", "01", "00 00 ff", thirtyOptions()},
        EntryCase{"OffersOfOptionsThatAreNotThere", "01", "ff ff ff", ""},
        EntryCase{"OffersOfManyVersions", "01", "00 01 11",
                  Packets::ipv6Option() + fullConfiguration("Media", "version")},
        EntryCase{"OffersOfManyCategories", "01", "00 01 11",
                  Packets::ipv6Option() + fullConfiguration("Media", "category")},
        EntryCase{"OffersOfManyProtocols", "01", "00 01 11",
                  Packets::ipv6Option() + fullConfiguration("Media", "l6proto")},
        EntryCase{"SearchesForManyNames", "00", "00 00 01", fullConfiguration("Nobody", "otherserv=x")},
        EntryCase{"SearchesForAServiceOfTheUnit", "00", "00 00 01", searchedLocal},
        EntryCase{"SearchesForNobody", "00", "00 00 01", searchedNobody},
        EntryCase{"SearchesWithAllOptionsTheyCanHave", "00", "00 0f ff", thirtyOptions()},
        EntryCase{"SubscriptionsWithAllOptionsTheyCanHave", "06", "00 0f ff", thirtyOptions()}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
