// Settings are read once, when the library loads. A reader of a setting
// keeps its value together with the epoch it was read in; the epoch moves
// only when a test asks for the settings to be read again
// (platform::testing::rereadSettings), so outside tests a value is read
// exactly once.
#pragma once

#include <cstdint>

namespace platform {

uint32_t settingsEpoch();

}  // namespace platform
