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

/// Applies all rules to the picture. Pure: reads nothing else.
std::vector<Finding> diagnose(const Picture& picture);

}  // namespace NuboSd
