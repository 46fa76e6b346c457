#pragma once

#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/ImplementedBy.h"

#include <string>

/// Checks that entry and option classes make of their implementation object after construction. The functions
/// return the text of the fault, empty without one.
namespace Nubo::ServiceDiscovery {

/// An object made to be filled by reading must not be valid yet.
inline std::string faultOfEmpty(const char* kind, bool isValid, bool hasRightClass)
{
    if (!hasRightClass)
        return std::string("Implementation of ") + kind + " has wrong type in default Constructor!";
    return isValid ? std::string(kind) + " data should not be valid in default Constructor!" : std::string();
}

/// An object made from values must be valid. `form` names the form of the values where several exist ("Array
/// ", "String ").
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

/// What a constructor expects of the object that it has made, and what it does about a fault.
struct ConstructionCheck
{
    const char* form;  ///< null for an object to be filled by reading
    const char* kind;
    void (*report)(const std::string& fault);

    std::string faultOf(bool isValid, bool hasRightClass) const
    {
        return form ? faultOfValues(form, kind, isValid, hasRightClass)
                    : faultOfEmpty(kind, isValid, hasRightClass);
    }
};

constexpr ConstructionCheck toBeRead(const char* kind, void (*report)(const std::string&) = logFault)
{
    return {nullptr, kind, report};
}

constexpr ConstructionCheck ofValues(const char* form, const char* kind,
                                     void (*report)(const std::string&) = logFault)
{
    return {form, kind, report};
}

template <class Base, class Implementation>
ImplementedBy<Base, Implementation>::ImplementedBy(Implementation* implementation,
                                                   const ConstructionCheck& check)
    : Base(implementation)
    , m_thisImplementation(implementation)
{
    check.report(check.faultOf(this->isValid(), implementation != nullptr));
}

}  // namespace Nubo::ServiceDiscovery
