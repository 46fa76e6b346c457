#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "common/Target.h"

#include <Poco/Exception.h>

#include <memory>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Fuzzing {

/// Constructs an option from the values. Returns null when the constructor rejects them.
template <class... Values>
std::unique_ptr<SOME_IP_SD_Option_Configuration> makeConfiguration(const Values&... values)
{
    try {
        return std::make_unique<SOME_IP_SD_Option_Configuration>(values...);
    }
    catch (const Poco::Exception&) {
        return nullptr;
    }
}

/// Checks the pairs that a valid option returns, and that an option constructed from them has the same ones.
inline void checkPairs(const SOME_IP_SD_Option_Configuration& option)
{
    using SOME_IP_SD_Types::OptionKeywords;
    const ConfigurationPairs& pairs = option.getConfigurationPairs();
    for (const auto& [key, value] : pairs) {
        std::vector<std::string> values;
        option.getAllValues(key, values);
        require(values.size() == pairs.count(key), "all values of a key are found");
        const auto found = SOME_IP_SD_Option_Configuration::findFirstPair(pairs, key, {value});
        require(found != pairs.end() && found->second == value, "a pair is found by its key and value");
    }

    // A received value may begin with a space, but a value to be sent must not.
    const auto made = makeConfiguration(pairs);
    if (!made)
        return;
    require(made->getConfigurationPairs() == pairs, "an option keeps the pairs that it was made of");
    const auto again =
        makeConfiguration(made->getConfigurationString(), made->getConfigurationStringLength());
    // Only a key that requires a value is rejected as "key" instead of "key=".
    const bool lacksName = SOME_IP_SD_Option_Configuration::findFirstPair(
                               pairs, OptionKeywords::NonSOME_IP_ServiceName, {""}) != pairs.end();
    require(again ? again->getConfigurationPairs() == pairs : lacksName,
            "the string that is made of pairs has these pairs");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
