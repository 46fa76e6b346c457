#pragma once

#include "common/Target.h"

#include <Poco/MemoryStream.h>

#include <algorithm>
#include <cstddef>
#include <ios>
#include <sstream>
#include <string>
#include <string_view>

/// Properties of all objects that are read from bytes and written to bytes.
namespace Nubo::ServiceDiscovery::Fuzzing {

/// Whether formatted input would skip one of the bytes. For compatibility, TTLs and reserved bytes are read
/// as formatted input: everything after a skipped byte is read at the wrong position and may differ from what
/// was sent.
inline bool hasWhiteSpace(std::string_view bytes)
{
    return bytes.find_first_of("\t\n\v\f\r ") != std::string_view::npos;
}

/// Returns the bytes that the object's stream operator writes.
template <class Object>
std::string written(const Object& object)
{
    std::ostringstream stream;
    stream << object;
    return stream.str();
}

/// An object that was read.
template <class Pointer>
struct Received
{
    Pointer object;
    /// The object is valid and the stream is good. The object alone is not enough: an option that is cut off
    /// where a wrong length field ends it considers itself complete.
    bool isValid;
    std::size_t consumed;  ///< number of bytes read; 0 if the stream failed
};

/// Creates an object with `make` and reads it from the bytes after the first `prefix` ones.
template <class Make>
auto receive(std::string_view bytes, std::size_t prefix, Make make)
{
    Received<decltype(make(bytes))> received{make(bytes), false, 0};
    const std::string_view rest = bytes.substr(prefix);
    Poco::MemoryInputStream stream(rest.data(), static_cast<std::streamsize>(rest.size()));
    stream >> *received.object;
    received.isValid = stream.good() && received.object->isValid();
    if (stream.good())
        received.consumed = static_cast<std::size_t>(stream.tellg());
    require(!received.object->toString(1).empty(), "what was read can be shown in the log");
    return received;
}

/// Does the same. If the object is valid, checks that writing and reading it again does not change it.
template <class Make>
auto checkRoundTrip(std::string_view bytes, std::size_t prefix, Make make)
{
    auto received = receive(bytes, prefix, make);
    if (received.isValid) {
        const auto& object = *received.object;
        const std::string once = written(object);
        require(once.size() == object.getSize(), "the size is the number of bytes that are written");

        const auto again = receive(once, prefix, make);
        require(again.isValid, "what was read as valid and written is valid when it is read again");
        require(written(*again.object) == once, "what was read, written and read again is written as before");
    }
    return received;
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
