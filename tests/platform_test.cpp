// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>

#include "runeflow/platform/semaphore_p.h"
#include "runeflow/platform/system_calls_p.h"
#include "runeflow/platform/thread_p.h"
#include "runeflow/platform/unique_function.h"
#include "support.h"

namespace runeflow {
namespace {

int twice(int number) {
  return 2 * number;
}

TEST(UniqueFunction, ownsWhatCannotBeCopied) {
  auto owned = std::make_unique<int>(20);
  UniqueFunction<int(int)> add = [owned = std::move(owned)](int more) { return *owned += more; };
  EXPECT_EQ(add(1), 21);
  UniqueFunction<int(int)> moved = std::move(add);
  EXPECT_EQ(moved(1), 22);
  EXPECT_FALSE(add);  // NOLINT(bugprone-use-after-move): a moved-from object is empty
}

TEST(UniqueFunction, destroysItsCallableOnce) {
  const auto watched = std::make_shared<int>();
  {
    UniqueFunction<void()> held = [watched] {};
    EXPECT_EQ(watched.use_count(), 2);
    held = nullptr;
    EXPECT_EQ(watched.use_count(), 1);
    held = [watched] {};
    UniqueFunction<void()> other = std::move(held);
    EXPECT_EQ(watched.use_count(), 2);
  }
  EXPECT_EQ(watched.use_count(), 1);
}

TEST(UniqueFunction, isEmptyForNullPointers) {
  int (*nothing)(int) = nullptr;
  EXPECT_FALSE(UniqueFunction<int(int)>());
  EXPECT_FALSE(UniqueFunction<int(int)>(nullptr));
  EXPECT_FALSE(UniqueFunction<int(int)>(nothing));
  EXPECT_EQ(UniqueFunction<int(int)>(twice)(4), 8);
}

TEST(UniqueFunction, passesArgumentsThroughAndDropsResults) {
  std::string text = "a";
  UniqueFunction<std::string&(std::string&)> append = [](std::string& to) -> std::string& {
    return to += "b";
  };
  EXPECT_EQ(&append(text), &text);
  UniqueFunction<void(std::unique_ptr<int>)> take = [](std::unique_ptr<int> number) {
    return *number;
  };
  take(std::make_unique<int>(1));
  EXPECT_EQ(text, "ab");
}

TEST(SystemCalls, openDescriptorsThatChildrenDoNotInherit) {
  system_calls::Pipe pipe;
  ASSERT_TRUE(system_calls::openPipe(pipe));
  const FileDescriptor socket(system_calls::openSocket(AF_INET, SOCK_STREAM, 0));
  for (const int fd : {pipe.readEnd.get(), pipe.writeEnd.get(), socket.get()}) {
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  }
  ASSERT_EQ(::write(pipe.writeEnd.get(), "x", 1), 1);
  char byte = 0;
  EXPECT_EQ(::read(pipe.readEnd.get(), &byte, 1), 1);
}

TEST(Thread, leavesTheSignalMaskOfItsCreator) {
  Semaphore done;
  UniqueFunction<void()> body = [&] { done.release(); };
  ASSERT_TRUE(startThread({"test", std::size_t{1} << 20}, body));
  done.acquire();
  sigset_t mask;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
  EXPECT_EQ(sigismember(&mask, SIGINT), 0);
}

}  // namespace
}  // namespace runeflow
