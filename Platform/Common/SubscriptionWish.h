// What a request says about its caller's subscription.
#pragma once

#include <cstdint>
#include <string_view>

namespace valdo {
class JValue;
}

enum class SubscriptionWish : uint8_t { None, Enrol, Cancel };

// "subscribe" of a request: true enrols, false cancels. Any other value, or a request that is no JSON object, is
// no wish.
[[nodiscard]] SubscriptionWish SubscriptionWishOf(const valdo::JValue& request) noexcept;
[[nodiscard]] SubscriptionWish ReadSubscriptionWish(std::string_view payload) noexcept;
