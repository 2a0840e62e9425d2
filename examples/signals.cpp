#include "signals.h"

#include <pthread.h>

#include <csignal>
#include <ctime>

namespace arm {

namespace {

sigset_t endSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

SignalWatch::SignalWatch() {
  const sigset_t set = endSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // cannot fail with these arguments
}

int SignalWatch::wait() const {
  const sigset_t set = endSignals();
  int signal = 0;
  while (sigwait(&set, &signal) != 0) {
  }
  return signal;
}

int SignalWatch::poll() const {
  const sigset_t set = endSignals();
  const timespec noWait{};
  const int signal = sigtimedwait(&set, nullptr, &noWait);
  return signal > 0 ? signal : 0;
}

}  // namespace arm
