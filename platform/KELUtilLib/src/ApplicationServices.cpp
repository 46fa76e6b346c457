#include <KELUtilLib/ApplicationServices.h>

void ServiceLocator::add(std::type_info const& type, Poco::Any const& service)
{
    Poco::Any replaced(service);  // ends after the lock is given back: what it holds may take time to end
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
    static ServiceLocator locator;
    return locator;
}
