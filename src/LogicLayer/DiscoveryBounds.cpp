#include "LogicLayer/DiscoveryBounds.h"

#include "DataLayer/SDClock.h"

#include <algorithm>

namespace Nubo::ServiceDiscovery {

namespace {

using Entry = WorkloadEntry;
using Outcome = DiscoveryBounds::Outcome;

/// Counts the places, or the bytes, that are taken in total and by one sender.
struct Tally
{
    const std::size_t limit;
    std::size_t taken;
    std::size_t takenBySender;
    std::size_t givenBack = 0;

    std::size_t free() const { return limit - std::min(limit, taken); }
    bool isFullFor(std::size_t amount) const { return free() < amount; }
    bool isNearlyFull() const { return free() < limit / 8; }
    /// The amount given back may be reused regardless of the share.
    bool isWithinShare(std::size_t amount) const
    {
        return amount <= givenBack || takenBySender + amount <= free();
    }

    void giveBack(std::size_t amount, bool isOfSender)
    {
        givenBack += amount;
        taken -= amount;
        if (isOfSender)
            takenBySender -= amount;
    }
};

/// Determines which services to displace so that one more fits.
class Trial
{
public:
    Trial(const RecordIndex& index, const NameEntries* name, const SDService& offered, bool isSearchedFor,
          const Poco::Clock& listeningSince)
        : m_listeningSince(listeningSince)
        , m_index(index)
        , m_name(name)
        , m_sender(index.find(offered.getSender()))
        , m_keepsToShare(!isSearchedFor && offered.getSender() != SDService::SenderAddress{})
        , m_textSize(offered.getNuboDescription().getTextSize())
        , m_instances{DiscoveryBounds::mostInstances, m_name ? m_name->discoveredCount : 0, inName(m_sender)}
        , m_records{DiscoveryBounds::mostRecords, index.discovered(), m_sender ? m_sender->records : 0}
        , m_text{DiscoveryBounds::mostText, index.discoveredText(), m_sender ? m_sender->text : 0}
        , m_isNearlyFull(m_records.isNearlyFull() || m_text.isNearlyFull())
    {}

    DiscoveryBounds::Verdict judge()
    {
        if (m_textSize > m_text.limit)
            return refused();
        if (!hasRoom(m_instances, 1)) {
            Entry& stalest = *m_name->discovered.front();
            if (!isDisplaceable(stalest, m_instances.isNearlyFull(),
                                inName(stalest.sender) > m_instances.takenBySender))
                return refused();
            displace(stalest);
        }
        Entry* stalest = m_index.stalest();
        for (; !hasRoom(m_records, 1) || !hasRoom(m_text, m_textSize); stalest = RenewalList::next(*stalest))
        {
            if (m_displaced.size() == DiscoveryBounds::mostDisplaced)
                return {refused().outcome, m_displaced};
            if (!stalest)
                return refused();
            if (!m_displaced.empty() && stalest == m_displaced.front())
                continue;  // already displaced as an instance of the same name
            if (!isDisplaceable(*stalest, m_isNearlyFull, hasMoreOfWhatLacks(stalest->sender)))
                return refused();
            displace(*stalest);
        }
        return hasRoom(m_instances, 1) ? DiscoveryBounds::Verdict{Outcome::Taken, m_displaced} : refused();
    }

private:
    std::size_t inName(const Sender* sender) const
    {
        return m_name && sender ? m_name->discoveredOf(sender) : 0;
    }

    /// Whether the other unit has more places than the offering one, or more bytes if only bytes are short.
    bool hasMoreOfWhatLacks(const Sender* other) const
    {
        if (!other)
            return false;
        return hasRoom(m_records, 1) ? other->text > m_text.takenBySender
                                     : other->records > m_records.takenBySender;
    }

    bool hasRoom(const Tally& tally, std::size_t amount) const
    {
        return !tally.isFullFor(amount) && (!m_keepsToShare || tally.isWithinShare(amount));
    }

    bool isFull() const
    {
        return m_instances.isFullFor(1) || m_records.isFullFor(1) || m_text.isFullFor(m_textSize);
    }

    bool isDisplaceable(const Entry& entry, bool isNearlyFull, bool hasItsSenderMore) const
    {
        const Poco::Clock& unheard = std::max(entry.renewed, m_listeningSince);
        const bool isStale = SDClock::now() - unheard >= DiscoveryBounds::staleAfter;
        const bool isOwn = m_sender && entry.sender == m_sender;
        return isStale && (isNearlyFull || isOwn || hasItsSenderMore);
    }

    void displace(Entry& entry)
    {
        const bool isOfSender = m_sender && entry.sender == m_sender;
        if (entry.name == m_name)
            m_instances.giveBack(1, isOfSender);
        m_records.giveBack(1, isOfSender);
        m_text.giveBack(entry.textSize, isOfSender);
        m_displaced.push_back(&entry);
    }

    DiscoveryBounds::Verdict refused() const
    {
        if (m_instances.isFullFor(1))
            return {Outcome::RefusedOfName, {}};
        return {isFull() ? Outcome::Refused : Outcome::RefusedOfSender, {}};
    }

    const Poco::Clock m_listeningSince;
    const RecordIndex& m_index;
    const NameEntries* const m_name;
    const Sender* const m_sender;
    const bool m_keepsToShare;
    const std::size_t m_textSize;
    Tally m_instances;
    Tally m_records;
    Tally m_text;
    const bool m_isNearlyFull;
    std::vector<Entry*> m_displaced;
};

}  // namespace

DiscoveryBounds::Verdict DiscoveryBounds::judge(const RecordIndex& index, const NameEntries* name,
                                                const SDService& offered, bool isSearchedFor,
                                                const Poco::Clock& listeningSince)
{
    return Trial(index, name, offered, isSearchedFor, listeningSince).judge();
}

}  // namespace Nubo::ServiceDiscovery
