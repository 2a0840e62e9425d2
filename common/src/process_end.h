#pragma once

namespace brix {

/// Lets processEnds() tell static objects that were made before this call that they are being
/// destroyed because the process ends.
void watchProcessEnd() noexcept;

/// @return whether the process has begun to end
bool processEnds() noexcept;

}  // namespace brix
