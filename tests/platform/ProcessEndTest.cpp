#include <KELUtilLib/ApplicationServices.h>
#include <KELUtilLib/Logging.h>

#include <Poco/Any.h>
#include <Poco/SharedPtr.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <thread>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

std::atomic<unsigned> calls{0};
std::atomic<bool> outlivesStatics{false};

bool comeMoreCalls()
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const unsigned before = calls;
    while (calls - before < 100) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

/// Keeps the process until its threads have done more without any static object.
void outlive(int /*status*/, void*)
{
    if (outlivesStatics && !comeMoreCalls())
        std::_Exit(EXIT_FAILURE);
}

void registerOutlive()
{
    ::on_exit(outlive, nullptr);  // atexit() would tie it to the program, which ends before its libraries
}

// Runs before the libraries make their static objects, so that outlive() is called after these are destroyed.
[[gnu::section(".preinit_array"), gnu::used]] void (*const beforeAllLibraries)() = registerOutlive;

/// Ends the process while a thread repeats the action, and goes on with it when all static objects are gone.
[[noreturn]] void exitDuring(std::function<void()> action)
{
    std::thread([action = std::move(action)] {
        for (;;) {
            action();
            ++calls;
        }
    }).detach();
    outlivesStatics = comeMoreCalls();
    std::exit(outlivesStatics ? EXIT_SUCCESS : EXIT_FAILURE);
}

struct Service
{
    ~Service() { std::cerr << "service ends\n"; }
};

void offerService()
{
    ApplicationServices::getLocator().add(typeid(Service), Poco::SharedPtr<Service>(new Service));
}

}  // namespace

TEST(ProcessEndTest, ThreadsMayLogWhileTheProcessEnds)
{
    const auto log = [] {
        Logging::LogStream(Logging::Log::Logger(), Poco::Message::PRIO_TRACE) << "Trace: still here";
    };
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_TRACE);

    EXPECT_EXIT(exitDuring(log), ::testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST(ProcessEndTest, ThreadsMayUseTheLocatorWhileTheProcessEnds)
{
    const auto find = [] {
        Poco::Any found;
        ApplicationServices::getLocator().find(&typeid(Service), found);
    };

    EXPECT_EXIT(
        {
            offerService();
            exitDuring(find);
        },
        ::testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST(ProcessEndTest, ServicesEndWithTheProcess)
{
    EXPECT_EXIT(
        {
            offerService();
            std::exit(EXIT_SUCCESS);
        },
        ::testing::ExitedWithCode(EXIT_SUCCESS), "service ends");
}

TEST(ProcessEndTest, ServiceMayUseTheLocatorWhileItEndsWithTheProcess)
{
    struct Withdrawing
    {
        ~Withdrawing() { ApplicationServices::getLocator().remove(typeid(Service)); }
    };

    EXPECT_EXIT(
        {
            ApplicationServices::getLocator().add(typeid(Withdrawing),
                                                  Poco::SharedPtr<Withdrawing>(new Withdrawing));
            offerService();
            std::exit(EXIT_SUCCESS);
        },
        ::testing::ExitedWithCode(EXIT_SUCCESS), "service ends");
}

}  // namespace Nubo::ServiceDiscovery::Testing
