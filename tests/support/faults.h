// Troubles of the system, on demand. Defines pthread_create, which the library then calls: include
// it in one source file of a program.
#pragma once

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>

namespace test {

inline std::atomic<int> threadThatFails{0};  // 1: the next one to be created; 0: none

inline void limitDescriptors(int limit) {
  rlimit limits{};
  getrlimit(RLIMIT_NOFILE, &limits);
  limits.rlim_cur = static_cast<rlim_t>(limit);
  setrlimit(RLIMIT_NOFILE, &limits);
}

inline std::atomic<int> signalCount{0};

/// Interrupts the process that often, the main thread if possible; no system call is restarted.
/// @param periodUs  0 ends it
inline void interruptEach(int periodUs) {
  struct sigaction action {};
  action.sa_handler = [](int) { ++signalCount; };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval timer{{0, periodUs}, {0, periodUs}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace test

extern "C" inline __attribute__((used)) int pthread_create(pthread_t* thread,
                                                           const pthread_attr_t* attributes,
                                                           void* (*body)(void*),
                                                           void* argument) noexcept {
  static const auto create =
      reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (test::threadThatFails > 0 && --test::threadThatFails == 0) return EAGAIN;
  return create(thread, attributes, body, argument);
}
