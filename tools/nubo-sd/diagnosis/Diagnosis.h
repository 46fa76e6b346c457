#pragma once

#include <string>
#include <vector>

namespace NuboSd {

struct Picture;

struct Finding
{
    enum class Kind
    {
        Ok,
        Note,
        Bad
    };

    Kind kind;
    std::string what;
    std::string cure;  ///< may be empty
};

/// What the picture shows to be in order, worth knowing, or in the way of service discovery. Looks at nothing
/// else.
std::vector<Finding> diagnose(const Picture& picture);

}  // namespace NuboSd
