#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"

#include "DataLayer/SOME_IP_SD/ConfigurationText.h"
#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration_Pimpl.h"
#include "DataLayer/WireStream.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <numeric>
#include <ostream>
#include <utility>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionKeywords;
using SOME_IP_SD_Types::OptionLength;

namespace {

constexpr std::size_t longestSubstring = 255;

const char* asChars(const std::uint8_t* bytes)
{
    return reinterpret_cast<const char*>(bytes);
}

const std::uint8_t* asBytes(const std::string& text)
{
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

std::size_t sizeOnWire(const ConfigurationPairs& pairs)
{
    return std::accumulate(
        pairs.begin(), pairs.end(), std::size_t{0},
        [](std::size_t size, const auto& pair) { return size + sizeOfPair(pair.first, pair.second); });
}

void throwFault(const std::string& fault)
{
    if (!fault.empty())
        throw Poco::Exception(fault);
}

}  // namespace

SOME_IP_SD_Option_Configuration_Pimpl::SOME_IP_SD_Option_Configuration_Pimpl(std::uint16_t length)
    : SOME_IP_SD_Option_Pimpl(OptionType::CONFIGURATION, length)
{
    setValid(false);
}

SOME_IP_SD_Option_Configuration_Pimpl::SOME_IP_SD_Option_Configuration_Pimpl(const std::uint8_t* string,
                                                                             std::uint16_t length)
    : SOME_IP_SD_Option_Pimpl(OptionType::CONFIGURATION, static_cast<std::uint16_t>(length + 1))
{
    setValid(initFromString(string, length));
}

SOME_IP_SD_Option_Configuration_Pimpl::SOME_IP_SD_Option_Configuration_Pimpl(const ConfigurationPairs& pairs)
    : SOME_IP_SD_Option_Pimpl(OptionType::CONFIGURATION, OptionLength::MIN)
{
    setValid(initFromPairs(pairs));
}

SOME_IP_SD_Option_Configuration_Pimpl::~SOME_IP_SD_Option_Configuration_Pimpl() = default;

std::ostream& SOME_IP_SD_Option_Configuration_Pimpl::serialise(std::ostream& stream) const
{
    SOME_IP_SD_Option_Pimpl::serialise(stream);
    WireWriter writer(stream);
    if (m_configurationString)
        writer.writeBytes(string(), std::strlen(asChars(string())));
    writer.write(std::uint8_t{0});
    writer.checkWritten("SOME_IP_SD_Option_Configuration", std::streamsize{stringLength()} + 1);
    return stream;
}

std::streamsize SOME_IP_SD_Option_Configuration_Pimpl::deserialise(std::istream& stream)
{
    SOME_IP_SD_Option_Pimpl::deserialise(stream);
    setValid(false);  // until the string has been parsed
    const std::uint16_t n = stringLength();
    if (getLength() < OptionLength::MIN + 1) {
        SD_LOG(Error) << "SOME_IP_SD_Configuration_Option string length '" << n
                      << "' found during deserialisation, exceeds length field of Option!";
        return 0;
    }

    const std::size_t withTerminator = std::size_t{n} + 1;
    m_configurationString.reset(new (std::nothrow) std::uint8_t[withTerminator]());
    if (!m_configurationString) {
        SD_LOG(Error) << "deserialise: failed, allocation of m_configurationString returned nullptr!";
        WireReader(stream).skip(specificSize());
        return specificSize();
    }

    // The whole string, so that the stream is at the end of the option whatever the string contains.
    WireReader reader(stream);
    reader.readBytes(m_configurationString.get(), withTerminator);
    m_configurationString[n] = 0;  // kept for compatibility: the terminator's value does not matter
    const std::size_t upToZero = std::strlen(asChars(string()));
    std::fill_n(m_configurationString.get() + upToZero, withTerminator - upToZero, std::uint8_t{0});
    const std::streamsize consumed = std::min(static_cast<std::streamsize>(upToZero) + 1, reader.count());
    if (!WireReader::checkCount(consumed, "SOME_IP_SD_Configuration_Option", specificSize(), specificSize()))
        return consumed;

    setValid(initFromString(string(), n));
    if (!isValid())
        SD_LOG(Error)
            << "SOME_IP_SD_Configuration_Option failed to parse Configuration during deserialisation!";
    return consumed;
}

const char* SOME_IP_SD_Option_Configuration_Pimpl::kind() const
{
    return "Configuration Option: ";
}

void SOME_IP_SD_Option_Configuration_Pimpl::printSpecific(std::ostream& stream) const
{
    if (m_configurationString)
        stream << prettyPrintConfigString(string(), std::uint32_t{stringLength()} + 1);
}

bool SOME_IP_SD_Option_Configuration_Pimpl::isValidSubstring(const std::uint8_t* s, std::uint8_t n,
                                                             std::uint8_t* equalsPosition)
{
    const TextFault fault = faultOfText(s, n, equalsPosition);
    if (fault)
        SD_LOG(Error) << fault;
    return !fault;
}

bool SOME_IP_SD_Option_Configuration_Pimpl::initFromString(const std::uint8_t* s, std::uint16_t length)
{
    if (!s) {
        SD_LOG(Error) << "initFromString: Option cannot be initialised with nullptr!";
        return false;
    }
    if ((m_configurationString && s != string()) || !m_configurationPairs.empty()) {
        SD_LOG(Error) << "initFromString: Option is already initialised!";
        return false;
    }
    if (s[length] != 0 || (length > 0 && s[length - 1] == 0)) {
        SD_LOG(Error) << "initFromString: input string not 0-terminated or length mismatch!";
        return false;
    }

    for (std::size_t position = 0; position < length;) {
        const std::uint8_t n = s[position];
        const std::uint8_t* characters = s + position + 1;
        if (position + 1 + n > length) {
            SD_LOG(Error)
                << "initFromString: input string substring lengths don't add up to given overall length!";
            return false;
        }
        const std::string_view substring(asChars(characters), n);
        std::uint8_t equals = 0;
        if (n == 0 || !isValidSubstring(characters, n, &equals)) {
            SD_LOG(Error) << "initFromString: found invalid substring: '" << substring << "'!";
            return false;
        }
        if (!insertSubstring(substring, equals))
            return false;
        position += std::size_t{1} + n;
    }
    return s == string() || copyConfigurationString(s, length);
}

bool SOME_IP_SD_Option_Configuration_Pimpl::insertSubstring(std::string_view substring, std::uint8_t equals)
{
    if (equals == 0) {
        if (substring == OptionKeywords::NonSOME_IP_ServiceName) {
            SD_LOG(Error) << "initFromString: Error while parsing input string, keyword '" << substring
                          << "' is not allowed to be empty!";
            return false;
        }
        m_configurationPairs.emplace(substring, std::string_view());
        return true;
    }
    if (!isValidSplit(substring.size(), equals))
        return false;
    m_configurationPairs.emplace(substring.substr(0, equals), substring.substr(equals + 1u));
    return true;
}

bool SOME_IP_SD_Option_Configuration_Pimpl::isValidSplit(std::size_t length, std::size_t equals)
{
    if (equals >= length) {
        // Kept for compatibility: length and position are written as one raw byte each.
        SD_LOG(Error) << "initFromString: Error while parsing input string, '=' sign supposedly detecting "
                         "after string-length! length: "
                      << static_cast<char>(length) << " vs. '='-Position: " << static_cast<char>(equals);
        return false;
    }
    if (length > longestSubstring) {
        SD_LOG(Error) << "initFromString: detected too long Configuration-substring, length of '" << length
                      << "' exceeds per substring length field!";
        return false;
    }
    return true;
}

bool SOME_IP_SD_Option_Configuration_Pimpl::initFromPairs(const ConfigurationPairs& pairs)
{
    if (m_configurationString || !m_configurationPairs.empty()) {
        SD_LOG(Error) << "initFromPairs: Option is already initialised!";
        return false;
    }

    std::string built;
    built.reserve(sizeOnWire(pairs));
    for (const auto& [key, value] : pairs) {
        if (const PairFault fault = faultOfPair(key, value)) {
            if (fault.ofText)
                SD_LOG(Error) << fault.ofText;
            SD_LOG(Error) << fault;
            return false;
        }
        built += static_cast<char>(lengthOfPair(key, value));
        built += key;
        if (!value.empty()) {
            built += '=';
            built += value;
        }
    }

    const bool copied = copyConfigurationString(asBytes(built), static_cast<std::uint32_t>(built.size()));
    m_configurationPairs = pairs;
    return copied;
}

bool SOME_IP_SD_Option_Configuration_Pimpl::copyConfigurationString(const std::uint8_t* s,
                                                                    std::uint32_t length)
{
    if (m_configurationString) {
        SD_LOG(Warning) << "copyConfigurationString: failed to set, m_configurationString is not a nullptr!";
        return false;
    }
    const StringFault fault = faultOfStringLength(length);
    if (fault)
        SD_LOG(Error) << fault;

    setLength(static_cast<std::uint16_t>(length + 2));
    m_configurationString.reset(new (std::nothrow) std::uint8_t[std::size_t{length} + 1]());
    if (!m_configurationString) {
        SD_LOG(Error) << "copyConfigurationString: failed to set, allocation of m_configurationString "
                         "returned nullptr!";
        return false;
    }
    std::copy_n(s, length, m_configurationString.get());
    return !fault;
}

TextList SOME_IP_SD_Option_Configuration_Pimpl::shareAllValues(const std::string& key)
{
    if (m_configurationPairs.find(key) == m_configurationPairs.end())
        return {};
    std::shared_ptr<const TextList::Shared>& shared = m_sharedValues[key];
    if (!shared) {
        std::vector<std::string> values;
        SOME_IP_SD_Option_Configuration::extractAllValues(m_configurationPairs, key, values);
        shared = std::make_shared<const TextList::Shared>(std::move(values));
    }
    return TextList(shared);
}

SOME_IP_SD_Option_Configuration::SOME_IP_SD_Option_Configuration(std::uint16_t length)
    : ImplementedBy(new SOME_IP_SD_Option_Configuration_Pimpl(length),
                    toBeRead("Configuration Option", throwFault))
{}

SOME_IP_SD_Option_Configuration::SOME_IP_SD_Option_Configuration(const std::uint8_t* string,
                                                                 std::uint16_t length)
    : ImplementedBy(new SOME_IP_SD_Option_Configuration_Pimpl(string, length),
                    ofValues("String ", "Configuration-Option", throwFault))
{}

SOME_IP_SD_Option_Configuration::SOME_IP_SD_Option_Configuration(const ConfigurationPairs& pairs)
    : ImplementedBy(new SOME_IP_SD_Option_Configuration_Pimpl(pairs),
                    ofValues("Pair ", "Configuration-Option", throwFault))
{}

const std::uint8_t* SOME_IP_SD_Option_Configuration::getConfigurationString() const
{
    return m_thisImplementation->string();
}

std::uint16_t SOME_IP_SD_Option_Configuration::getConfigurationStringLength() const
{
    return m_thisImplementation->stringLength();
}

const ConfigurationPairs& SOME_IP_SD_Option_Configuration::getConfigurationPairs() const
{
    return m_thisImplementation->pairs();
}

void SOME_IP_SD_Option_Configuration::getAllValues(const std::string& key,
                                                   std::vector<std::string>& values) const
{
    extractAllValues(getConfigurationPairs(), key, values);
}

TextList SOME_IP_SD_Option_Configuration::shareAllValues(const std::string& key) const
{
    return m_thisImplementation->shareAllValues(key);
}

void SOME_IP_SD_Option_Configuration::extractAllValues(const ConfigurationPairs& pairs,
                                                       const std::string& key,
                                                       std::vector<std::string>& values)
{
    const auto [first, last] = pairs.equal_range(key);
    values.reserve(values.size() + static_cast<std::size_t>(std::distance(first, last)));
    std::transform(first, last, std::back_inserter(values), [](const auto& pair) { return pair.second; });
}

ConfigurationPairs::const_iterator SOME_IP_SD_Option_Configuration::findFirstPair(
    const ConfigurationPairs& pairs, const std::string& key, const std::vector<std::string>& acceptedValues)
{
    const auto [first, last] = pairs.equal_range(key);
    const auto found = std::find_if(first, last, [&](const auto& pair) {
        return std::find(acceptedValues.begin(), acceptedValues.end(), pair.second) != acceptedValues.end();
    });
    return found == last ? pairs.end() : found;
}

std::string prettyPrintConfigString(const std::uint8_t* string, std::uint32_t length)
{
    std::string text;
    std::uint32_t position = 0;
    while (string && position < length && string[position] != 0) {
        const std::uint32_t n = std::min<std::uint32_t>(string[position], length - position - 1);
        text += '[' + std::to_string(string[position]) + ']';
        text.append(asChars(string + position + 1), n);
        position += 1 + n;
    }
    if (string && position < length)
        text += "[0]";
    return text;
}

}  // namespace Nubo::ServiceDiscovery
