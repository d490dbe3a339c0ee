// A test body in a child process of its own, for what the library decides once per process
// (the board number, the partition it runs on). The child's failures fail the test.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include <gtest/gtest.h>

namespace tvxtest {

inline void inFreshProcess(const std::function<void()> &f)
{
    std::fflush(stdout);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const testing::TestResult *result = testing::UnitTest::GetInstance()->current_test_info()->result();
        int before = result->total_part_count();
        f();
        std::fflush(stdout);
        _exit(result->total_part_count() == before ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child process failed";
}

} // namespace tvxtest
