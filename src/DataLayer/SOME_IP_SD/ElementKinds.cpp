#include "DataLayer/SOME_IP_SD/ElementKinds.h"

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"

#include <cstddef>
#include <limits>
#include <type_traits>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionLength;

namespace {

constexpr std::uint16_t anyLength = std::numeric_limits<std::uint16_t>::max();

template <class Class, class Base>
bool isA(const Base& element)
{
    return dynamic_cast<const Class*>(&element) != nullptr;
}

template <class Entry>
SOME_IP_SD_Entry* makeEntry(EntryType::Type_t type)
{
    return new Entry(type);
}

/// By what the class needs to be filled by reading: nothing, its length or its type.
template <class Option>
SOME_IP_SD_Option* makeOption([[maybe_unused]] OptionType::Type_t type, [[maybe_unused]] std::uint16_t length)
{
    if constexpr (std::is_default_constructible_v<Option>)
        return new Option;
    else if constexpr (std::is_constructible_v<Option, std::uint16_t>)
        return new Option(length);
    else
        return new Option(type);
}

template <class Entry>
constexpr EntryKind entry(EntryType::Type_t type, const char* name)
{
    return {type, name, makeEntry<Entry>, isA<Entry, SOME_IP_SD_Entry>};
}

template <class Option>
constexpr OptionKind option(OptionType::Type_t type, std::uint16_t shortestLength,
                            std::uint16_t longestLength)
{
    return {type, shortestLength, longestLength, makeOption<Option>, isA<Option, SOME_IP_SD_Option>};
}

/// An option whose fields have a fixed length.
template <class Option>
constexpr OptionKind option(OptionType::Type_t type, OptionLength::Length_t length)
{
    return option<Option>(type, length, length);
}

using Service = SOME_IP_SD_Entry_Service;
using Eventgroup = SOME_IP_SD_Entry_Eventgroup;
using Configuration = SOME_IP_SD_Option_Configuration;
using LoadBalancing = SOME_IP_SD_Option_LoadBalancing;
using IPv4 = SOME_IP_SD_Option_IPv4;
using IPv6 = SOME_IP_SD_Option_IPv6;

constexpr EntryKind entryKinds[] = {
    entry<Service>(EntryType::FIND_SERVICE, "FIND_SERVICE"),
    entry<Service>(EntryType::OFFER_SERVICE, "OFFER_SERVICE"),
    entry<Eventgroup>(EntryType::SUBSCRIBE, "SUBSCRIBE"),
    entry<Eventgroup>(EntryType::SUBSCRIBE_ACK, "SUBSCRIBE_ACK"),
};

constexpr OptionKind optionKinds[] = {
    option<Configuration>(OptionType::CONFIGURATION, OptionLength::MIN, anyLength),
    option<LoadBalancing>(OptionType::LOAD_BALANCING, OptionLength::LOAD_BALANCING),
    option<IPv4>(OptionType::IP4_ENDPOINT, OptionLength::IP4),
    option<IPv4>(OptionType::IP4_MULTICAST, OptionLength::IP4),
    option<IPv4>(OptionType::IP4_SD_ENDPOINT, OptionLength::IP4),
    option<IPv6>(OptionType::IP6_ENDPOINT, OptionLength::IP6),
    option<IPv6>(OptionType::IP6_MULTICAST, OptionLength::IP6),
    option<IPv6>(OptionType::IP6_SD_ENDPOINT, OptionLength::IP6),
};

template <class Kind, std::size_t number, class Type>
const Kind* find(const Kind (&kinds)[number], Type type)
{
    for (const Kind& kind : kinds) {
        if (kind.type == type)
            return &kind;
    }
    return nullptr;
}

}  // namespace

const EntryKind* kindOf(EntryType::Type_t type)
{
    return find(entryKinds, type);
}

const OptionKind* kindOf(OptionType::Type_t type)
{
    return find(optionKinds, type);
}

}  // namespace Nubo::ServiceDiscovery
