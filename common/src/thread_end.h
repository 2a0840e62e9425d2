#pragma once

#include <cxxabi.h>

/// For functions with `catch (abi::__forced_unwind&)`, which lets the end of a thread by
/// pthread_exit or pthread_cancel pass a catch-all: that object has no address, and binding a
/// reference to it is reported.
#define BRIX_SEES_THREAD_END __attribute__((no_sanitize("null", "alignment")))
