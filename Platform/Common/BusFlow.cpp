// What is under way to whom.
//
// The bus carries messages to each peer in order and keeps them until it reads; it tells nobody how far one is. So
// behind what a peer is sent goes a Ping, which every D-Bus library answers by itself when it comes to it: all that
// went before has been taken then. One Ping at a time is under way to a peer, and covers all that was sent before it.
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
#include "DebugServices.h"
#include "eloop.h"

namespace {

// Not known to be taken, of one peer
constexpr size_t kMaxReplyBytes = 4 * kBusMebibyte;
constexpr uint32_t kMaxRefusals = 128;                   // beyond that, as replies
constexpr size_t kReplyBytesToAsk = 256 * kBusKibibyte;  // about
constexpr size_t kReplyCost = 512;                       // bytes that a reply costs the bus beside its text

constexpr size_t kShortReply = 64 * kBusKibibyte;  // is always sent

constexpr size_t kMaxPings = 124;  // a bus daemon allows a connection 128 calls at a time
constexpr size_t kMaxCallerPings = kMaxPings - kVSMaxSubscribers;
constexpr size_t kMaxAccounts = 256;  // past that a new caller has the oldest one looked for

constexpr uint32_t kCheckSeconds = 5;
constexpr uint32_t kSilentChecks = 13;  // more than a minute, whenever the first of them came

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

void DropIfSilent(BusPeer& peer) {
    if (!peer.pinged || ++peer.silence != kSilentChecks || peer.enrolments.empty()) return;
    DebugPrintF(kBusWarningLevel, "%s: %s has read nothing for a minute: its subscriptions end\n", __func__, peer.name);
    BusDrop(peer);  // its account stays: a Ping is under way
}

// Of one that has been silent for long nothing is left to find out: it answers or leaves, and then that is told.
bool MayBecomeSilent(const std::unique_ptr<BusPeer>& peer) {
    return peer->pinged && peer->silence < kSilentChecks;
}

// Every few seconds while a Ping is under way. Nobody is silent while what was sent waits in this process.
void Check(void* context, void*) {
    auto* handle = static_cast<VSHandle*>(context);
    handle->checking = false;
    if (BusHasRoom(handle))
        for (const auto& peer : handle->peers) DropIfSilent(*peer);
    for (const auto& peer : handle->peers) AskAboutReplies(*peer);
    if (std::ranges::any_of(handle->peers, MayBecomeSilent)) EnsureCheck(handle);
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
    if (handle->bytesUnderWay < kBusMaxUnderWay) return AskAboutReplies(peer);
    for (const auto& one : handle->peers) AskAboutReplies(*one);
}

}  // namespace

VSHandle::~VSHandle() {
    EndCheck(this);
    BusEndRounds(this);
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

void BusNoteSent(BusPeer& peer, size_t& messages, size_t& bytes, size_t length) {
    ++messages;
    bytes += length;
    peer.handle->bytesUnderWay += length;
    if (NeedsPing(peer)) Ping(peer);
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
    if (length > kShortReply && handle.bytesUnderWay + length > kBusMaxUnderWayInNeed)
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
    BusEnsureRound(handle);
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
    BusEnsureRound(handle);
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
    BusEnsureRound(handle);
}

void BusCameToRest(VSHandle* handle) noexcept {
    ++handle->rests;
}
