#pragma once

#include "DataLayer/SOME_IP_SD/ImplementedBy.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"
#include "DataLayer/TextList.h"

#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_Configuration_Pimpl;

/// Configuration option: the attributes of a service as "key=value" texts. Fields behind the four bytes of
/// every option: the configuration string and a zero byte. The string is a sequence of texts, each with one
/// length byte (1 to 255) before its characters; a text without "=" is a key with an empty value.
///
/// A text consists of printable ASCII (0x20 to 0x7E), begins neither with a blank nor with "=", and holds
/// at most one "=". The key "otherserv" always has a value in a received option.
class SOME_IP_SD_Option_Configuration
    : public ImplementedBy<SOME_IP_SD_Option, SOME_IP_SD_Option_Configuration_Pimpl>
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Option_Configuration>;

    /// An option to be filled by reading; `length` is the value of its length field.
    explicit SOME_IP_SD_Option_Configuration(std::uint16_t length);

    /// An option from a configuration string of `length` bytes, with a zero byte behind it. Logs an error and
    /// throws Poco::Exception when the string is malformed.
    SOME_IP_SD_Option_Configuration(const std::uint8_t* string, std::uint16_t length);

    /// An option from key/value pairs. Logs an error and throws Poco::Exception when a pair does not fit into
    /// a text, or all pairs do not fit into an option.
    explicit SOME_IP_SD_Option_Configuration(const ConfigurationPairs& pairs);

    /// The configuration string with a zero byte behind it; null if there is none. Lives as long as the
    /// option.
    const std::uint8_t* getConfigurationString() const;
    /// Its length in bytes: the length field minus 2.
    std::uint16_t getConfigurationStringLength() const;

    const ConfigurationPairs& getConfigurationPairs() const;

    /// Appends the value of every pair with that key to `values`, in the order of the pairs.
    void getAllValues(const std::string& key, std::vector<std::string>& values) const;
    /// The same as a list, shared by all calls for that key. Not thread-safe, although const.
    TextList shareAllValues(const std::string& key) const;
    static void extractAllValues(const ConfigurationPairs& pairs, const std::string& key,
                                 std::vector<std::string>& values);

    /// The first pair with that key and one of the accepted values; `pairs.end()` if there is none.
    static ConfigurationPairs::const_iterator findFirstPair(const ConfigurationPairs& pairs,
                                                            const std::string& key,
                                                            const std::vector<std::string>& acceptedValues);
};

/// A configuration string for the log: each text as "[length]characters", and "[0]" for a zero byte that ends
/// it within `length` bytes.
std::string prettyPrintConfigString(const std::uint8_t* string, std::uint32_t length);

}  // namespace Nubo::ServiceDiscovery
