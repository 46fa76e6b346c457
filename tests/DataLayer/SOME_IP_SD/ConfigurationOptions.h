#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration_Pimpl.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

/// Shared by the tests of configuration options.
namespace Nubo::ServiceDiscovery::Testing {

inline const std::uint8_t* bytesOf(const std::string& text)
{
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

/// An option from a configuration string; the terminator is added.
inline SOME_IP_SD_Option_Configuration optionOf(const std::string& string)
{
    return SOME_IP_SD_Option_Configuration(bytesOf(string), static_cast<std::uint16_t>(string.size()));
}

/// A text that may hold zero bytes.
template <std::size_t sizeWithZero>
std::string literal(const char (&text)[sizeWithZero])
{
    return std::string(text, sizeWithZero - 1);
}

/// Message of the exception that the function throws.
template <class Function>
std::string failureOf(Function function)
{
    try {
        function();
    }
    catch (const Poco::Exception& exception) {
        return exception.message();
    }
    return "nothing was thrown";
}

/// Pairs that make a configuration string of that many bytes.
inline ConfigurationPairs pairsOfSize(std::size_t size)
{
    constexpr std::size_t longestText = 255;
    ConfigurationPairs pairs;
    for (std::size_t rest = size; rest > 0;) {
        const std::size_t text = std::min(rest - 1, longestText);
        std::string key = std::to_string(pairs.size());
        key.resize(text, 'x');
        pairs.emplace(key, "");
        rest -= 1 + text;
    }
    return pairs;
}

/// Fixture that reads options and catches the log.
struct ConfigurationOptionTest : ::testing::Test
{
    using Option = SOME_IP_SD_Option_Configuration;
    using Implementation = SOME_IP_SD_Option_Configuration_Pimpl;

    /// Reads the bytes behind the type byte into an option of a received length.
    Option& read(std::uint16_t length, const std::string& hex)
    {
        received = SOME_IP_SD_Option::makeReceived(OptionType::CONFIGURATION, length);
        stream = streamOf(hex);
        stream >> *received;
        return dynamic_cast<Option&>(*received);
    }

    LogCatcher log;
    SOME_IP_SD_Option::Ptr received;
    std::istringstream stream;
};

}  // namespace Nubo::ServiceDiscovery::Testing
