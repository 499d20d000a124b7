// Events: what happened, told once to whoever is subscribed and keeps up.
//
// An event is sent at once, or missed: it waits for nobody here. How many a subscriber has missed stands with its first
// enrolment under the method, and is told before the next event that it gets. The texts of one event are written when
// the first subscriber is found that can be sent it, and are the same for all.
//
// Events have an account of their own, and at most half of what all peers share, so that they never delay a state. Of a
// flood each peer gets kMaxEventsOfRound in a round: to hand on more would cost the device more than what they are of.
#include <cerrno>

#include "BusService.h"
#include "os_time.h"

namespace {

// Not known to be taken, of one peer
constexpr size_t kMaxEvents = 128;
constexpr size_t kMaxEventBytes = 256 * kBusKibibyte;

constexpr size_t kMaxEventsOfRound = 500;
constexpr uint32_t kEventRound = 100;  // milliseconds

uint64_t EventRound() {
    return os_monotonic_milliseconds() / kEventRound;
}

// Whether the peer may be sent one more now. One that has taken all is not held up by others that don't read.
bool TakesEvents(const BusPeer& peer) {
    const VSHandle& handle = *peer.handle;
    if (peer.eventRound == EventRound() && peer.eventsOfRound >= kMaxEventsOfRound) return false;
    if (handle.connection->WaitingBytes() >= kBusMaxWaiting / 2) return false;
    if (peer.underWay.events == 0) return handle.bytesUnderWay < kBusMaxUnderWayInNeed;
    return peer.underWay.events < kMaxEvents && peer.underWay.eventBytes < kMaxEventBytes &&
           handle.bytesUnderWay < kBusMaxUnderWay / 2;
}

// 0 or a negative errno value.
int SendEvent(BusPeer& peer, const BusNews& event) {
    const int sent = peer.handle->connection->SendPost(event, peer);
    if (sent < 0) return sent;
    const uint64_t round = EventRound();
    peer.eventsOfRound = peer.eventRound == round ? peer.eventsOfRound + 1 : 1;
    peer.eventRound = round;
    BusNoteSent(peer, peer.underWay.events, peer.underWay.eventBytes, event.text.size());
    return 0;
}

// One event on its way to all who get it.
struct Telling {
    const VSEvent& event;
    BusNews news;
};

int WriteOnce(Telling& telling) {
    BusNews& news = telling.news;
    if (news.built) return 0;
    news.text.clear();
    if (!telling.event.write(news.category->data, telling.event.event, &news.text)) return -ENOMEM;
    const int checked = BusCheckText(news.text);
    news.built = checked == 0;
    return checked;
}

int SendMissed(BusPeer& peer, BusEnrolment& books, const Telling& telling) {
    BusNews news{telling.news.category, telling.news.method, {}, nullptr, true, {}};
    if (!telling.event.writeMissed(books.missed, &news.text)) return -ENOMEM;
    const int checked = BusCheckText(news.text);
    const int sent = checked < 0 ? checked : SendEvent(peer, news);
    if (sent == 0) books.missed = 0;
    return sent;
}

// 0, also when the peer does not keep up, or a negative errno value.
int TellPeer(BusPeer& peer, BusEnrolment& books, Telling& telling) {
    if (!TakesEvents(peer)) {
        ++books.missed;
        return 0;
    }
    int status = WriteOnce(telling);
    if (status == 0 && books.missed > 0) status = SendMissed(peer, books, telling);
    if (status == 0) status = SendEvent(peer, telling.news);
    if (status < 0) ++books.missed;
    return status;
}

int TellAll(VSHandle* handle, Telling& telling, const char* subject) noexcept {
    int result = 0;
    const BusNews& news = telling.news;
    for (const auto& peer : handle->peers) {
        if (!BusIsEnrolled(*peer, news.category, news.method, subject)) continue;
        BusEnrolment& books = *BusFirstEnrolment(*peer, news.category, news.method);
        int told = 0;
        try {
            told = TellPeer(*peer, books, telling);
        } catch (...) {
            told = -ENOMEM;
            ++books.missed;
        }
        if (result == 0) result = told;
    }
    return result;
}

}  // namespace

bool VSSubscriptionTell(VSHandle* handle, const char* category, const char* method, const char* subject,
                        const VSEvent& event, VSError* error) noexcept {
    if (handle == nullptr || subject == nullptr || event.write == nullptr || event.writeMissed == nullptr)
        return BusFail(error, EINVAL, "nothing to tell");
    if (!VSSubscriptionHasSubscribers(handle, category, method, subject)) return true;
    const BusCategory* found = BusFindCategory(handle, category);
    Telling telling{event, {found, BusFindMethod(*found, method)->name, {}, nullptr, false, {}}};
    const int result = TellAll(handle, telling, subject);
    return result >= 0 || BusFail(error, result, "the event cannot be sent");
}
