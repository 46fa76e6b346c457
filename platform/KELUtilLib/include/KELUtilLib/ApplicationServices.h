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
    /// The process's one service locator.
    static ServiceLocator& getLocator();
};
