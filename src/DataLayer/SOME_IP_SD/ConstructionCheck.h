#pragma once

#include "DataLayer/Log.h"

#include <string>

/// What entry and option classes check of their implementation object after construction. The functions
/// return the text of the fault, empty without one.
namespace Nubo::ServiceDiscovery {

/// An object made to be filled by reading must not be valid yet.
inline std::string faultOfEmpty(const char* kind, bool isValid, bool hasRightClass)
{
    if (!hasRightClass)
        return std::string("Implementation of ") + kind + " has wrong type in default Constructor!";
    return isValid ? std::string(kind) + " data should not be valid in default Constructor!" : std::string();
}

/// An object made from values must be valid. `form` tells the values' form where there are several
/// ("Array ", "String ").
inline std::string faultOfValues(const char* form, const char* kind, bool isValid, bool hasRightClass)
{
    if (!hasRightClass)
        return std::string("Implementation of ") + kind + " has wrong type!";
    return isValid ? std::string() : std::string(form) + kind + " data invalid!";
}

inline void logFault(const std::string& fault)
{
    if (!fault.empty())
        SD_LOG(Error) << fault;
}

}  // namespace Nubo::ServiceDiscovery
