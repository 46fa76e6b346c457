#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"
#include "common/RoundTrip.h"

#include <cstdint>
#include <initializer_list>

namespace Nubo::ServiceDiscovery::Fuzzing {

/// Checks an entry of one of those types. The input is its bytes in the entries array, including the type
/// byte. The bits of byte 13 in `kept` are preserved; the others are reserved.
template <class Entry>
void checkEntry(std::string_view input, std::initializer_list<EntryType::Type_t> types, std::uint8_t kept)
{
    constexpr std::size_t typeSize = 1;
    const auto typeOf = [](std::string_view bytes) { return static_cast<EntryType::Type_t>(bytes.front()); };
    if (input.empty() || std::find(types.begin(), types.end(), typeOf(input)) == types.end())
        return;
    const auto received = checkRoundTrip(input, typeSize, [&](std::string_view bytes) {
        return typename Entry::Ptr(new Entry(typeOf(bytes)));
    });
    if (!received.isValid || hasWhiteSpace(input.substr(9, 3)))  // the TTL
        return;

    constexpr std::size_t partlyReserved = 13;
    std::string expected(input.substr(0, Entry::EntrySize()));
    expected[partlyReserved] = static_cast<char>(expected[partlyReserved] & kept);
    require(written(*received.object) == expected, "an entry is written as it was read");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
