#pragma once

#include "DataLayer/SOME_IP_SD/ImplementedBy.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_Placeholder_Pimpl;

/// Placeholder for a received option of an unknown type. It keeps the indices of the other options right, is
/// never valid and holds no bytes.
class SOME_IP_SD_Option_Placeholder
    : public ImplementedBy<SOME_IP_SD_Option, SOME_IP_SD_Option_Placeholder_Pimpl>
{
public:
    /// `length` is the received option's length field.
    explicit SOME_IP_SD_Option_Placeholder(std::uint16_t length);
};

}  // namespace Nubo::ServiceDiscovery
