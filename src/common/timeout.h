// The time-out, in seconds, that the library gives every request it hands to the platform.
#pragma once

namespace tvx {

inline constexpr int kPlatformTimeout = 60;

} // namespace tvx
