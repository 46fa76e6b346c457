#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/Workload.h"
#include "support/CollidingNames.h"
#include "support/FailingAllocations.h"
#include "support/OfferedRecords.h"
#include "support/PlantedHash.h"
#include "support/Process.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <iterator>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Entry = WorkloadEntry;
using State = SDService::State;
using Type = SDService::Type;
using Milliseconds = std::chrono::duration<double, std::milli>;

namespace {

struct Store
{
    RecordIndex index;
    AperiodicWorkload aperiodic{index};
    PeriodicWorkload periodic{index};

    /// The results of all look-ups.
    std::string picture() const
    {
        std::ostringstream text;
        text << aperiodic.size() << " aperiodic, " << periodic.size() << " periodic, "
             << periodic.localCount() << " local; index: " << index.size() << ", " << index.answers()
             << " answers, " << index.discovered() << " discovered with " << index.discoveredText()
             << " bytes, stalest " << index.stalest();
        for (std::uint32_t number = 1; number < 5; ++number) {
            if (const Sender* const sender = index.find(unit(number)))
                text << "; sender " << number << ": " << sender->records << " with " << sender->text;
        }
        for (const std::string name : {"Media", "Navi"}) {
            if (const NameEntries* const entries = index.find(name))
                text << "; " << name << pictureOf(*entries);
        }
        return text.str();
    }

    std::string pictureOf(const NameEntries& name) const
    {
        std::ostringstream text;
        text << ": " << name.entries << " entries, " << name.discoveredCount << " discovered, "
             << name.unexpected << " unexpected, own " << name.ownNumbers().size();
        for (const std::uint16_t serviceID : std::array<std::uint16_t, 3>{0xfffe, 0x1111, 0x2222})
            text << ", " << name.count(serviceID) << " of " << serviceID << " up to "
                 << name.highestInstance(serviceID);
        for (std::uint32_t number = 1; number < 5; ++number) {
            if (const Sender* const sender = index.find(unit(number)))
                text << ", sender " << number << ": " << name.discoveredOf(sender);
        }
        return text.str();
    }
};

SDService::Ptr withServiceID(SDService::Ptr record, unsigned short serviceID)
{
    record->setServiceId(serviceID);
    return record;
}

SDService::Ptr answer()
{
    SDService::Ptr record = makeDiscovered("Media");
    record->setType(Type::ANNOUNCED);
    record->setState(State::ONCE);
    return record;
}

SDService::Ptr search()
{
    SDService::Ptr record = makeDiscovered("Media");
    record->setType(Type::WANTED);
    return record;
}

/// A record that is inserted into a store that knows others.
struct InsertionCase
{
    const char* name;
    SDService::Ptr (*record)();
    Entry::Workload workload;
    void (*fill)(Store& store);

    friend void PrintTo(const InsertionCase& row, std::ostream* stream) { *stream << row.name; }
};

struct RecordIndexMemoryTest : ::testing::TestWithParam<InsertionCase>
{
    void insert(const SDService::Ptr& record)
    {
        if (GetParam().workload == Entry::Workload::Periodic)
            store.periodic.push_back(record);
        else
            store.aperiodic.emplace(Poco::Clock(1), record);
    }
    bool erase(const SDService::Ptr& record)
    {
        return GetParam().workload == Entry::Workload::Periodic ? store.periodic.erase(record)
                                                                : store.aperiodic.erase(record);
    }

    Store store;
};

void fillNothing(Store& /*store*/) {}

void fillOne(Store& store)
{
    store.periodic.push_back(makeDiscovered("Media", 1, 1));
}

void fillSeveral(Store& store)
{
    store.periodic.push_back(makeDiscovered("Media", 1, 1, 1));
    store.periodic.push_back(withServiceID(makeDiscovered("Media", 2, 1, 2), 0x1111));
    store.periodic.push_back(makeDiscovered("Navi", 3, 2, 1));
}

/// As many records as fit into the lists of numbers and into the first block of each table.
void fillMany(Store& store)
{
    for (unsigned short port = 1; port <= 64; ++port) {
        SDService::Ptr record = makeDiscovered("Media", port, port + 100U, port);
        record->setLocalUuid("uuid");
        store.periodic.push_back(withServiceID(record, 0x1111));
        store.periodic.push_back(makeDiscovered("Navi" + std::to_string(port), 1, port + 200U));
    }
}

}  // namespace

TEST_P(RecordIndexMemoryTest, RecordForWhichThereIsNoMemoryChangesNothing)
{
    GetParam().fill(store);
    const std::string before = store.picture();
    const SDService::Ptr record = GetParam().record();
    std::size_t refused = 0;

    // The index does without a bucket if memory for it is short: not every failed allocation fails the
    // insertion.
    for (std::size_t n = 1; failsAtAllocation(n, [&] { insert(record); }); ++n) {
        if (!erase(record))
            ++refused;
        ASSERT_EQ(store.picture(), before) << "allocation " << n;
    }

    EXPECT_GT(refused, 0u);
    EXPECT_TRUE(erase(record)) << "in the end there was enough";
    EXPECT_EQ(store.picture(), before);
    insert(record);
    EXPECT_NE(store.picture(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Records, RecordIndexMemoryTest,
    ::testing::Values(InsertionCase{"FirstOfAll", [] { return makeDiscovered("Media"); },
                                    Entry::Workload::Periodic, fillNothing},
                      InsertionCase{"SecondOfItsName", [] { return makeDiscovered("Media", 7, 2, 2); },
                                    Entry::Workload::Periodic, fillOne},
                      InsertionCase{"SecondOfItsNameAndSender",
                                    [] { return makeDiscovered("Media", 7, 1, 2); },
                                    Entry::Workload::Periodic, fillOne},
                      InsertionCase{"SecondOfItsNameUnderANumber",
                                    [] { return withServiceID(makeDiscovered("Media", 7, 1, 2), 0x1111); },
                                    Entry::Workload::Periodic, fillOne},
                      InsertionCase{"ThirdUnderANewNumberOfANewSender",
                                    [] { return withServiceID(makeDiscovered("Media", 7, 3, 3), 0x2222); },
                                    Entry::Workload::Periodic, fillSeveral},
                      InsertionCase{"ThirdUnderAKnownNumber",
                                    [] { return withServiceID(makeDiscovered("Media", 7, 1, 3), 0x1111); },
                                    Entry::Workload::Periodic, fillSeveral},
                      InsertionCase{"OneOfManyWithAnIdentifier",
                                    [] {
                                        SDService::Ptr record =
                                            withServiceID(makeDiscovered("Media", 70, 4, 70), 0x1111);
                                        record->setLocalUuid("uuid");
                                        return record;
                                    },
                                    Entry::Workload::Periodic, fillMany},
                      InsertionCase{"FirstOfItsNameBesideMany", [] { return makeDiscovered("Radio", 70, 4); },
                                    Entry::Workload::Periodic, fillMany},
                      InsertionCase{"Answer", answer, Entry::Workload::Aperiodic, fillSeveral},
                      InsertionCase{"Search", search, Entry::Workload::Aperiodic, fillSeveral},
                      InsertionCase{"FirstSearch", search, Entry::Workload::Aperiodic, fillNothing}),
    [](const auto& row) { return row.param.name; });

TEST(RecordIndexChurnTest, HundredThousandInstancesOfANameThatComeAndGoLeaveNothingBehind)
{
    constexpr std::size_t count = 100000;
    constexpr std::size_t mostAtOnce = 4096;
    Store store;
    std::deque<Entry*> known;
    std::mt19937 random(5);  // NOLINT(cert-msc32-c,cert-msc51-cpp) every run gets the same
    const std::string before = store.picture();
    const std::size_t memoryBefore = heapInUse();

    for (std::size_t i = 0; i < count; ++i) {
        if (known.size() == mostAtOnce) {
            std::swap(known.front(), known[random() % known.size()]);
            store.periodic.erase(*known.front());
            known.pop_front();
        }
        const auto sender = static_cast<std::uint32_t>(i / 2);
        known.push_back(&store.periodic.push_back(withServiceID(
            makeDiscovered("Media", static_cast<unsigned short>(i), sender, static_cast<unsigned short>(i)),
            static_cast<unsigned short>(i % 3000))));
    }
    const std::size_t memoryAtMost = heapInUse();
    while (!known.empty()) {
        store.periodic.erase(*known.front());
        known.pop_front();
    }

    EXPECT_EQ(store.picture(), before);
    constexpr std::size_t slack = 64 * 1024;  // memory that the containers keep
    EXPECT_LT(heapInUse(), memoryBefore + slack);
    EXPECT_GT(memoryAtMost, memoryBefore + mostAtOnce * sizeof(Entry));
}

TEST(AperiodicWorkloadMemoryTest, AnotherTimeNeedsNoMemory)
{
    Store store;
    store.aperiodic.emplace(Poco::Clock(1), answer());
    Entry& first = store.aperiodic.begin()->second;
    store.aperiodic.emplace(Poco::Clock(2), answer());

    EXPECT_FALSE(failsAtAllocation(1, [&] { store.aperiodic.reschedule(first, Poco::Clock(3)); }));

    EXPECT_EQ(store.aperiodic.size(), 2u);
    EXPECT_EQ(&std::next(store.aperiodic.begin())->second, &first);
}

namespace {

/// Many records with keys that a neighbour has chosen.
struct ChosenKeysCase
{
    const char* name;
    std::vector<SDService::Ptr> (*records)();

    friend void PrintTo(const ChosenKeysCase& row, std::ostream* stream) { *stream << row.name; }
};

struct ChosenKeysTest : ::testing::TestWithParam<ChosenKeysCase>
{};

/// As many records as can be known, and as many of each name as allowed.
std::vector<SDService::Ptr> fullNames()
{
    std::vector<SDService::Ptr> records;
    for (std::uint32_t i = 0; i < 131072; ++i) {
        if (i % 16 == 0)  // records take long to make
            records.push_back(makeDiscovered("Media" + std::to_string(i / 4096),
                                             static_cast<unsigned short>(i), i % 1000 + 1,
                                             static_cast<unsigned short>(i % 4096)));
        else
            records.push_back(records.back());
    }
    return records;
}

std::vector<SDService::Ptr> eachOfItsName(const std::vector<std::string>& names)
{
    std::vector<SDService::Ptr> records;
    for (const std::string& name : names)
        records.push_back(makeDiscovered(name));
    return records;
}

std::vector<std::string> ordinaryNames(std::size_t count)
{
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i)
        names.push_back("OrdinaryName" + std::to_string(1000 + i));
    return names;
}

struct Cost
{
    std::size_t memory;
    Milliseconds time;
};

/// Memory and processor time that inserting the records takes.
Cost costOf(const std::vector<SDService::Ptr>& records)
{
    const std::size_t memoryBefore = heapInUse();
    const std::clock_t begin = std::clock();  // processor time
    Store store;
    for (const SDService::Ptr& record : records)
        store.periodic.push_back(record);
    const Milliseconds time{1e3 * static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC};
    return {heapInUse() - memoryBefore, time};
}

}  // namespace

TEST_P(ChosenKeysTest, EqualHashesTakeAtMostHalfAsMuchMemoryMore)
{
    const std::vector<SDService::Ptr> records = GetParam().records();
    const Cost spread = costOf(records);
    const PlantedHash planted([](const void*, std::size_t) { return std::uint64_t{42}; });

    const Cost equal = costOf(records);

    EXPECT_LE(equal.memory, spread.memory * 3 / 2);
    EXPECT_GE(spread.memory, records.size() * sizeof(Entry)) << "the measurement itself";
}

INSTANTIATE_TEST_SUITE_P(Records, ChosenKeysTest,
                         ::testing::Values(ChosenKeysCase{"FullNames", fullNames},
                                           ChosenKeysCase{"EachOfItsName",
                                                          [] { return eachOfItsName(ordinaryNames(4096)); }}),
                         [](const auto& row) { return row.param.name; });

TEST(CollidingNamesTest, CostNoMoreThanOthers)
{
    constexpr std::size_t count = 9000;
    const std::vector<SDService::Ptr> chosen = eachOfItsName(collidingNames(count));
    const std::vector<SDService::Ptr> others = eachOfItsName(ordinaryNames(count));
    Cost ofChosen = costOf(chosen);
    Cost ofOthers = costOf(others);

    for (int run = 0; run < 4; ++run) {  // other programs may disturb one run
        ofChosen.time = std::min(ofChosen.time, costOf(chosen).time);
        ofOthers.time = std::min(ofOthers.time, costOf(others).time);
    }

    EXPECT_LE(ofChosen.memory, ofOthers.memory * 3 / 2);
    EXPECT_LE(ofChosen.time.count(), 5 * ofOthers.time.count());
}

}  // namespace Nubo::ServiceDiscovery::Testing
