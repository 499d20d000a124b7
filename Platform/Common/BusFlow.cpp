// What is under way to whom.
//
// The bus carries messages to each peer in order and keeps them until it reads; it tells nobody how far one is. So
// behind what a peer is sent goes a Ping, which every D-Bus library answers by itself when it comes to it: all that
// went before has been taken then. One Ping at a time is under way to a peer, and covers all that was sent before it.
//
// Posts tell a state. A subscriber that keeps up gets one for every change, at once. One to whom kMaxPosts or
// kMaxPostBytes are under way doesn't keep up: of each subject it gets the last state, once, in rounds of kRound that
// build each text once for all, until it has caught up. So does everybody while too much waits to leave this process.
// Events are no states, and nothing of them is kept here: who has not taken kMaxEvents of them misses what comes then.
// They have an account of their own, and at most half of what all peers share, so that they never delay a state. Of a
// flood each peer gets kMaxEventsOfRound in a round: to hand on more would cost the device more than what they are of.
// One that answers no Ping for a minute is dropped; what it has not taken stays in its account until it reads or
// leaves.
//
// Replies have to go out. Past kMaxReplyBytes, the last reply not counted, a caller's next calls are refused. A Ping
// would not do for callers: many wait for each reply and never come to the Ping, since their library handles only what
// they wait for. So the bus daemon is asked how much waits for them. One that doesn't tell leaves the Ping, and for
// those who wait, that they call again when nothing was left to handle here.
#include <algorithm>
#include <cerrno>

#include "BusService.h"
#include "BusText.h"
#include "DebugServices.h"
#include "eloop.h"
#include "os_time.h"

namespace {

constexpr size_t kKibibyte = 1024;
constexpr size_t kMebibyte = 1024 * kKibibyte;

// Not known to be taken, of one peer
constexpr size_t kMaxPosts = 32;
constexpr size_t kMaxPostBytes = kMebibyte;
constexpr size_t kMaxEvents = 128;
constexpr size_t kMaxEventBytes = 256 * kKibibyte;
constexpr size_t kMaxEventsOfRound = 500;
constexpr size_t kMaxReplyBytes = 4 * kMebibyte;
constexpr uint32_t kMaxRefusals = 128;                // beyond that, as replies
constexpr size_t kReplyBytesToAsk = 256 * kKibibyte;  // about
constexpr size_t kReplyCost = 512;                    // bytes that a reply costs the bus beside its text

// Of all peers. A bus daemon stops reading from a connection of which it holds 127 MiB.
constexpr size_t kMaxUnderWay = 32 * kMebibyte;
constexpr size_t kMaxUnderWayInNeed = 2 * kMaxUnderWay;  // for a first post, and for a long reply
constexpr size_t kShortReply = 64 * kKibibyte;           // is always sent

constexpr size_t kMaxWaiting = kMebibyte;  // posts wait here, and so do the replies behind them
constexpr size_t kMaxPings = 124;          // a bus daemon allows a connection 128 calls at a time
constexpr size_t kMaxCallerPings = kMaxPings - kVSMaxSubscribers;
constexpr size_t kMaxAccounts = 256;  // past that a new caller has the oldest one looked for

constexpr uint32_t kRound = 50;                   // milliseconds
constexpr uint32_t kEventRound = 100;             // likewise
constexpr size_t kMaxRoundBytes = 2 * kMebibyte;  // about: more would keep the bus from carrying anything else
constexpr uint32_t kCheckSeconds = 5;
constexpr uint32_t kSilentChecks = 13;  // more than a minute, whenever the first of them came

uint64_t EventRound() {
    return os_monotonic_milliseconds() / kEventRound;
}

auto FindPlace(VSHandle* handle, std::string_view name) {
    return std::find_if(handle->peers.begin(), handle->peers.end(), [name](auto& peer) { return peer->name == name; });
}

bool IsNothing(const BusUnderWay& underWay) {
    return underWay.posts == 0 && underWay.events == 0 && underWay.replyBytes == 0;
}

void SettlePosts(BusPeer& peer, const BusUnderWay& taken) {
    peer.underWay.posts -= taken.posts;
    peer.underWay.postBytes -= taken.postBytes;
    peer.underWay.events -= taken.events;
    peer.underWay.eventBytes -= taken.eventBytes;
    peer.handle->bytesUnderWay -= taken.postBytes + taken.eventBytes;
}

// Ping and count may both find that the same replies were taken.
void SettleReplies(BusPeer& peer, size_t taken) {
    taken = std::min(taken, peer.underWay.replyBytes);
    peer.underWay.replyBytes -= taken;
    peer.asked.replyBytes = std::min(peer.asked.replyBytes, peer.underWay.replyBytes);
    peer.handle->bytesUnderWay -= taken;
}

void Settle(BusPeer& peer, const BusUnderWay& taken) {
    SettlePosts(peer, taken);
    SettleReplies(peer, taken.replyBytes);
}

void EndPing(BusPeer& peer) {
    peer.handle->pings -= peer.pinged ? 1 : 0;
    peer.pinged = false;
    peer.asked = {};
    peer.silence = 0;
}

void Remove(VSHandle* handle, std::vector<std::unique_ptr<BusPeer>>::iterator place) {
    EndPing(**place);
    Settle(**place, BusUnderWay((*place)->underWay));
    handle->peers.erase(place);
}

// Whether it is worth knowing what became of the replies to it.
bool HasManyReplies(const BusPeer& peer) {
    return peer.underWay.replyBytes >= kReplyBytesToAsk;
}

bool NeedsPing(const BusPeer& peer) {
    return !peer.pinged &&
           (peer.underWay.posts > 0 || peer.underWay.events > 0 || (!peer.handle->canCount && HasManyReplies(peer)));
}

void Check(void* context, void*);

void EnsureCheck(VSHandle* handle) {
    if (!handle->checking) handle->checking = eloop_register_timeout(kCheckSeconds, 0, Check, handle, nullptr) == 0;
}

void EndCheck(VSHandle* handle) {
    if (handle->checking) eloop_cancel_timeout(Check, handle, nullptr);
    handle->checking = false;
}

// Subscribers can always be asked, however many callers don't answer.
bool MayPing(const BusPeer& peer) {
    const auto& peers = peer.handle->peers;
    if (peer.watched) return peer.handle->pings < kMaxPings;
    const auto asked =
        std::count_if(peers.begin(), peers.end(), [](auto& one) { return one->pinged && !one->watched; });
    return static_cast<size_t>(asked) < kMaxCallerPings;
}

bool HasRoom(const BusPeer& peer) {
    const VSHandle& handle = *peer.handle;
    if (peer.underWay.posts == 0) return handle.bytesUnderWay < kMaxUnderWayInNeed;
    return peer.underWay.posts < kMaxPosts && peer.underWay.postBytes < kMaxPostBytes &&
           handle.bytesUnderWay < kMaxUnderWay;
}

bool HasRoom(VSHandle* handle) {
    return handle->connection->WaitingBytes() < kMaxWaiting;
}

void Round(void* context, void*);

// Whether a round has something to do for the peer. One that doesn't read has to answer first.
bool NeedsRound(const BusPeer& peer) {
    return peer.lags && (peer.wanted.empty() ? peer.underWay.posts == 0 : HasRoom(peer));
}

void EnsureRound(VSHandle* handle) {
    const auto& peers = handle->peers;
    if (std::none_of(peers.begin(), peers.end(), [](auto& peer) { return NeedsRound(*peer); })) return;
    if (!handle->inRounds) handle->inRounds = eloop_register_timeout(0, kRound, Round, handle, nullptr) == 0;
}

void Ping(BusPeer& peer) {
    VSHandle* handle = peer.handle;
    EnsureCheck(handle);  // it tries again what failed here
    if (!MayPing(peer) || handle->connection->Ping(peer) < 0) return;
    peer.pinged = true;
    peer.asked = peer.underWay;
    ++handle->pings;
}

void AskAboutReplies(BusPeer& peer) {
    if (NeedsPing(peer)) Ping(peer);
    if (!peer.handle->canCount || peer.counting || !HasManyReplies(peer)) return;
    if (peer.handle->connection->Count(peer) < 0) return;
    peer.counting = true;
    peer.counted = peer.underWay.replyBytes;
}

// After a Ping or a count has ended: others may have waited for their turn, or nobody is left to look after.
void AskOthers(VSHandle* handle) {
    bool needed = handle->pings > 0;
    for (const auto& peer : handle->peers) {
        needed |= NeedsPing(*peer) || HasManyReplies(*peer);
        if (NeedsPing(*peer)) Ping(*peer);
    }
    if (!needed) EndCheck(handle);
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

int Send(BusPeer& peer, BusNews& news) {
    const int built = Build(news);
    if (built < 0 || news.text.empty()) return built;
    const int sent = peer.handle->connection->SendPost(news, peer);
    if (sent < 0) return sent;
    ++peer.underWay.posts;
    peer.underWay.postBytes += news.text.size();
    peer.handle->bytesUnderWay += news.text.size();
    if (NeedsPing(peer)) Ping(peer);
    return 0;
}

// Sends what the peer wants while there is room. What failed is not tried again.
void DeliverTo(BusPeer& peer) {
    while (!peer.wanted.empty() && HasRoom(peer) && HasRoom(peer.handle)) {
        const std::shared_ptr<BusNews> news = std::move(peer.wanted.front());
        peer.wanted.erase(peer.wanted.begin());
        const int sent = Send(peer, *news);
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
        if (!HasRoom(handle) || handle->bytesUnderWay - before >= kMaxRoundBytes) {
            handle->turn = (first + i) % count;
            break;
        }
        DeliverTo(peer);
    }
    ForgetTexts(handle);
    EnsureRound(handle);
}

void DropIfSilent(BusPeer& peer) {
    if (!peer.pinged || ++peer.silence != kSilentChecks || peer.enrolments.empty()) return;
    DebugPrintF(kBusWarningLevel, "%s: %s has read nothing for a minute: its subscriptions end\n", __func__, peer.name);
    BusDrop(peer);  // its account stays: a Ping is under way
}

// Every few seconds while a Ping is under way. Nobody is silent while what was sent waits in this process.
void Check(void* context, void*) {
    auto* handle = static_cast<VSHandle*>(context);
    handle->checking = false;
    if (HasRoom(handle))
        for (const auto& peer : handle->peers) DropIfSilent(*peer);
    for (const auto& peer : handle->peers) AskAboutReplies(*peer);
    if (handle->pings > 0) EnsureCheck(handle);
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
    if (!peer.lags && HasRoom(peer) && HasRoom(peer.handle)) return Send(peer, *news);
    peer.lags = true;
    if (std::find(peer.wanted.begin(), peer.wanted.end(), news) == peer.wanted.end()) peer.wanted.push_back(news);
    EnsureRound(peer.handle);
    return 0;
}

// Looks for the caller that has not been heard of for longest: nobody reports the leaving of those that never enrolled.
void LookForOldest(VSHandle* handle) {
    BusPeer* oldest = nullptr;
    for (const auto& peer : handle->peers)
        if (!peer->watched && (oldest == nullptr || peer->lastReply < oldest->lastReply)) oldest = peer.get();
    if (oldest == nullptr) return;
    oldest->lastReply = ++handle->replies;  // the next one's turn
    (void)handle->connection->LookFor(*oldest);
}

void AddReply(BusPeer& peer, size_t bytes) {
    VSHandle* handle = peer.handle;
    peer.underWay.replyBytes += bytes;
    peer.lastReplyBytes = bytes;
    peer.lastReply = ++handle->replies;
    peer.restsSeen = handle->rests;
    handle->bytesUnderWay += bytes;
    if (handle->bytesUnderWay < kMaxUnderWay) return AskAboutReplies(peer);
    for (const auto& one : handle->peers) AskAboutReplies(*one);
}

}  // namespace

VSHandle::~VSHandle() {
    EndCheck(this);
    if (inRounds) eloop_cancel_timeout(Round, this, nullptr);
}

BusPeer* BusFindPeer(VSHandle* handle, std::string_view name) noexcept {
    const auto place = FindPlace(handle, name);
    return place == handle->peers.end() ? nullptr : place->get();
}

BusPeer& BusFindOrAddPeer(VSHandle* handle, std::string_view name) {
    BusPeer* found = BusFindPeer(handle, name);
    if (found != nullptr) return *found;
    if (handle->peers.size() >= kMaxAccounts) LookForOldest(handle);
    return *handle->peers.emplace_back(std::make_unique<BusPeer>(BusPeer{.handle = handle, .name = std::string(name)}));
}

void BusForgetIdle(VSHandle* handle, std::string_view name) noexcept {
    const auto place = FindPlace(handle, name);
    if (place == handle->peers.end()) return;
    const BusPeer& peer = **place;
    if (peer.enrolments.empty() && !peer.pinged && IsNothing(peer.underWay)) Remove(handle, place);
}

bool BusTakesEvents(const BusPeer& peer) noexcept {
    VSHandle& handle = *peer.handle;
    if (peer.eventRound == EventRound() && peer.eventsOfRound >= kMaxEventsOfRound) return false;
    return peer.underWay.events < kMaxEvents && peer.underWay.eventBytes < kMaxEventBytes &&
           handle.bytesUnderWay < kMaxUnderWay / 2 && handle.connection->WaitingBytes() < kMaxWaiting / 2;
}

int BusSendEvent(BusPeer& peer, const BusNews& event) {
    const int sent = peer.handle->connection->SendPost(event, peer);
    if (sent < 0) return sent;
    const uint64_t round = EventRound();
    peer.eventsOfRound = peer.eventRound == round ? peer.eventsOfRound + 1 : 1;
    peer.eventRound = round;
    ++peer.underWay.events;
    peer.underWay.eventBytes += event.text.size();
    peer.handle->bytesUnderWay += event.text.size();
    if (NeedsPing(peer)) Ping(peer);
    return 0;
}

int BusCheckText(const std::string& text) noexcept {
    if (text.size() > kBusMaxText) return -EMSGSIZE;
    return IsFitForBus(text) ? 0 : -EINVAL;
}

bool BusTakesReplies(VSHandle* handle, std::string_view caller) noexcept {
    BusPeer* peer = BusFindPeer(handle, caller);
    if (peer == nullptr) return true;
    if (!handle->canCount && peer->restsSeen != handle->rests) SettleReplies(*peer, peer->underWay.replyBytes);
    if (peer->underWay.replyBytes >= kMaxReplyBytes + peer->lastReplyBytes) {
        AskAboutReplies(*peer);
        return false;
    }
    peer->refusals = 0;
    return true;
}

const char* BusWhyNotSend(const VSHandle& handle, size_t length) noexcept {
    if (length > kBusMaxText) return "The reply is longer than a message on the bus may be; ask for one interface";
    if (length > kShortReply && handle.bytesUnderWay + length > kMaxUnderWayInNeed)
        return "Others on the bus have not read what they were sent; there is no room for a long reply";
    return nullptr;
}

void BusNoteReply(const VSMessage& message, size_t length) {
    if (message.expectsReply) AddReply(BusFindOrAddPeer(message.category->handle, message.caller), length + kReplyCost);
}

bool BusNoteRefusal(const VSMessage& message) {
    BusNoteReply(message, 0);
    BusPeer* peer = BusFindPeer(message.category->handle, message.caller);
    return peer == nullptr || ++peer->refusals <= kMaxRefusals;
}

void BusPingAnswered(BusPeer& peer) noexcept {
    VSHandle* handle = peer.handle;
    Settle(peer, peer.asked);
    EndPing(peer);
    BusForgetIdle(handle, peer.name);
    AskOthers(handle);
    EnsureRound(handle);
}

void BusPingFailed(BusPeer& peer) noexcept {
    EndPing(peer);
    EnsureCheck(peer.handle);
}

void BusCounted(BusPeer& peer, size_t waiting) noexcept {
    peer.counting = false;
    VSHandle* handle = peer.handle;
    SettleReplies(peer, peer.counted - std::min(peer.counted, waiting));
    if (HasManyReplies(peer)) EnsureCheck(handle);  // they may be on their way; it is counted again
    BusForgetIdle(handle, peer.name);
    AskOthers(handle);
    EnsureRound(handle);
}

void BusCannotCount(VSHandle* handle) noexcept {
    handle->canCount = false;
    for (const auto& peer : handle->peers) peer->counting = false;
    AskOthers(handle);
}

void BusPeerLeft(BusPeer& peer) noexcept {
    VSHandle* handle = peer.handle;
    EndPing(peer);
    Settle(peer, BusUnderWay(peer.underWay));
    BusDrop(peer);  // nothing is left to know of it
    AskOthers(handle);
    EnsureRound(handle);
}

void BusCameToRest(VSHandle* handle) noexcept {
    ++handle->rests;
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
