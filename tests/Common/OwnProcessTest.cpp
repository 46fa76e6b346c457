#include <Common/OwnProcess.h>

#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Common::Testing {

namespace {

enum Outcome
{
    isThis = 1,
    isAnother,
    isUnsure
};

/// Returns the exit code of a forked child that performs the action.
template <class Action>
int exitCodeOfChild(Action action)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(action());
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(OwnProcessTest, EveryThreadOfTheProcessIsInIt)
{
    const OwnProcess process;
    bool isIn = false;

    std::thread([&] { isIn = process.isThis(); }).join();

    EXPECT_TRUE(process.isThis());
    EXPECT_TRUE(isIn);
}

TEST(OwnProcessTest, ForkedChildIsAnother)
{
    const OwnProcess process;

    EXPECT_EQ(exitCodeOfChild([&] { return process.isThis() ? isThis : isAnother; }), isAnother);
}

TEST(OwnProcessTest, WhatAChildMakesIsItsOwn)
{
    EXPECT_EQ(exitCodeOfChild([] { return OwnProcess().isThis() ? isThis : isAnother; }), isThis);
}

/// The first process of every PID namespace has the number 1.
TEST(OwnProcessTest, ChildWithTheSameNumberIsAnother)
{
    const int code = exitCodeOfChild([] {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWPID) != 0)
            return isUnsure;
        return static_cast<Outcome>(exitCodeOfChild([] {
            const OwnProcess first;
            if (::getpid() != 1 || ::unshare(CLONE_NEWPID) != 0)
                return isUnsure;
            return static_cast<Outcome>(exitCodeOfChild([&] {
                if (::getpid() != 1)
                    return isUnsure;
                return first.isThis() ? isThis : isAnother;
            }));
        }));
    });

    if (code == isUnsure)
        GTEST_SKIP() << "SKIPPED: the kernel allows no PID namespaces";
    EXPECT_EQ(code, isAnother);
}

TEST(NoReturnInChildrenTest, OnlyAChildEnds)
{
    {
        const NoReturnInChildren inParent;
    }

    EXPECT_EQ(exitCodeOfChild([forked = std::make_unique<NoReturnInChildren>()]() mutable {
                  forked.reset();
                  return isThis;
              }),
              EXIT_SUCCESS);
}

TEST(NoReturnInChildrenTest, ChildThatMakesItGoesOn)
{
    EXPECT_EQ(exitCodeOfChild([] {
                  const NoReturnInChildren inChild;
                  return isThis;
              }),
              isThis);
}

}  // namespace Common::Testing
