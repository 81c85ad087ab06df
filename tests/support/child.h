// The children that tests fork.
#ifndef QUORVEL_TESTS_SUPPORT_CHILD_H_
#define QUORVEL_TESTS_SUPPORT_CHILD_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

// Awaits a child: its exit status, or the negative status of one that did not exit.
inline int StatusOf(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -status;
}

// Runs the body in a child: 0 when it returns in time without a failed expectation.
template <typename Body>
int StatusInChild(const Body& body) {
  constexpr unsigned kDeadline = 60;
  const pid_t child = fork();
  if (child == 0) alarm(kDeadline), body(), _exit(testing::Test::HasFailure() ? 1 : 0);
  return StatusOf(child);
}

// Runs the body in a child, in which nothing may fail.
template <typename Body>
void RunInChild(const Body& body) {
  EXPECT_EQ(StatusInChild(body), 0);
}

#endif  // QUORVEL_TESTS_SUPPORT_CHILD_H_
