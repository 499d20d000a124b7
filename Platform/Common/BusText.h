// Text as the bus takes it: UTF-8 without a zero byte and without noncharacters, the code points that Unicode keeps out
// of every interchange (U+FDD0 to U+FDEF, and the last two of each plane). JSON text may hold them, the bus refuses a
// whole message for one.
#pragma once

#include <string>
#include <string_view>

[[nodiscard]] bool IsFitForBus(std::string_view text) noexcept;

// Puts U+FFFD in the place of each noncharacter of a valid UTF-8 text. Takes no memory.
void ReplaceNoncharacters(std::string& text) noexcept;
