#include "drop_report.h"

#include "log_macros.h"

namespace brix {
namespace {

constexpr double kLineMs = 1000;

}  // namespace

void DropReport::tell() {
  if (dropped_ == 0) return;
  std::lock_guard<std::mutex> lock(mutex_);
  log_time::timer_end(sinceLine_);
  if (dropped_ == 0 || (told_ && sinceLine_.elapsed < kLineMs)) return;
  log_time::timer_start(sinceLine_);
  told_ = true;
  BRIX_LOG_ERROR("too many bytes queued, oldest texts dropped: %d", dropped_.exchange(0));
}

}  // namespace brix
