// The one key of a request that belongs to the bus and not to the method.
#include "SubscriptionWish.h"

#include "valdo.h"

SubscriptionWish SubscriptionWishOf(const valdo::JValue& request) noexcept {
    bool subscribe = false;
    if (request["subscribe"].asBool(subscribe) != valdo::CONV_OK) return SubscriptionWish::None;
    return subscribe ? SubscriptionWish::Enrol : SubscriptionWish::Cancel;
}

SubscriptionWish ReadSubscriptionWish(std::string_view payload) noexcept {
    valdo::JDomParser parser;
    return parser.parse(payload, valdo::JSchemaFragment("{}")) ? SubscriptionWishOf(parser.getDom())
                                                               : SubscriptionWish::None;
}
