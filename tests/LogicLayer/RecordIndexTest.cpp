#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/Workload.h"
#include "support/OfferedRecords.h"
#include "support/PlantedHash.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Entry = WorkloadEntry;
using State = SDService::State;
using Type = SDService::Type;
using ::testing::SizeIs;

namespace {

constexpr std::array<std::uint16_t, 4> serviceIDs{0xfffe, 0xffff, 0x1111, 0x2222};
constexpr std::uint32_t senders = 4;  // the unknown one among them

std::string nameOf(const SDService::Ptr& record)
{
    return record->getNuboDescription().getName();
}

/// Looks everything up by walks over a list of all records.
class Model
{
public:
    struct Known
    {
        Entry* entry;
        std::uint64_t order;  // of insertion, or of the last other time
        std::uint64_t renewed;
    };

    void insert(Entry& entry)
    {
        ++m_time;
        m_known.push_back({&entry, m_time, m_time});
    }
    void erase(const Entry& entry)
    {
        m_known.erase(std::find_if(m_known.begin(), m_known.end(), isOf(entry)));
    }
    void reschedule(const Entry& entry) { find(entry).order = ++m_time; }
    void renew(const Entry& entry) { find(entry).renewed = ++m_time; }

    std::size_t size() const { return m_known.size(); }
    Entry& entry(std::size_t number) const { return *m_known[number % m_known.size()].entry; }

    template <class Predicate>
    std::size_t count(Predicate predicate) const
    {
        return static_cast<std::size_t>(std::count_if(
            m_known.begin(), m_known.end(), [&](const Known& known) { return predicate(*known.entry); }));
    }

    /// In the order of the workload.
    template <class Predicate>
    std::vector<Entry*> findAll(Entry::Workload workload, Predicate predicate) const
    {
        return sorted(workload == Entry::Workload::Aperiodic ? byDueTime : byInsertion,
                      [&](const Entry& entry) { return entry.workload == workload && predicate(entry); });
    }

    /// The discovered ones in the order of their last offers.
    template <class Predicate>
    std::vector<Entry*> discovered(Predicate predicate) const
    {
        return sorted(
            [](const Known& one, const Known& other) { return one.renewed < other.renewed; },
            [&](const Entry& entry) { return entry.role == Entry::Role::Discovered && predicate(entry); });
    }

private:
    static bool byInsertion(const Known& one, const Known& other) { return one.order < other.order; }
    static bool byDueTime(const Known& one, const Known& other)
    {
        return std::make_pair(one.entry->due, one.order) < std::make_pair(other.entry->due, other.order);
    }

    static std::function<bool(const Known&)> isOf(const Entry& entry)
    {
        return [&](const Known& known) { return known.entry == &entry; };
    }
    Known& find(const Entry& entry) { return *std::find_if(m_known.begin(), m_known.end(), isOf(entry)); }

    template <class Order, class Predicate>
    std::vector<Entry*> sorted(Order order, Predicate predicate) const
    {
        std::vector<Known> matches;
        std::copy_if(m_known.begin(), m_known.end(), std::back_inserter(matches),
                     [&](const Known& known) { return predicate(*known.entry); });
        std::sort(matches.begin(), matches.end(), order);
        std::vector<Entry*> entries;
        for (const Known& match : matches)
            entries.push_back(match.entry);
        return entries;
    }

    std::vector<Known> m_known;
    std::uint64_t m_time = 0;
};

struct Kind
{
    Entry::Workload workload;
    Type::Type_t type;
    State::State_t state;
};

/// Every kind of record that a workload can hold, including those that do not belong there.
constexpr std::array<Kind, 12> kinds{
    {{Entry::Workload::Aperiodic, Type::ANNOUNCED, State::INITIAL_WAIT_PHASE},
     {Entry::Workload::Aperiodic, Type::ANNOUNCED, State::REPETITION_PHASE},
     {Entry::Workload::Aperiodic, Type::ANNOUNCED, State::ONCE},
     {Entry::Workload::Aperiodic, Type::WANTED, State::INITIAL_WAIT_PHASE},
     {Entry::Workload::Aperiodic, Type::DISCOVERED, State::MAIN_PHASE},
     {Entry::Workload::Periodic, Type::ANNOUNCED, State::MAIN_PHASE},
     {Entry::Workload::Periodic, Type::ANNOUNCED, State::SHUTDOWN_PHASE},
     {Entry::Workload::Periodic, Type::WANTED, State::INITIAL_WAIT_PHASE},
     {Entry::Workload::Periodic, Type::DISCOVERED, State::SHUTDOWN_PHASE},
     {Entry::Workload::Periodic, Type::DISCOVERED, State::MAIN_PHASE},
     {Entry::Workload::Periodic, Type::DISCOVERED, State::MAIN_PHASE},
     {Entry::Workload::Periodic, Type::DISCOVERED, State::MAIN_PHASE}}};

struct HashFunctionCase
{
    const char* name;
    KeyedHash::Function function;  // null for the keyed one

    friend void PrintTo(const HashFunctionCase& row, std::ostream* stream) { *stream << row.name; }
};

/// Changes both workloads at random and compares the index with a model after each change.
class RecordIndexModelTest : public ::testing::TestWithParam<HashFunctionCase>
{
protected:
    std::size_t upTo(std::size_t count) { return m_random() % count; }

    SDService::Ptr randomRecord(const Kind& kind)
    {
        SDService::Ptr record =
            makeOffer("Service" + std::to_string(upTo(4)), static_cast<unsigned short>(upTo(3)),
                      static_cast<std::uint32_t>(upTo(senders)));
        record->setType(kind.type);
        record->setState(kind.state);
        record->setServiceId(serviceIDs[upTo(serviceIDs.size())]);
        record->setInstanceId(static_cast<unsigned short>(upTo(6)));
        record->setLocalUuid(randomUuid());
        return record;
    }
    std::string randomUuid()
    {
        const std::size_t number = upTo(5);
        return number == 0 ? "" : std::string(number, 'u');
    }

    void insert(const SDService::Ptr& record, Entry::Workload workload)
    {
        if (workload == Entry::Workload::Periodic)
            m_model.insert(m_periodic.push_back(record));
        else
            m_model.insert(m_aperiodic.emplace(randomTime(), record)->second);
    }
    Poco::Clock randomTime() { return Poco::Clock(static_cast<Poco::Clock::ClockVal>(upTo(4))); }

    void erase(Entry& entry)
    {
        m_model.erase(entry);
        if (entry.workload == Entry::Workload::Periodic)
            m_periodic.erase(entry);
        else
            m_aperiodic.erase(entry);
    }

    void change(Entry& entry)
    {
        if (entry.workload == Entry::Workload::Aperiodic) {
            m_aperiodic.reschedule(entry, randomTime());
            m_model.reschedule(entry);
        }
        else if (entry.role != Entry::Role::Discovered) {
            erase(entry);
        }
        else if (upTo(2) == 0) {
            m_index.renew(entry);
            m_model.renew(entry);
        }
        else {
            m_index.identify(entry, randomUuid());
        }
    }

    void changeAtRandom()
    {
        const bool isGrowing = ++m_steps / 200 % 2 == 0;
        const std::size_t choice = m_model.size() == 0 ? 0 : upTo(10);
        if (choice < (isGrowing ? 5U : 2U)) {
            const Kind& kind = kinds[upTo(kinds.size())];
            insert(randomRecord(kind), kind.workload);
        }
        else if (choice < 7) {
            erase(m_model.entry(upTo(m_model.size())));
        }
        else {
            change(m_model.entry(upTo(m_model.size())));
        }
    }

    void compareLookUps(const SDService& probe)
    {
        for (const auto workload : {Entry::Workload::Aperiodic, Entry::Workload::Periodic}) {
            const auto matching = [&](const ServiceIdentity& identity) {
                return m_model.findAll(workload,
                                       [&](const Entry& entry) { return identity.matches(*entry); });
            };
            const ServiceIdentity identity(probe);
            ASSERT_EQ(m_index.findAll(identity, workload), matching(identity));
            for (const auto type : {Type::ANNOUNCED, Type::DISCOVERED, Type::ANY}) {
                const auto instance = ServiceIdentity::ofInstance(probe, type);
                ASSERT_EQ(m_index.findInstance(instance, workload), matching(instance));
            }
            const std::string uuid = randomUuid();
            const auto carries = [&](const Entry& entry) {
                return !uuid.empty() && entry->getNuboDescription().getLocalUuid() == uuid;
            };
            ASSERT_EQ(m_index.findUuid(uuid, workload), m_model.findAll(workload, carries));
        }
    }

    void compareInstance(const SDService& probe)
    {
        const auto discovered = ServiceIdentity::ofInstance(probe, Type::DISCOVERED);
        std::vector<Entry*> matches = m_model.findAll(
            Entry::Workload::Periodic, [&](const Entry& entry) { return discovered.matches(*entry); });
        const std::vector<Entry*> misplaced = m_model.findAll(
            Entry::Workload::Aperiodic, [&](const Entry& entry) { return discovered.matches(*entry); });
        matches.insert(matches.end(), misplaced.begin(), misplaced.end());
        ASSERT_EQ(m_index.findDiscovered(probe), matches.size() == 1 ? matches.front() : nullptr);

        const auto announced = ServiceIdentity::ofInstance(probe, Type::ANNOUNCED);
        ASSERT_EQ(m_index.countInstance(announced, Entry::Role::Answer),
                  m_model.count([&](const Entry& entry) {
                      return entry.role == Entry::Role::Answer && announced.matches(*entry);
                  }));
    }

    void compareName(const std::string& text)
    {
        const auto isOfName = [&](const Entry& entry) { return nameOf(entry) == text; };
        const NameEntries* const name = m_index.find(text);
        ASSERT_EQ(name != nullptr, m_model.count(isOfName) != 0);
        if (!name)
            return;
        ASSERT_EQ(name->text(), text);
        for (const std::uint16_t serviceID : serviceIDs)
            compareNumbers(*name, text, serviceID);
        ASSERT_EQ(name->unexpected, m_model.count([&](const Entry& entry) {
            return isOfName(entry) &&
                   (entry.role == Entry::Role::Other ||
                    (entry.role == Entry::Role::Discovered && entry->getState() != State::MAIN_PHASE));
        }));
        compareDiscovered(*name, m_model.discovered(isOfName));

        std::multiset<std::uint16_t> own;
        for (const auto workload : {Entry::Workload::Aperiodic, Entry::Workload::Periodic}) {
            for (const Entry* entry : m_model.findAll(workload, isOfName)) {
                if (entry->role == Entry::Role::Own)
                    own.insert(entry->instanceID);
            }
        }
        ASSERT_EQ(name->ownNumbers().size(), own.size());
        ASSERT_EQ(name->ownNumbers().highest(), own.empty() ? 0 : *own.rbegin());
    }

    void compareNumbers(const NameEntries& name, const std::string& text, std::uint16_t serviceID)
    {
        ServiceIdentity identity;
        identity.serviceID = serviceID;
        identity.name = text;
        std::set<std::uint16_t> numbers{0};
        const std::size_t count = m_model.count([&](const Entry& entry) {
            const bool isMatch = identity.matches(*entry);
            if (isMatch && entry.role != Entry::Role::Search)
                numbers.insert(entry->getInstanceId());
            return isMatch;
        });
        std::uint16_t free = 1;
        while (numbers.count(free) != 0)
            ++free;
        ASSERT_EQ(name.count(serviceID), count);
        ASSERT_EQ(name.highestInstance(serviceID), *numbers.rbegin());
        ASSERT_EQ(name.lowestFreeInstance(serviceID, 0xfffe), free);
    }

    void compareDiscovered(const NameEntries& name, const std::vector<Entry*>& expected)
    {
        std::vector<Entry*> found;
        for (Entry& entry : name.discovered)
            found.push_back(&entry);
        ASSERT_EQ(found, expected);
        ASSERT_EQ(name.discoveredCount, expected.size());
        for (std::uint32_t number = 1; number < senders; ++number) {
            const Sender* const sender = m_index.find(unit(number));
            const auto sent = std::count_if(expected.begin(), expected.end(), [&](const Entry* entry) {
                return (*entry)->getSender() == unit(number);
            });
            ASSERT_EQ(sender ? name.discoveredOf(sender) : 0, static_cast<std::size_t>(sent));
        }
    }

    void compareTallies()
    {
        const std::vector<Entry*> discovered = m_model.discovered([](const Entry&) { return true; });
        std::size_t text = 0;
        std::array<std::size_t, senders> records{};
        std::array<std::size_t, senders> texts{};
        for (const Entry* entry : discovered) {
            const std::size_t size = (*entry)->getNuboDescription().getTextSize();
            const std::size_t sender = (*entry)->getSender().back();
            text += size;
            ++records[sender];
            texts[sender] += size;
        }
        ASSERT_EQ(m_index.size(), m_model.size());
        ASSERT_EQ(m_index.discovered(), discovered.size());
        ASSERT_EQ(m_index.discoveredText(), text);
        ASSERT_EQ(m_index.stalest(), discovered.empty() ? nullptr : discovered.front());
        ASSERT_EQ(m_index.answers(),
                  m_model.count([](const Entry& entry) { return entry.role == Entry::Role::Answer; }));
        ASSERT_EQ(m_index.find(unit(0)), nullptr);
        for (std::uint32_t number = 1; number < senders; ++number) {
            const Sender* const sender = m_index.find(unit(number));
            ASSERT_EQ(sender ? sender->records : 0, records[number]);
            ASSERT_EQ(sender ? sender->text : 0, texts[number]);
            ASSERT_EQ(sender == nullptr, records[number] == 0);
        }
    }

    void compareOrders()
    {
        const auto all = [](const Entry&) { return true; };
        std::vector<Entry*> periodic;
        for (Entry& entry : m_periodic)
            periodic.push_back(&entry);
        ASSERT_EQ(periodic, m_model.findAll(Entry::Workload::Periodic, all));
        std::vector<Entry*> aperiodic;
        for (auto& [due, entry] : m_aperiodic)
            aperiodic.push_back(&entry);
        ASSERT_EQ(aperiodic, m_model.findAll(Entry::Workload::Aperiodic, all));

        std::vector<Entry*> locals;
        m_periodic.startLocalWalk();
        while (Entry* const entry = m_periodic.walkLocals())
            locals.push_back(entry);
        ASSERT_EQ(locals, m_model.findAll(Entry::Workload::Periodic, [](const Entry& entry) {
            return entry.role != Entry::Role::Discovered;
        }));
        ASSERT_EQ(m_periodic.localCount(), locals.size());
    }

    const PlantedHash m_planted{GetParam().function};
    RecordIndex m_index;
    AperiodicWorkload m_aperiodic{m_index};
    PeriodicWorkload m_periodic{m_index};
    Model m_model;
    std::mt19937 m_random{11};  // NOLINT(cert-msc32-c,cert-msc51-cpp) every run gets the same
    int m_steps = 0;
};

}  // namespace

TEST_P(RecordIndexModelTest, LookUpsAndTalliesAreThoseOfAPlainWalk)
{
    constexpr int steps = 4000;

    for (int step = 0; step < steps; ++step) {
        SCOPED_TRACE(step);
        changeAtRandom();

        const SDService::Ptr probe = randomRecord(kinds[0]);
        ASSERT_NO_FATAL_FAILURE(compareLookUps(*probe));
        ASSERT_NO_FATAL_FAILURE(compareInstance(*probe));
        ASSERT_NO_FATAL_FAILURE(compareName(nameOf(probe)));
        ASSERT_NO_FATAL_FAILURE(compareTallies());
        ASSERT_NO_FATAL_FAILURE(compareOrders());
    }
}

INSTANTIATE_TEST_SUITE_P(Hashes, RecordIndexModelTest,
                         ::testing::Values(HashFunctionCase{"Keyed", nullptr},
                                           HashFunctionCase{
                                               "AllEqual",
                                               [](const void*, std::size_t) { return std::uint64_t{42}; }}),
                         [](const auto& row) { return row.param.name; });

namespace {

/// Argument of the last call of the hash.
std::string lastHashed;  // NOLINT(cert-err58-cpp)

std::uint64_t noteBytes(const void* bytes, std::size_t size)
{
    lastHashed.assign(static_cast<const char*>(bytes), size);
    return std::hash<std::string>()(lastHashed);
}

/// The bytes under which an instance is kept.
std::string keyOf(const std::string& name, const std::string& address, unsigned short port,
                  OptionL4Protocol::L4Protocol_t protocol = OptionL4Protocol::TCP)
{
    NuboServiceDescription description;
    description.setName(name);
    description.setIpAddress(Poco::Net::IPAddress(address));
    description.setPort(port);
    description.setL4Proto(protocol);
    const PlantedHash planted(noteBytes);
    RecordIndex index;
    PeriodicWorkload periodic(index);
    periodic.push_back(
        new SDService(description, 120, 0xfffe, 1, 1, 0, ConfigurationPairs(), Type::ANNOUNCED));
    return lastHashed;
}

}  // namespace

TEST(RecordIndexKeyTest, NothingCanBeMovedFromTheNameIntoTheEndpointOrBack)
{
    const std::string tail = "cd::2";
    const std::string longName(600, 'x');

    EXPECT_NE(keyOf("Mediaa", "b" + tail, 1), keyOf("Media", "ab" + tail, 1));
    EXPECT_NE(keyOf(longName + "a", "b" + tail, 1), keyOf(longName, "ab" + tail, 1));
    EXPECT_EQ(keyOf("Media", "ab" + tail, 1), keyOf("Media", "ab" + tail, 1));
    EXPECT_EQ(keyOf(longName, "ab" + tail, 1), keyOf(longName, "ab" + tail, 1));
}

TEST(RecordIndexKeyTest, EveryPartOfTheEndpointCounts)
{
    for (const std::string& name : {std::string("Media"), std::string(600, 'x')}) {
        std::set<std::string> keys;
        for (const char* address : {"fd00::2", "fd00::3"}) {
            for (const std::uint16_t port : std::array<std::uint16_t, 4>{0x0001, 0x0100, 0x0006, 0x0600}) {
                for (const auto protocol : {OptionL4Protocol::TCP, OptionL4Protocol::UDP})
                    keys.insert(keyOf(name, address, port, protocol));
            }
        }

        EXPECT_THAT(keys, SizeIs(2 * 4 * 2));
    }
}

}  // namespace Nubo::ServiceDiscovery::Testing
