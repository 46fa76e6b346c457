#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"
#include "common/RoundTrip.h"

#include <cstdint>
#include <initializer_list>

/// Common part of the option targets. An input is the bytes of an option in the options array.
namespace Nubo::ServiceDiscovery::Fuzzing {

constexpr std::size_t lengthAndTypeSize = 3;

inline std::uint8_t byteAt(std::string_view bytes, std::size_t position)
{
    return static_cast<std::uint8_t>(bytes[position]);
}

/// Return the values of the input's length and type bytes. The input must contain both.
inline std::uint16_t lengthOf(std::string_view option)
{
    return static_cast<std::uint16_t>(byteAt(option, 0) << 8 | byteAt(option, 1));
}
inline OptionType::Type_t typeOf(std::string_view option)
{
    return static_cast<OptionType::Type_t>(byteAt(option, 2));
}

inline bool hasType(std::string_view input, std::initializer_list<OptionType::Type_t> types)
{
    return input.size() >= lengthAndTypeSize &&
           std::find(types.begin(), types.end(), typeOf(input)) != types.end();
}

/// Reads and checks the option. Returns it if it is valid, otherwise null. Its class must be `Option`.
template <class Option>
Poco::SharedPtr<Option> checkOption(std::string_view input)
{
    const auto received = checkRoundTrip(input, lengthAndTypeSize, [](std::string_view bytes) {
        return SOME_IP_SD_Option::makeReceived(typeOf(bytes), lengthOf(bytes));
    });
    const SOME_IP_SD_Option::Ptr option = received.object;
    require(option->getType() == typeOf(input), "an option has the type that was received");
    require(option->getLength() == lengthOf(input), "an option has the length that was received");
    const auto result = option.cast<Option>();
    require(!result.isNull(), "an option has its type's class");
    return received.isValid ? result : nullptr;
}

/// Checks an endpoint option of either address family. The second reserved byte is not preserved.
template <class Option, std::size_t addressLength>
void checkEndpoint(std::string_view input)
{
    const auto option = checkOption<Option>(input);
    if (option.isNull())
        return;

    constexpr std::size_t address = 4;
    constexpr std::size_t reserved = address + addressLength;
    std::string expected(input.substr(0, option->getSize()));
    expected[reserved] = 0;
    require(written(*option) == expected, "an endpoint is written as it was read");

    const std::string_view bytes(reinterpret_cast<const char*>(option->getIP_asBytes()), addressLength);
    require(bytes == input.substr(address, addressLength), "an endpoint has the address that was received");
    const Option copy(option->getType(), option->getIP_asBytes(), option->getPort(), option->getL4Protocol());
    require(copy.isValid() && copy.getIP() == option->getIP(), "an endpoint can be made from a received one");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
