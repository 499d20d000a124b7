// Enrolled callers.
//
// A caller is enrolled under category, method and subject as often as it asked, up to kVSMaxEnrolled calls in all. It
// is watched from its first enrolment on, so that its departure is noticed, until nothing is left to know of it.
// However an enrolment ends, it is taken off the books first; then the cancel function runs for each of its calls.
#include <algorithm>
#include <cerrno>
#include <numeric>

#include "BusService.h"
#include "DebugServices.h"
#include "SubscriptionWish.h"

namespace {

bool IsUnder(const BusEnrolment& enrolment, const BusCategory* category, std::string_view method) {
    return enrolment.category == category && method == enrolment.method;
}

// The one that this call is, or would be, part of.
auto FindEnrolment(BusPeer& peer, const VSMessage& message) {
    return std::find_if(peer.enrolments.begin(), peer.enrolments.end(), [&](auto& enrolment) {
        return IsUnder(enrolment, message.category, message.name) && enrolment.subject == message.subject;
    });
}

size_t CountCalls(const BusPeer& peer) {
    return std::accumulate(peer.enrolments.begin(), peer.enrolments.end(), size_t{0},
                           [](size_t sum, auto& enrolment) { return sum + enrolment.count; });
}

// Tells the daemon that the calls of an enrolment, which is off the books, have ended.
void ReportCancelled(VSHandle* handle, const BusEnrolment& enrolment) noexcept {
    if (handle->cancelFunction == nullptr) return;
    for (size_t i = 0; i < enrolment.count; ++i) {
        VSMessage message{.category = enrolment.category, .name = enrolment.method};
        try {
            (void)handle->cancelFunction(handle, &message, handle->cancelContext);
        } catch (...) {
            DebugPrintF(kBusErrorLevel, "%s: %s: exception\n", __func__, enrolment.method);
        }
    }
}

// Takes an enrolment off the books, with the posts that were still wanted under it. The peer may be gone then.
void End(BusPeer& peer, std::vector<BusEnrolment>::iterator place) noexcept {
    VSHandle* handle = peer.handle;
    const BusEnrolment ended = std::move(*place);
    peer.enrolments.erase(place);
    std::erase_if(peer.wanted, [&](auto& news) {
        return !BusIsEnrolled(peer, news->category, news->method, news->subject.c_str());
    });
    BusForgetIdle(handle, peer.name);
    ReportCancelled(handle, ended);
}

// Ends the caller's enrolled calls under the message's method, whatever their subjects.
void Cancel(const VSMessage& message) noexcept {
    VSHandle* handle = message.category->handle;
    for (BusPeer* peer = BusFindPeer(handle, message.caller); peer != nullptr;
         peer = BusFindPeer(handle, message.caller)) {
        const BusEnrolment* first = BusFirstEnrolment(*peer, message.category, message.name);
        if (first == nullptr) return;
        End(*peer, peer->enrolments.begin() + (first - peer->enrolments.data()));
    }
}

// 1 when the peer's leaving will be noticed, 0 when too many are watched already, or a negative errno value.
int Watch(BusPeer& peer) {
    if (peer.watched) return 1;
    const auto& peers = peer.handle->peers;
    const auto watched = std::count_if(peers.begin(), peers.end(), [](auto& other) { return other->watched; });
    if (static_cast<size_t>(watched) >= kVSMaxSubscribers) {
        DebugPrintF(kBusWarningLevel, "%s: %s is not enrolled: %d others are\n", __func__, peer.name, watched);
        return 0;
    }
    const int status = peer.handle->connection->Watch(peer);
    peer.watched = status >= 0;
    return status < 0 ? status : 1;
}

// 1 when the call was enrolled, 0 when the caller has enough or cannot be watched, or a negative errno value.
int Enrol(VSMessage& message) {
    VSHandle* handle = message.category->handle;
    BusPeer& peer = BusFindOrAddPeer(handle, message.caller);
    const int watched = CountCalls(peer) < kVSMaxEnrolled ? Watch(peer) : 0;
    if (watched <= 0) {
        BusForgetIdle(handle, message.caller);
        return watched;
    }
    const auto place = FindEnrolment(peer, message);
    if (place == peer.enrolments.end())
        peer.enrolments.push_back({message.category, message.method->name, message.subject, 1});
    else
        ++place->count;
    message.enrolled = true;
    return 1;
}

}  // namespace

bool BusIsEnrolled(const BusPeer& peer, const BusCategory* category, std::string_view method,
                   const char* subject) noexcept {
    return std::any_of(peer.enrolments.begin(), peer.enrolments.end(), [=](auto& enrolment) {
        return IsUnder(enrolment, category, method) &&
               (subject == nullptr || enrolment.subject.empty() || enrolment.subject == subject);
    });
}

BusEnrolment* BusFirstEnrolment(BusPeer& peer, const BusCategory* category, std::string_view method) noexcept {
    const auto place = std::find_if(peer.enrolments.begin(), peer.enrolments.end(),
                                    [=](auto& enrolment) { return IsUnder(enrolment, category, method); });
    return place == peer.enrolments.end() ? nullptr : &*place;
}

void BusWithdraw(VSMessage& message) noexcept {
    BusPeer* peer = BusFindPeer(message.category->handle, message.caller);
    if (!message.enrolled || peer == nullptr) return;
    message.enrolled = false;
    const auto place = FindEnrolment(*peer, message);
    if (place == peer->enrolments.end()) return;
    if (place->count == 1) return End(*peer, place);
    --place->count;
    ReportCancelled(message.category->handle, {message.category, message.method->name, {}, 1});
}

void BusDrop(BusPeer& peer) noexcept {
    VSHandle* handle = peer.handle;
    const std::vector<BusEnrolment> ended = std::move(peer.enrolments);
    peer.enrolments.clear();
    peer.wanted.clear();
    BusForgetIdle(handle, peer.name);
    for (const BusEnrolment& enrolment : ended) ReportCancelled(handle, enrolment);
}

bool VSSubscriptionSetCancelFunction(VSHandle* handle, VSMethodFunction function, void* context,
                                     VSError* error) noexcept {
    if (handle == nullptr) return BusFail(error, EINVAL, "the service is not registered");
    handle->cancelFunction = function;
    handle->cancelContext = context;
    return true;
}

bool VSSubscriptionProcess(VSHandle* handle, VSMessage* message, bool* subscribed, VSError* error) noexcept {
    return VSSubscriptionProcessFor(handle, message, nullptr, subscribed, error);
}

bool VSSubscriptionProcessFor(VSHandle* handle, VSMessage* message, const char* subject, bool* subscribed,
                              VSError* error) noexcept {
    *subscribed = false;
    if (handle == nullptr || message == nullptr || message->call == nullptr)
        return BusFail(error, EINVAL, "no caller to enrol");
    try {
        const SubscriptionWish wish =
            message->request ? SubscriptionWishOf(*message->request) : ReadSubscriptionWish(message->payload);
        message->subject = subject == nullptr ? "" : subject;
        if (wish == SubscriptionWish::Cancel) Cancel(*message);
        const int enrolled = wish == SubscriptionWish::Enrol ? Enrol(*message) : 0;
        if (enrolled < 0) return BusFail(error, enrolled, "the caller cannot be watched");
        *subscribed = enrolled > 0;
        return true;
    } catch (...) {
        return BusFail(error, ENOMEM, "no memory for the subscription");
    }
}

bool VSSubscriptionHasSubscribers(const VSHandle* handle, const char* category, const char* method,
                                  const char* subject) noexcept {
    if (handle == nullptr || category == nullptr || method == nullptr) return false;
    const auto& peers = handle->peers;
    if (std::ranges::all_of(peers, [](auto& peer) { return peer->enrolments.empty(); })) return false;
    const BusCategory* found = BusFindCategory(handle, category);
    return found != nullptr &&
           std::ranges::any_of(peers, [=](auto& peer) { return BusIsEnrolled(*peer, found, method, subject); });
}
