#pragma once

#include <Poco/Exception.h>

#include <cstddef>
#include <stdexcept>

namespace Nubo::ServiceDiscovery::Testing {

/// For code that must survive whatever is thrown: the first call throws "disk full" as a Poco::IOException,
/// the second "out of luck" as a std::runtime_error, the third an int. Later ones return.
inline void throwOneOfEachKind(std::size_t call)
{
    switch (call) {
        case 1:
            throw Poco::IOException("disk full");
        case 2:
            throw std::runtime_error("out of luck");
        case 3:
            throw 42;
        default:
            break;
    }
}

}  // namespace Nubo::ServiceDiscovery::Testing
