#pragma once

#include "LogicLayer/InstanceNumbers.h"
#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/Records.h"
#include "LogicLayer/ServiceIdentity.h"

#include <algorithm>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// The records of one service in both workloads. Use it within one event, under the workload mutex.
struct Matches
{
    using Entry = WorkloadEntry;

    Matches(const RecordIndex& index, const SDService& service)
        : identity(service)
        , name(index.find(service.getNuboDescription().getName()))
    {}

    bool empty() const { return !name || name->count(identity.serviceID) == 0; }

    /// Returns the search if it is the only record, otherwise null.
    Entry* onlySearch() const
    {
        if (empty() || name->count(identity.serviceID) != 1)
            return nullptr;
        return firstSearch();
    }

    /// Returns the search that is due first, or null when there is none.
    Entry* firstSearch() const
    {
        Entry* first = nullptr;
        if (!name)
            return first;
        for (Entry& search : name->searches) {
            if (identity.matches(*search) && (!first || search.due < first->due))
                first = &search;
        }
        return first;
    }

    /// Calls `visit` with each service of this unit until it returns false: first those in the aperiodic
    /// workload by due time, then those in the periodic workload. `visit` may add records to the aperiodic
    /// workload.
    template <class Visit>
    void visitOwn(Visit visit) const
    {
        if (!name)
            return;
        std::vector<const Entry*> due;
        for (const Entry& entry : name->aperiodic) {
            if (isOwn(entry))
                due.push_back(&entry);
        }
        std::sort(due.begin(), due.end(), WorkloadEntry::isBefore);
        for (const Entry* entry : due) {
            if (!visit(*entry))
                return;
        }
        for (const Entry& entry : name->periodic) {
            if (isOwn(entry) && !visit(entry))
                return;
        }
    }

    bool isOwn(const Entry& entry) const
    {
        return entry.role == Entry::Role::Own && identity.matches(*entry);
    }

    /// Whether this unit has a matching service that is not being withdrawn.
    bool hasActive() const
    {
        const auto isActive = [&](const Entry& entry) { return isOwn(entry) && !isShuttingDown(entry); };
        return name && (std::any_of(name->periodic.begin(), name->periodic.end(), isActive) ||
                        std::any_of(name->aperiodic.begin(), name->aperiodic.end(), isActive));
    }

    /// Returns the number for a further instance, one above the highest in use, even if it is a reserved one.
    /// Requires a non-null `name`.
    unsigned short nextInstanceID() const
    {
        return static_cast<unsigned short>(name->highestInstance(identity.serviceID) + 1);
    }

    /// Returns the number for a further discovered instance, never a reserved one. If all numbers are in use,
    /// the last one is used twice. Requires a non-null `name`.
    unsigned short nextDiscoveredInstance() const
    {
        const unsigned short next = nextInstanceID();
        if (isUsableInstance(next))
            return next;
        const unsigned short free = name->lowestFreeInstance(identity.serviceID, lastInstance);
        return free == 0 ? lastInstance : free;
    }

    const ServiceIdentity identity;
    const NameEntries* const name;
};

}  // namespace Nubo::ServiceDiscovery
