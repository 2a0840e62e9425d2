// Loads a plug-in that uses the library, and unloads it. Arguments: MODULE keep|destroy STATUS
#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace {

bool kept = false;

}  // namespace

// The leak check reads the storage of threads that run on, and fails itself if that came with a
// module.
extern "C" int __lsan_is_turned_off() {
  return kept ? 1 : 0;
}

extern "C" const char* __tsan_default_options() {
  return "report_thread_leaks=0 atexit_sleep_ms=0";
}

int main(int count, char** values) {
  alarm(30);
  if (count != 4) return 100;
  void* const module = dlopen(values[1], RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) return 101;
  const auto make = reinterpret_cast<void* (*)()>(dlsym(module, "makeObjects"));
  const auto destroy = reinterpret_cast<void (*)(void*)>(dlsym(module, "destroyObjects"));
  void* const objects = make == nullptr || destroy == nullptr ? nullptr : make();
  if (objects == nullptr) return 102;
  kept = values[2] == std::string("keep");
  if (!kept) destroy(objects);
  const auto begun = std::chrono::steady_clock::now();
  if (write(3, &begun, sizeof begun) != sizeof begun || dlclose(module) != 0) return 103;
  if (dlopen(values[1], RTLD_NOW | RTLD_NOLOAD) != nullptr) return 104;  // it is gone
  usleep(20000);  // what was kept runs on, unseen by this program
  return std::atoi(values[3]);
}
