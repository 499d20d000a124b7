// The one key of a request that belongs to the bus and not to the method.
#include "SubscriptionWish.h"

#include "valdo.h"

SubscriptionWish ReadSubscriptionWish(std::string_view payload) noexcept {
    valdo::JDomParser parser;
    if (!parser.parse(payload, valdo::JSchemaFragment("{}"))) return SubscriptionWish::None;
    bool subscribe = false;
    if (parser.getDom()["subscribe"].asBool(subscribe) != valdo::CONV_OK) return SubscriptionWish::None;
    return subscribe ? SubscriptionWish::Enrol : SubscriptionWish::Cancel;
}
