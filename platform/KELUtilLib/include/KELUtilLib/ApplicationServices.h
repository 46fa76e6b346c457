#pragma once

#include <KELUtilLib/Export.h>

#include <Poco/Any.h>
#include <Poco/Mutex.h>

#include <map>
#include <typeindex>
#include <typeinfo>

/// Where the parts of a process find what others provide, by its type. All operations are thread-safe.
class KEL_UTIL_EXPORT ServiceLocator
{
public:
    /// Offers `service` under `type`; what stood there before is replaced. A provider of interfaces puts a
    /// Poco::SharedPtr to the base class in, under the base class's type:
    ///     locator.add(typeid(OEMInterface::OEMDispatcher), Poco::SharedPtr<OEMInterface::OEMDispatcher>(…));
    void add(std::type_info const& type, Poco::Any const& service);

    /// Takes back what stands under `type`, if anything.
    void remove(std::type_info const& type);

    /// Takes back everything.
    void clear();

    /// Puts what stands under `*type` into `service` and returns true; false, and `service` as it was, when
    /// there is nothing or `type` is null.
    bool find(std::type_info const* type, Poco::Any& service) const;

private:
    mutable Poco::FastMutex m_mutex;
    std::map<std::type_index, Poco::Any> m_services;
};

/// What the platform gives every process.
class KEL_UTIL_EXPORT ApplicationServices
{
public:
    /// The process's one service locator. Threads may use it to the last, also while the process ends.
    ///
    /// It gives its services up when the process destroys its static objects, or unloads the library: one
    /// that nobody else holds ends there, on the thread that ends the process, and from then on none is
    /// found. A NetlinkDispatcher in the locator so ends its thread before the code of any library goes away.
    /// To end a service earlier, remove() it before main() returns.
    static ServiceLocator& getLocator();
};
