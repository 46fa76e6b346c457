#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"

#include <cstdint>

/// The kinds of entries and options, one row per type byte. All code that depends on the type asks here.
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
    /// Of the length field. A shorter option lacks some of its fields; the reader leaves the bytes beyond the
    /// longest length in the stream.
    std::uint16_t shortestLength;
    std::uint16_t longestLength;
    SOME_IP_SD_Option* (*makeEmpty)(OptionType::Type_t type, std::uint16_t length);
    bool (*isOf)(const SOME_IP_SD_Option& option);
};

/// Null for an unknown type.
const EntryKind* kindOf(EntryType::Type_t type);
const OptionKind* kindOf(OptionType::Type_t type);

}  // namespace Nubo::ServiceDiscovery
