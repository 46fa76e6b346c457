#pragma once

#include "common/Target.h"

#include <Poco/MemoryStream.h>

#include <algorithm>
#include <cstddef>
#include <ios>
#include <sstream>
#include <string>
#include <string_view>

/// The properties that hold for everything that is read from bytes and written to them.
namespace Nubo::ServiceDiscovery::Fuzzing {

/// Whether there is a byte over which formatted input passes. TTLs and reserved bytes are read that way, for
/// compatibility: what follows such a byte is read out of step, and need not be what was sent.
inline bool hasWhiteSpace(std::string_view bytes)
{
    return bytes.find_first_of("\t\n\v\f\r ") != std::string_view::npos;
}

/// What the object's stream operator writes.
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
    /// Its own word is not enough: an option that is cut where a wrong length field says that it ends takes
    /// itself for whole. Its reader looks at the stream, too.
    bool isValid;
    std::size_t consumed;  ///< bytes, unless the stream failed
};

/// Reads the object that `make` makes for these bytes from what follows the first `prefix` of them.
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

/// Does the same, and checks what came of it if that is valid.
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
