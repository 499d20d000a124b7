// Posts of states.
//
// A post tells a state, and the last one counts. A subscriber that keeps up gets one for every change, at once. One to
// whom kMaxPosts or kMaxPostBytes are under way doesn't keep up: of each subject it gets the last state, once, in
// rounds of kRound that build each text once for all, until it has caught up. So does everybody while too much waits to
// leave this process, and whom a post could not be sent to for want of memory.
#include <algorithm>
#include <cerrno>

#include "BusService.h"
#include "BusText.h"
#include "DebugServices.h"
#include "eloop.h"

namespace {

// Not known to be taken, of one peer
constexpr size_t kMaxPosts = 32;
constexpr size_t kMaxPostBytes = kBusMebibyte;

constexpr uint32_t kRound = 50;                      // milliseconds
constexpr size_t kMaxRoundBytes = 2 * kBusMebibyte;  // about: more would keep the bus from carrying anything else

bool HasRoom(const BusPeer& peer) {
    const VSHandle& handle = *peer.handle;
    if (peer.underWay.posts == 0) return handle.bytesUnderWay < kBusMaxUnderWayInNeed;
    return peer.underWay.posts < kMaxPosts && peer.underWay.postBytes < kMaxPostBytes &&
           handle.bytesUnderWay < kBusMaxUnderWay;
}

void Round(void* context, void*);

// Whether a round has something to do for the peer. One that doesn't read has to answer first.
bool NeedsRound(const BusPeer& peer) {
    return peer.lags && (peer.wanted.empty() ? peer.underWay.posts == 0 : HasRoom(peer));
}

// 0 with the state as text, empty when there is nothing to tell any more; or a negative errno value.
int Build(BusNews& news) noexcept {
    if (news.built) return 0;
    news.text.clear();
    try {
        if (!news.state(news.category->data, news.subject.c_str(), &news.text)) return -ENOMEM;
    } catch (...) {
        return -ENOMEM;
    }
    const int checked = BusCheckText(news.text);
    news.built = checked == 0;
    return checked;
}

int Send(BusPeer& peer, BusNews& news) noexcept {
    const int built = Build(news);
    if (built < 0 || news.text.empty()) return built;
    try {
        const int sent = peer.handle->connection->SendPost(news, peer);
        if (sent < 0) return sent;
        BusNoteSent(peer, peer.underWay.posts, peer.underWay.postBytes, news.text.size());
        return 0;
    } catch (...) {
        return -ENOMEM;
    }
}

// Memory or room in the bus was out. Whoever missed the last state for that would never hear of it.
bool MayWorkLater(int failure) {
    return failure == -ENOMEM || failure == -ENOBUFS;
}

// Sends what the peer wants while there is room. What failed for good is not tried again.
void DeliverTo(BusPeer& peer) {
    while (!peer.wanted.empty() && HasRoom(peer) && BusHasRoom(peer.handle)) {
        const std::shared_ptr<BusNews> news = peer.wanted.front();
        const int sent = Send(peer, *news);
        if (MayWorkLater(sent)) return;
        peer.wanted.erase(peer.wanted.begin());
        if (sent < 0) DebugPrintF(kBusErrorLevel, "%s: %s misses a post: error %d\n", __func__, peer.name, -sent);
    }
}

// Texts last as long as one round or one change: a state may change without being posted.
void ForgetTexts(VSHandle* handle) {
    std::erase_if(handle->news, [](auto& news) { return news.use_count() == 1; });
    for (const auto& news : handle->news) {
        news->built = false;
        std::string().swap(news->text);
    }
}

void Round(void* context, void*) {
    auto* handle = static_cast<VSHandle*>(context);
    handle->inRounds = false;
    const size_t count = handle->peers.size();
    const size_t first = handle->turn < count ? handle->turn : 0;
    const size_t before = handle->bytesUnderWay;
    for (size_t i = 0; i < count; ++i) {
        BusPeer& peer = *handle->peers[(first + i) % count];
        if (NeedsRound(peer) && peer.wanted.empty()) peer.lags = false;
        if (!BusHasRoom(handle) || handle->bytesUnderWay - before >= kMaxRoundBytes) {
            handle->turn = (first + i) % count;
            break;
        }
        DeliverTo(peer);
    }
    ForgetTexts(handle);
    BusEnsureRound(handle);
}

// The post that is wanted of the subject, its text yet to be built.
std::shared_ptr<BusNews> Renew(VSHandle* handle, const BusCategory* category, const char* method, const char* subject,
                               VSStateFunction state) {
    for (const auto& news : handle->news) {
        if (news->category != category || news->method != method || news->subject != subject) continue;
        news->built = false;
        return news;
    }
    return handle->news.emplace_back(std::make_shared<BusNews>(BusNews{category, method, subject, state, false, {}}));
}

// Sends the news, or has the peer wait for it; 0 or a negative errno value.
int Tell(BusPeer& peer, const std::shared_ptr<BusNews>& news) {
    if (!peer.lags && HasRoom(peer) && BusHasRoom(peer.handle)) {
        const int sent = Send(peer, *news);
        if (!MayWorkLater(sent)) return sent;
    }
    peer.lags = true;
    if (std::find(peer.wanted.begin(), peer.wanted.end(), news) == peer.wanted.end()) peer.wanted.push_back(news);
    BusEnsureRound(peer.handle);
    return 0;
}

}  // namespace

int BusCheckText(const std::string& text) noexcept {
    if (text.size() > kBusMaxText) return -EMSGSIZE;
    return IsFitForBus(text) ? 0 : -EINVAL;
}

bool BusHasRoom(VSHandle* handle) {
    return handle->connection->WaitingBytes() < kBusMaxWaiting;
}

void BusEnsureRound(VSHandle* handle) {
    const auto& peers = handle->peers;
    if (std::none_of(peers.begin(), peers.end(), [](auto& peer) { return NeedsRound(*peer); })) return;
    if (!handle->inRounds) handle->inRounds = eloop_register_timeout(0, kRound, Round, handle, nullptr) == 0;
}

void BusEndRounds(VSHandle* handle) {
    if (handle->inRounds) eloop_cancel_timeout(Round, handle, nullptr);
    handle->inRounds = false;
}

bool VSSubscriptionPost(VSHandle* handle, const char* category, const char* method, const char* subject,
                        VSStateFunction state, VSError* error) noexcept {
    if (handle == nullptr || subject == nullptr || state == nullptr) return BusFail(error, EINVAL, "nothing to post");
    if (!VSSubscriptionHasSubscribers(handle, category, method, subject)) return true;
    int result = 0;
    try {
        const BusCategory* found = BusFindCategory(handle, category);
        const auto news = Renew(handle, found, BusFindMethod(*found, method)->name, subject, state);
        for (const auto& peer : handle->peers) {
            const int told = BusIsEnrolled(*peer, found, method, subject) ? Tell(*peer, news) : 0;
            if (result == 0) result = told;
        }
    } catch (...) {
        result = -ENOMEM;
    }
    ForgetTexts(handle);
    return result >= 0 || BusFail(error, result, "the post cannot be sent");
}
