#pragma once

#include "LogicLayer/RecordIndex.h"

#include <Poco/Clock.h>

#include <cstddef>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// How many services of other units may be known, so that neighbours cannot fill the unit's memory, and who
/// gets the places when there are not enough.
///
/// A unit's new service is taken while that unit has fewer services than there are free places, so that no
/// single unit takes more than half of them. Otherwise it displaces the service that has gone longest without
/// an offer, if that is at least `staleAfter`: any unit's when less than an eighth of the places is free,
/// else only one of a unit that has more services, or its own. So a unit with few services is not kept out by
/// many units that leave few places. The same holds for the places of each name, and for the bytes of texts.
class DiscoveryBounds
{
public:
    static constexpr std::size_t mostRecords = 131072;
    static constexpr std::size_t mostText = std::size_t{64} * 1024 * 1024;  // bytes
    static constexpr std::size_t mostInstances = 4096;                      // of one name
    static constexpr Poco::Clock::ClockDiff staleAfter = 10'000'000;        // microseconds
    /// One new service displaces no more than so many, however long its texts are. If it needs the room of
    /// more, these go all the same, so that it finds room when it is offered again.
    static constexpr std::size_t mostDisplaced = 4;

    enum class Outcome
    {
        Taken,
        Refused,         ///< all places or bytes are taken
        RefusedOfName,   ///< all places of the name are taken
        RefusedOfSender  ///< the sender has its share
    };

    struct Verdict
    {
        Outcome outcome = Outcome::Taken;
        std::vector<WorkloadEntry*> displaced;
    };

    /// Judges a service that is not known yet; `name` is what the index has of its name, if anything. A
    /// service that this unit has searched for need not keep to the share of its sender.
    ///
    /// `listeningSince` is when the unit began to listen, after a pause perhaps: nothing is stale for what
    /// was not heard before.
    static Verdict judge(const RecordIndex& index, const NameEntries* name, const SDService& offered,
                         bool isSearchedFor, const Poco::Clock& listeningSince);
};

}  // namespace Nubo::ServiceDiscovery
