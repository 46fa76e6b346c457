#pragma once

#include <KELUtilLib/Export.h>

#include <Poco/Any.h>
#include <Poco/Mutex.h>

#include <map>
#include <typeindex>
#include <typeinfo>

/// Registry through which the parts of a process find each other's services by type. All operations are
/// thread-safe.
class KEL_UTIL_EXPORT ServiceLocator
{
public:
    /// Registers `service` under `type`, replacing any previous one. The provider of an interface registers a
    /// Poco::SharedPtr to the base class under the type of the base class:
    ///     locator.add(typeid(OEMInterface::OEMDispatcher), Poco::SharedPtr<OEMInterface::OEMDispatcher>(…));
    void add(std::type_info const& type, Poco::Any const& service);

    /// Removes the service registered under `type`, if any.
    void remove(std::type_info const& type);

    /// Removes all services.
    void clear();

    /// Copies the service registered under `*type` to `service` and returns true. Returns false and leaves
    /// `service` unchanged when there is none or `type` is null.
    bool find(std::type_info const* type, Poco::Any& service) const;

private:
    mutable Poco::FastMutex m_mutex;
    std::map<std::type_index, Poco::Any> m_services;
};

/// The platform's services for every process.
class KEL_UTIL_EXPORT ApplicationServices
{
public:
    /// Returns the process's only service locator. Threads may use it at any time, even while the process
    /// ends.
    ///
    /// The locator is cleared when the process destroys its static objects, or unloads the library. Services
    /// without other references are then destroyed on the thread that ends the process, and later look-ups
    /// find nothing. A NetlinkDispatcher in the locator thus ends its thread before the code of any library
    /// is unloaded. To destroy a service earlier, remove() it before main() returns.
    static ServiceLocator& getLocator();
};
