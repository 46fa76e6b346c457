#include <KELUtilLib/ApplicationServices.h>

#include <array>
#include <cstddef>
#include <new>

void ServiceLocator::add(std::type_info const& type, Poco::Any const& service)
{
    Poco::Any replaced(service);  // destroyed after the lock is released: a destructor may take time
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_services[type].swap(replaced);
}

void ServiceLocator::remove(std::type_info const& type)
{
    Poco::Any removed;  // as above
    Poco::FastMutex::ScopedLock lock(m_mutex);
    const auto found = m_services.find(type);
    if (found == m_services.end())
        return;
    removed.swap(found->second);
    m_services.erase(found);
}

void ServiceLocator::clear()
{
    std::map<std::type_index, Poco::Any> removed;  // as above
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_services.swap(removed);
}

bool ServiceLocator::find(std::type_info const* type, Poco::Any& service) const
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    const auto found = type ? m_services.find(*type) : m_services.end();
    if (found == m_services.end())
        return false;
    service = found->second;
    return true;
}

ServiceLocator& ApplicationServices::getLocator()
{
    // Threads may use the locator while the process ends, so it is never destroyed. Its services nevertheless
    // end with the static objects: the code of a dispatcher's thread must not be unloaded while it runs.
    alignas(ServiceLocator) static std::array<std::byte, sizeof(ServiceLocator)> place;
    static ServiceLocator& locator = *new (place.data()) ServiceLocator;
    static const struct Clearing
    {
        ~Clearing() { locator.clear(); }
    } atTheEnd;
    return locator;
}
