#include "testing/interruptions.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

namespace test_support {

namespace {

TEST(Interruptions, EndACallThatBlocks) {
  const Interruptions interruptions;
  const Channel pipe = makePipe();
  std::thread writer = interruptions.startThread([&] {
    interruptions.await(50);
    EXPECT_EQ(write(pipe.writeEnd.number(), "", 1), 1);  // which ends a call that was started again
  });
  char byte = 0;
  EXPECT_EQ(read(pipe.readEnd.number(), &byte, 1), -1);
  EXPECT_EQ(errno, EINTR);
  writer.join();
}

}  // namespace

}  // namespace test_support
