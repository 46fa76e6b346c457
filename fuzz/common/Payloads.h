#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD.h"
#include "common/Target.h"

#include <cstddef>

namespace Nubo::ServiceDiscovery::Fuzzing {

/// Whether everything received can be written again. Valid payloads may contain parts that cannot: entries of
/// an unknown type, and the bytes of invalid or unknown options, are omitted from the array but not from its
/// length.
inline bool isWhole(const SOME_IP_SD& payload)
{
    const std::size_t entries = payload.getEntries().size() * SOME_IP_SD_Entry::EntrySize();
    return payload.areArraysValid() && entries == payload.getEntriesLength();
}

/// Checks a payload that was read from `there` bytes.
inline void checkArrays(const SOME_IP_SD& payload, std::size_t there)
{
    if (!payload.isValid())
        return;
    require(payload.getSize() <= there, "a valid payload is there as a whole");

    const std::size_t entries = payload.getEntries().size() * SOME_IP_SD_Entry::EntrySize();
    require(entries <= payload.getEntriesLength(), "no more entries are read than there are");
    for (const SOME_IP_SD_Entry::Ptr& entry : payload.getEntries())
        require(!entry.isNull() && entry->isValid(), "entries of a valid payload are valid");

    std::size_t options = 0;
    for (const SOME_IP_SD_Option::Ptr& option : payload.getOptions()) {
        require(!option.isNull(), "options are there, be it as placeholders");
        options += option->getSize();
    }
    require(options == payload.getOptionsLength(), "options take up their array");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
