#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"

#include <cstdint>

/// The kinds of entries and options, one row per type byte. Whatever depends on the type asks here.
namespace Nubo::ServiceDiscovery {

struct EntryKind
{
    EntryType::Type_t type;
    const char* name;  ///< in log lines
    SOME_IP_SD_Entry* (*makeEmpty)(EntryType::Type_t type);
    bool (*isOf)(const SOME_IP_SD_Entry& entry);
};

struct OptionKind
{
    OptionType::Type_t type;
    std::uint16_t shortestLength;  ///< of the length field: the kind's fields need it
    std::uint16_t
        longestLength;  ///< of the length field: the kind's reader leaves what exceeds it in the stream
    SOME_IP_SD_Option* (*makeEmpty)(OptionType::Type_t type, std::uint16_t length);
    bool (*isOf)(const SOME_IP_SD_Option& option);
};

/// Null for an unknown type.
const EntryKind* kindOf(EntryType::Type_t type);
const OptionKind* kindOf(OptionType::Type_t type);

}  // namespace Nubo::ServiceDiscovery
