#pragma once

#include "DataLayer/SOME_IP_SD/ImplementedBy.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Entry_Eventgroup_Pimpl;

/// Entry that subscribes to an eventgroup or acknowledges a subscription. Its last four bytes: one reserved
/// byte, one with the initial data request flag (bit 7) and the counter (bits 3 to 0), and the eventgroup ID
/// (2).
class SOME_IP_SD_Entry_Eventgroup : public ImplementedBy<SOME_IP_SD_Entry, SOME_IP_SD_Entry_Eventgroup_Pimpl>
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Entry_Eventgroup>;

    /// An entry to be filled by reading. `type` is SUBSCRIBE or SUBSCRIBE_ACK; any other logs an error and
    /// makes the entry invalid.
    explicit SOME_IP_SD_Entry_Eventgroup(EntryType::Type_t type);
    /// `counter` is at most 15; a larger one logs an error and makes the entry invalid.
    SOME_IP_SD_Entry_Eventgroup(const CommonFields& fields, bool initialDataRequest, std::uint8_t counter,
                                std::uint16_t eventgroupID);

    bool getInitialDataRequest() const;
    std::uint8_t getCounter() const;
    std::uint16_t getEventgroupID() const;

    bool setInitialDataRequest(bool initialDataRequest);
    /// Logs an error and returns false for a value above 15; the entry stays unchanged.
    bool setCounter(std::uint8_t counter);
    bool setEventgroupID(std::uint16_t eventgroupID);
};

}  // namespace Nubo::ServiceDiscovery
