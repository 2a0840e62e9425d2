#pragma once

namespace brix {

/// Lets processEnds() tell objects that exist already that they are being destroyed because the
/// process ends, whichever thread ends it.
void watchProcessEnd() noexcept;

/// As above, for an end by the calling thread, however early it comes. The thread that loads the
/// library needs no call.
void watchEndByThisThread() noexcept;

/// Every thread may take the process for ended from now on.
void announceProcessEnd() noexcept;

/// @return whether the process has begun to end
bool processEnds() noexcept;

}  // namespace brix
