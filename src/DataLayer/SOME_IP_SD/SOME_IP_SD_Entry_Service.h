#pragma once

#include "DataLayer/SOME_IP_SD/ImplementedBy.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Entry_Service_Pimpl;

/// Entry that finds or offers a service. Its last four bytes are the minor version.
class SOME_IP_SD_Entry_Service : public ImplementedBy<SOME_IP_SD_Entry, SOME_IP_SD_Entry_Service_Pimpl>
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Entry_Service>;

    /// An entry to be filled by reading. `type` is FIND_SERVICE or OFFER_SERVICE; any other logs an error
    /// and makes the entry invalid.
    explicit SOME_IP_SD_Entry_Service(EntryType::Type_t type);
    SOME_IP_SD_Entry_Service(const CommonFields& fields, std::uint32_t minorVersion);

    std::uint32_t getMinorVersion() const;
    bool setMinorVersion(std::uint32_t minorVersion);
};

}  // namespace Nubo::ServiceDiscovery
