#include "testing/interruptions.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace test_support {

namespace {

volatile std::sig_atomic_t deliveredEnd = -1;

void reportDelivery(int /*signal*/) {
  const int savedError = errno;
  const ssize_t written = write(deliveredEnd, "", 1);  // where the pipe is full, one byte less does no harm
  static_cast<void>(written);
  errno = savedError;
}

void handleAlarm(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;  // and no SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
}

void startTimer(int microseconds) {
  const itimerval interval = {{0, microseconds}, {0, microseconds}};
  setitimer(ITIMER_REAL, &interval, nullptr);
}

void maskAlarm(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGALRM);
  pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

Interruptions::Interruptions() : delivered_(makePipe()) {
  EXPECT_EQ(fcntl(delivered_.writeEnd.number(), F_SETFL, O_NONBLOCK), 0);
  deliveredEnd = delivered_.writeEnd.number();
  handleAlarm(reportDelivery);
  startTimer(1000);
}

Interruptions::~Interruptions() {
  startTimer(0);
  handleAlarm(SIG_IGN);
}

std::thread Interruptions::startThread(const std::function<void()>& work) const {
  maskAlarm(SIG_BLOCK);  // the new thread inherits this
  std::thread thread(work);
  maskAlarm(SIG_UNBLOCK);
  return thread;
}

void Interruptions::await(int count) const {
  char byte = 0;
  for (; count > 0; --count) EXPECT_EQ(read(delivered_.readEnd.number(), &byte, 1), 1);
}

}  // namespace test_support
