#include "DataLayer/SOME_IP_SD/SOME_IP_SD.h"

#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/ElementKinds.h"
#include "DataLayer/WireStream.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <utility>

namespace Nubo::ServiceDiscovery {

namespace {

constexpr std::streamsize upToEntries = 8;        // flags, reserved, length of the entries array
constexpr std::streamsize optionsLengthSize = 4;  // length of the options array
constexpr std::streamsize optionPrefixSize = SOME_IP_SD_Option::prefixSize;
constexpr std::size_t usualOptions = 2;  // endpoint and configuration

template <class Element>
bool isSet(const Element& element)
{
    return !element.isNull();
}

template <class Element>
bool isValidElement(const Element& element)
{
    return isSet(element) && element->isValid();
}

/// Words for the two kinds of array in log lines.
struct ArrayWords
{
    const char* operation;
    const char* element;
    const char* elements;
};

constexpr ArrayWords entryWords{"addEntry", "Entry", "Entries"};
constexpr ArrayWords optionWords{"addOption", "Option", "Options"};

template <class Element>
bool addElement(const ArrayWords& words, std::vector<Element>& array, std::uint32_t& length,
                const Element& element, bool acceptInvalid)
{
    if (!isSet(element) || (!acceptInvalid && !element->isValid())) {
        SD_LOG(Error) << words.operation << ": failed due to invalid " << words.element;
        return false;
    }
    const std::uint64_t consolidated = std::uint64_t{length} + element->getSize();
    if (consolidated > std::numeric_limits<std::uint32_t>::max()) {
        SD_LOG(Error) << words.operation << ": failed due to too many " << words.elements
                      << ", consolidated length '" << consolidated << "' exceeds length field!";
        return false;
    }
    array.push_back(element);
    length = static_cast<std::uint32_t>(consolidated);
    return true;
}

template <class Element>
void serialiseArray(std::ostream& stream, const ArrayWords& words, const std::vector<Element>& array)
{
    for (const Element& element : array) {
        if (!isSet(element)) {
            SD_LOG(Error) << "Failed to serialise " << words.element << " due to unknown type (nullptr)!";
            continue;
        }
        const auto* const kind = kindOf(element->getType());
        if (!kind)
            SD_LOG(Error) << "Failed to serialise " << words.element << " due to unknown type '"
                          << +element->getType() << "'";
        else if (!kind->isOf(*element))
            SD_LOG(Error) << "Failed to serialise " << words.element
                          << " due to type<>implementation mismatch, type='" << +element->getType() << "'";
        else
            stream << *element;
    }
}

/// Whether reading can continue; logs the reason if it cannot.
bool isReadable(const std::istream& stream, const ArrayWords& words, std::streamsize done)
{
    if (stream.good())
        return true;
    SD_LOG(Error) << "Failed to deserialise " << words.elements << " due to "
                  << (stream.eof() ? "prematurely reading EOF" : "failed reading of inputstream")
                  << " after ~'" << done << "' Byte(s) of " << words.elements << "!";
    return false;
}

/// Reads one entry, which begins at `position` of its array. Skips the bytes of an unknown type.
void deserialiseEntry(std::istream& stream, SOME_IP_SD::EntryContainer& entries, std::streamsize position)
{
    std::uint8_t typeByte = 0;
    WireReader reader(stream);
    reader.read(typeByte);
    const auto type = static_cast<EntryType::Type_t>(typeByte);
    if (const EntryKind* const kind = kindOf(type)) {
        SOME_IP_SD_Entry::Ptr entry = kind->makeEmpty(type);
        stream >> *entry;
        entries.push_back(entry);
    }
    else if (stream.good()) {
        SD_LOG(Error) << "Failed to deserialise Entry due to unknown type 0x'" << std::hex << +typeByte
                      << std::dec << "' @ Byte '" << position << "', trying to skip to next Entry!";
        reader.skip(std::streamsize{SOME_IP_SD_Entry::EntrySize()} - 1);
    }
}

/// Reads the rest of an option behind its type byte. False when the length is too short for the option's
/// fields: they were then read from the bytes behind the option.
bool deserialiseOption(std::istream& stream, SOME_IP_SD::OptionContainer& options, OptionType::Type_t type,
                       std::uint16_t length)
{
    SOME_IP_SD_Option::Ptr option = SOME_IP_SD_Option::makeReceived(type, length);
    options.push_back(option);
    const OptionKind* const kind = kindOf(type);
    if (!kind) {
        SD_LOG(Error) << "Failed to deserialise Option due to unknown type 0x'" << std::hex << +type
                      << "'! (Adding placeholder instead.)";
        WireReader(stream).skip(length);
        return true;
    }
    stream >> *option;
    if (length > kind->longestLength)
        WireReader(stream).skip(length - kind->longestLength);
    return length >= kind->shortestLength;
}

}  // namespace

SOME_IP_SD::SOME_IP_SD(SOME_IP_SD_Types::MetaData* metaData, std::uint8_t flags)
    : m_metaData(metaData)
    , m_valid(metaData != nullptr)
    , m_flags(flags)
{
    if (!metaData)
        SD_LOG(Error) << "SOME_IP_SD: received nullptr as metaData!";
}

bool SOME_IP_SD::areArraysValid() const
{
    return std::all_of(m_entries.begin(), m_entries.end(), isValidElement<SOME_IP_SD_Entry::Ptr>) &&
           std::all_of(m_options.begin(), m_options.end(), isValidElement<SOME_IP_SD_Option::Ptr>);
}

bool SOME_IP_SD::addEntry(const SOME_IP_SD_Entry::Ptr& entry, bool acceptInvalid)
{
    return addElement(entryWords, m_entries, m_lengthEntries, entry, acceptInvalid);
}

bool SOME_IP_SD::addOption(const SOME_IP_SD_Option::Ptr& option, bool acceptInvalid)
{
    return addElement(optionWords, m_options, m_lengthOptions, option, acceptInvalid);
}

std::size_t SOME_IP_SD::getSize() const
{
    return emptySize + m_lengthEntries + m_lengthOptions;
}

std::streamsize SOME_IP_SD::bytesLeft() const
{
    return m_metaData ? std::max<std::streamsize>(m_metaData->remainingPacketLength, 0) : 0;
}

std::string SOME_IP_SD::toString(unsigned int indent) const
{
    const std::string tabs(indent, '\t');
    std::ostringstream text;
    text << tabs << "SOME/IP-SD: Flags(0x" << std::hex << +m_flags << "), Reserved(0x" << m_reserved00
         << std::dec << "), EntriesLength(" << m_lengthEntries << "), OptionsLength(" << m_lengthOptions
         << ")";
    for (const auto& entry : m_entries)
        text << '\n' << (isSet(entry) ? entry->toString(indent + 1) : tabs + "\t<nullptr>");
    for (const auto& option : m_options)
        text << '\n' << (isSet(option) ? option->toString(indent + 1) : tabs + "\t<nullptr>");
    return text.str();
}

std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD& payload)
{
    WireWriter writer(stream);
    writer.write(payload.m_flags, Low24{payload.m_reserved00}, payload.m_lengthEntries);
    serialiseEntries(stream, payload);
    writer.write(payload.m_lengthOptions);
    serialiseOptions(stream, payload);
    writer.checkWritten("SOME_IP_SD payload", static_cast<std::streamoff>(payload.getSize()));
    return stream;
}

void serialiseEntries(std::ostream& stream, const SOME_IP_SD& payload)
{
    serialiseArray(stream, entryWords, payload.getEntries());
}

void serialiseOptions(std::ostream& stream, const SOME_IP_SD& payload)
{
    serialiseArray(stream, optionWords, payload.getOptions());
}

std::istream& operator>>(std::istream& stream, SOME_IP_SD& payload)
{
    payload.m_entries.clear();
    payload.m_options.clear();
    payload.m_lengthOptions = 0;
    const bool wasValid =
        std::exchange(payload.m_valid, false);  // until everything is read: memory may run out

    bool error = payload.m_metaData == nullptr;
    WireReader reader(stream);
    reader.read(payload.m_flags).readFormatted24(payload.m_reserved00).read(payload.m_lengthEntries);
    if (payload.m_metaData)
        payload.m_metaData->remainingPacketLength -= upToEntries;

    std::streamsize elements = deserialiseEntries(stream, payload, error);
    if (!error) {
        reader.read(payload.m_lengthOptions);
        payload.m_metaData->remainingPacketLength -= optionsLengthSize;
        elements += deserialiseOptions(stream, payload, error);
    }

    const std::streamsize read = reader.count() + elements;
    if (read != static_cast<std::streamsize>(payload.getSize())) {
        error = true;  // the following bytes would be read out of step
        SD_LOG(Error) << "SOME_IP_SD header size>=" << payload.getSize()
                      << " read by deserialisation and length fields contain '" << payload.m_lengthEntries
                      << "|" << payload.m_lengthOptions << "' (Entries|Options)!";
    }
    payload.m_valid = wasValid && !error;
    return stream;
}

std::streamsize deserialiseEntries(std::istream& stream, SOME_IP_SD& payload, bool& error)
{
    constexpr std::streamsize entrySize = SOME_IP_SD_Entry::EntrySize();
    const std::streamsize length = payload.m_lengthEntries;
    if (length % entrySize != 0) {
        SD_LOG(Error) << "SOME_IP_SD header length of entries '" << length
                      << "' not a multiple of expected size '" << entrySize << "'";
        error = true;
        return 0;
    }
    if (length > payload.bytesLeft()) {
        SD_LOG(Error) << "SOME_IP_SD header length of entries error '" << length << "' expected, but only "
                      << payload.bytesLeft() << " Bytes left!";
        error = true;
        return 0;
    }

    payload.m_entries.reserve(static_cast<std::size_t>(length / entrySize));
    std::streamsize done = 0;
    while (done < length) {
        deserialiseEntry(stream, payload.m_entries, done);
        if (!isReadable(stream, entryWords, done)) {
            error = true;
            break;
        }
        done += entrySize;
    }
    if (done != length) {
        SD_LOG(Error) << "Entry deserialisation read '" << done << "', but expected only '" << length
                      << "' Bytes!";
        error = true;
    }
    return done;
}

std::streamsize deserialiseOptions(std::istream& stream, SOME_IP_SD& payload, bool& error)
{
    // The metadata still includes the entries array.
    const std::streamsize left = std::max<std::streamsize>(payload.bytesLeft() - payload.m_lengthEntries, 0);
    const std::streamsize length = payload.m_lengthOptions;
    if (length > left) {
        SD_LOG(Error) << "SOME_IP_SD header length of options error '" << length << "' expected, but only "
                      << left << " Bytes left!";
        error = true;
        return 0;
    }

    payload.m_options.reserve(usualOptions);
    std::streamsize done = 0;
    while (length - done > optionPrefixSize) {
        std::uint16_t optionLength = 0;
        std::uint8_t typeByte = 0;
        WireReader reader(stream);
        reader.read(optionLength, typeByte);
        if (!isReadable(stream, optionWords, done)) {
            error = true;
            break;
        }
        const std::streamsize size = optionPrefixSize + optionLength;
        if (optionLength == 0 || size > length - done)
            break;

        const auto type = static_cast<OptionType::Type_t>(typeByte);
        const bool isInStep = deserialiseOption(stream, payload.m_options, type, optionLength);
        if (!isReadable(stream, optionWords, done)) {
            error = true;
            break;
        }
        if (!isInStep)
            break;
        done += size;
    }
    if (done != length) {
        SD_LOG(Error) << "Option deserialisation read '" << done << "', but expected '" << length
                      << "' Bytes!";
        error = true;
    }
    return done;
}

}  // namespace Nubo::ServiceDiscovery
