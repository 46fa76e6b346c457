#include "support/SystemFaults.h"

#include "support/OperatorNew.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <utility>

#include <dlfcn.h>
#include <ifaddrs.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

thread_local bool isThreadMarked = false;

// The plan. A thread may read it while it is being replaced by the next one.
std::atomic<bool> isArmed{false};
std::atomic<SystemCall> plannedCall{};
std::atomic<std::size_t> firstFailure{0};
std::atomic<std::size_t> failures{0};
constexpr ssize_t noResult = -2;
std::atomic<ssize_t> plannedResult{noResult};
std::atomic<int> plannedError{0};

std::atomic<std::size_t> callsMade{0};

constexpr int none = -1;
std::atomic<int> closedOne{none};  // that a call follows
std::function<void()> afterClose;

/// Whether this call is one of those that the plan is about. Counts it.
bool isHit(SystemCall call) noexcept
{
    if (!isThreadMarked || !isArmed || plannedCall != call)
        return false;
    const std::size_t number = ++callsMade;
    return number >= firstFailure && number - firstFailure < failures;
}

/// The same. Sets errno as the system would.
bool fails(SystemCall call, int error) noexcept
{
    const bool hit = isHit(call);
    if (hit)
        errno = error;
    return hit;
}

/// The function that would be called without this file.
template <class Function>
Function* original(const char* name, Function* /*type*/) noexcept
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// The kind as which a call on the socket counts.
SystemCall kindOn(int socket, SystemCall call) noexcept
{
    if (!isThreadMarked || !isArmed)
        return call;
    const int former = errno;
    int domain = 0;
    socklen_t size = sizeof domain;
    const bool isNetlink =
        ::getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_NETLINK;
    errno = former;
    return isNetlink ? SystemCall::Netlink : call;
}

/// Makes a call that transfers data. When the plan says so, the call fails or returns something else.
template <class Transfer>
ssize_t transfer(int socket, SystemCall call, Transfer make)
{
    if (!isHit(kindOn(socket, call)))
        return make();
    if (plannedResult == noResult) {
        errno = ENOBUFS;
        return -1;
    }
    const ssize_t result = make();
    return result < 0 ? result : plannedResult.load();
}

/// The function and argument of a thread that a marked one starts.
struct Start
{
    void* (*routine)(void*);
    void* argument;
};

void* runMarked(void* start)
{
    const Start copy = *static_cast<Start*>(start);
    std::free(start);
    isThreadMarked = true;
    return copy.routine(copy.argument);
}

}  // namespace

InMarkedThread::InMarkedThread(bool isMarked) : m_wasMarked(isThreadMarked)
{
    isThreadMarked = isMarked;
}

InMarkedThread::~InMarkedThread()
{
    isThreadMarked = m_wasMarked;
}

SystemFault::SystemFault(const Plan& plan) : m_first(plan.first)
{
    if (plan.first == 0 || isArmed)
        throw std::logic_error("SystemFault counts from 1, and one at a time");
    plannedCall = plan.call;
    firstFailure = plan.first;
    failures = plan.count;
    plannedResult = plan.result.value_or(noResult);
    plannedError = plan.error.value_or(0);
    callsMade = 0;
    isArmed = true;
}

SystemFault::~SystemFault()
{
    isArmed = false;
}

std::size_t SystemFault::calls() const
{
    return callsMade;
}

bool SystemFault::happened() const
{
    return callsMade >= m_first;
}

AfterClose::AfterClose(int descriptor, std::function<void()> call)
{
    afterClose = std::move(call);
    closedOne = descriptor;
}

AfterClose::~AfterClose()
{
    closedOne = none;
}

}  // namespace Nubo::ServiceDiscovery::Testing

// Replace those of the C library.

namespace Testing = Nubo::ServiceDiscovery::Testing;
using Testing::SystemCall;

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    static const auto make = Testing::original("socket", &::socket);
    const bool isNetlink = domain == AF_NETLINK;
    if (Testing::fails(isNetlink ? SystemCall::Netlink : SystemCall::Socket, isNetlink ? ENOBUFS : EMFILE))
        return -1;
    return make(domain, type, protocol);
}

int bind(int descriptor, const sockaddr* address, socklen_t size) noexcept
{
    static const auto make = Testing::original("bind", &::bind);
    if (Testing::fails(Testing::kindOn(descriptor, SystemCall::Bind),
                       Testing::plannedError != 0 ? Testing::plannedError.load() : ENOMEM))
        return -1;
    return make(descriptor, address, size);
}

int setsockopt(int descriptor, int level, int option, const void* value, socklen_t size) noexcept
{
    static const auto make = Testing::original("setsockopt", &::setsockopt);
    if (Testing::fails(Testing::kindOn(descriptor, SystemCall::SetOption), ENOBUFS))
        return -1;
    return make(descriptor, level, option, value, size);
}

ssize_t send(int descriptor, const void* bytes, size_t size, int flags)
{
    static const auto make = Testing::original("send", &::send);
    return Testing::transfer(descriptor, SystemCall::Send,
                             [&] { return make(descriptor, bytes, size, flags); });
}

ssize_t sendto(int descriptor, const void* bytes, size_t size, int flags, const sockaddr* address,
               socklen_t addressSize)
{
    static const auto make = Testing::original("sendto", &::sendto);
    return Testing::transfer(descriptor, SystemCall::Send,
                             [&] { return make(descriptor, bytes, size, flags, address, addressSize); });
}

ssize_t sendmsg(int descriptor, const msghdr* message, int flags)
{
    static const auto make = Testing::original("sendmsg", &::sendmsg);
    return Testing::transfer(descriptor, SystemCall::Send, [&] { return make(descriptor, message, flags); });
}

ssize_t recv(int descriptor, void* bytes, size_t size, int flags)
{
    static const auto make = Testing::original("recv", &::recv);
    return Testing::transfer(descriptor, SystemCall::Receive,
                             [&] { return make(descriptor, bytes, size, flags); });
}

ssize_t recvfrom(int descriptor, void* bytes, size_t size, int flags, sockaddr* address,
                 socklen_t* addressSize)
{
    static const auto make = Testing::original("recvfrom", &::recvfrom);
    return Testing::transfer(descriptor, SystemCall::Receive,
                             [&] { return make(descriptor, bytes, size, flags, address, addressSize); });
}

ssize_t recvmsg(int descriptor, msghdr* message, int flags)
{
    static const auto make = Testing::original("recvmsg", &::recvmsg);
    return Testing::transfer(descriptor, SystemCall::Receive,
                             [&] { return make(descriptor, message, flags); });
}

int epoll_create(int size) noexcept
{
    static const auto make = Testing::original("epoll_create", &::epoll_create);
    return Testing::fails(SystemCall::Watch, EMFILE) ? -1 : make(size);
}

int epoll_ctl(int descriptor, int operation, int watched, epoll_event* event) noexcept
{
    static const auto make = Testing::original("epoll_ctl", &::epoll_ctl);
    return Testing::fails(SystemCall::Watch, ENOMEM) ? -1 : make(descriptor, operation, watched, event);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept
{
    static const auto make = Testing::original("pthread_create", &::pthread_create);
    if (!Testing::isThreadMarked)
        return make(thread, attributes, routine, argument);
    if (Testing::isHit(SystemCall::Thread))
        return EAGAIN;
    auto* const start = static_cast<Testing::Start*>(std::malloc(sizeof(Testing::Start)));
    if (!start)
        return EAGAIN;
    *start = {routine, argument};
    const int result = make(thread, attributes, &Testing::runMarked, start);
    if (result != 0)
        std::free(start);
    return result;
}

int close(int descriptor)
{
    static const auto make = Testing::original("close", &::close);
    const int result = make(descriptor);
    int one = descriptor;
    if (result == 0 && Testing::closedOne.compare_exchange_strong(one, Testing::none))
        Testing::afterClose();
    return result;
}

int getifaddrs(ifaddrs** list) noexcept
{
    static const auto make = Testing::original("getifaddrs", &::getifaddrs);
    return Testing::fails(SystemCall::List, ENOBUFS) ? -1 : make(list);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    static const auto make = Testing::original("ioctl", &::ioctl);
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return Testing::fails(SystemCall::Control, ENOBUFS) ? -1 : make(descriptor, request, argument);
}

}  // extern "C"

// Sanitizers replace malloc, so operator new is replaced instead of it.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

void* Testing::newMemory(std::size_t size) noexcept
{
    return fails(SystemCall::Allocate, ENOMEM) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

#else

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) noexcept
{
    return Testing::fails(SystemCall::Allocate, ENOMEM) ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept
{
    return Testing::fails(SystemCall::Allocate, ENOMEM) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept
{
    return Testing::fails(SystemCall::Allocate, ENOMEM) ? nullptr : __libc_realloc(memory, size);
}

}  // extern "C"

#endif
