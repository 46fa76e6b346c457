#pragma once

#include "LogicLayer/RecordIndex.h"

#include <Poco/Clock.h>

#include <cstddef>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Limits how many services of other units are known, so that neighbours cannot fill the unit's memory, and
/// decides which services get the places when these run short.
///
/// A new service is taken while its sender has fewer services than there are free places, so that no single
/// unit takes more than half of them. Otherwise it displaces the service that has gone longest without an
/// offer, provided that its last offer is at least `staleAfter` ago. When less than an eighth of the places
/// is free, it may displace a service of any unit, otherwise only one of the same unit or of a unit that has
/// more services. Many units that leave few places free therefore cannot keep out a unit with few services.
/// The same rules apply to the places of each name and to the bytes of text.
class DiscoveryBounds
{
public:
    static constexpr std::size_t mostRecords = 131072;
    static constexpr std::size_t mostText = std::size_t{64} * 1024 * 1024;  // bytes
    static constexpr std::size_t mostInstances = 4096;                      // of one name
    static constexpr Poco::Clock::ClockDiff staleAfter = 10'000'000;        // microseconds
    /// The most services that one new service displaces, however long its texts are. If it needs more room
    /// than they free, it is refused but they are displaced anyway, so that it finds room when offered again.
    static constexpr std::size_t mostDisplaced = 4;

    enum class Outcome
    {
        Taken,
        Refused,         ///< all places or bytes are taken
        RefusedOfName,   ///< all places of the name are taken
        RefusedOfSender  ///< the sender has used up its share
    };

    struct Verdict
    {
        Outcome outcome = Outcome::Taken;
        std::vector<WorkloadEntry*> displaced;  ///< for the caller to remove, also on a refusal
    };

    /// Judges a service that is not known yet. `name` is the index's node for its name, or null. A service
    /// that this unit searched for is exempt from its sender's share.
    ///
    /// `listeningSince` is when the unit began to listen, or resumed after a pause. Offers missed before that
    /// time do not make a service stale.
    static Verdict judge(const RecordIndex& index, const NameEntries* name, const SDService& offered,
                         bool isSearchedFor, const Poco::Clock& listeningSince);
};

}  // namespace Nubo::ServiceDiscovery
