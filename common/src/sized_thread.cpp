#include "sized_thread.h"

#include <memory>
#include <system_error>
#include <utility>

#include "callback_guard.h"
#include "log_macros.h"
#include "process_end.h"

namespace brix {
namespace {

void* run(void* argument) {
  const std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(argument));
  guarded("thread exception: %s", *body);
  return nullptr;
}

}  // namespace

bool SizedThread::start(const char* what, std::size_t stackBytes, std::function<void()> body) {
  auto argument = std::make_unique<std::function<void()>>(std::move(body));
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stackBytes);  // refused: the default, which is larger
  const int error = pthread_create(&thread_, &attributes, &run, argument.get());
  pthread_attr_destroy(&attributes);
  joinable_ = error == 0;
  if (joinable_) {
    argument.release();  // NOLINT(bugprone-unused-return-value): the thread's now
  } else {
    BRIX_LOG_ERROR("start thread failed, %s: %s", what,
                   std::generic_category().message(error).c_str());
  }
  return joinable_;
}

void SizedThread::join() noexcept {
  if (std::exchange(joinable_, false)) joinOrLeave(thread_);
}

void SizedThread::detach() noexcept {
  if (std::exchange(joinable_, false)) pthread_detach(thread_);
}

}  // namespace brix
