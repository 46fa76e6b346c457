#pragma once

#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/Records.h"
#include "LogicLayer/ServiceIdentity.h"

#include <algorithm>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// The records of one service in both workloads.
struct Matches
{
    using Entry = WorkloadEntry;

    Matches(const RecordIndex& index, const SDService& service)
        : identity(service)
        , name(index.find(service.getNuboDescription().getName()))
    {}

    bool empty() const { return !name || name->count(identity.serviceID) == 0; }

    /// The search, if there is nothing but one.
    Entry* onlySearch() const
    {
        if (empty() || name->count(identity.serviceID) != 1)
            return nullptr;
        return firstSearch();
    }

    /// The search that falls due first, if there is any.
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

    /// Calls `visit` with each service of this unit until it returns false: those of the aperiodic workload
    /// by their due times, then those of the periodic one.
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

    /// Whether a service of this unit is not being withdrawn.
    bool hasActive() const
    {
        const auto isActive = [&](const Entry& entry) { return isOwn(entry) && !isShuttingDown(entry); };
        return name && (std::any_of(name->periodic.begin(), name->periodic.end(), isActive) ||
                        std::any_of(name->aperiodic.begin(), name->aperiodic.end(), isActive));
    }

    /// The number of a further instance.
    unsigned short nextInstanceID() const
    {
        return static_cast<unsigned short>(name->highestInstance(identity.serviceID) + 1);
    }

    const ServiceIdentity identity;
    const NameEntries* const name;
};

}  // namespace Nubo::ServiceDiscovery
