// The service behind VoroBus.h, without the bus: what the device's implementation and the simulated one share.
//   BusCall.cpp           categories, calls and replies
//   BusEnrolment.cpp      who is enrolled under what, and how that ends
//   BusFlow.cpp           what is under way to whom, who reads
//   BusPosts.cpp          states, of which the last one counts
//   BusEvents.cpp         what is told once
// A platform brings a BusConnection, makes the VSHandle in VSRegister, hands every call to BusServeCall, and tells what
// its peers do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VoroBus.h"
#include "valdo.h"

constexpr int32_t kBusErrorLevel = 8000;
constexpr int32_t kBusWarningLevel = 5000;

// The longest text sent. The bus daemon's own limit is 32 MiB a message; exceeding it costs the connection.
constexpr size_t kBusKibibyte = 1024;
constexpr size_t kBusMebibyte = 1024 * kBusKibibyte;
constexpr size_t kBusMaxText = 32 * kBusMebibyte - 4 * kBusKibibyte;

// Under way to all peers. A bus daemon stops reading from a connection of which it holds 127 MiB.
constexpr size_t kBusMaxUnderWay = 32 * kBusMebibyte;
constexpr size_t kBusMaxUnderWayInNeed = 2 * kBusMaxUnderWay;  // for a first post or event, and for a long reply

constexpr size_t kBusMaxWaiting = kBusMebibyte;  // posts wait here, and so do the replies behind them

struct BusCategory {
    VSHandle* handle;
    std::string path;
    const VSMethod* methods;  // not owned
    const VSSignal* signals;  // not owned, may be null
    void* data;               // handed to the methods
};

// The enrolled calls of one caller under one method, about one subject.
struct BusEnrolment {
    const BusCategory* category;
    const char* method;   // from the category's table
    std::string subject;  // empty: all
    size_t count;         // at least 1
    uint64_t missed = 0;  // in the first one of a method: events that the caller is yet to be told it has missed
};

// A subject whose state somebody still waits for. It names the subject and holds nothing of it, which may be gone when
// the state is wanted.
struct BusNews {
    const BusCategory* category;
    const char* method;  // from the category's table
    std::string subject;
    VSStateFunction state;
    bool built = false;
    std::string text;  // when built
};

// What a peer has been sent and is not known to have taken.
struct BusUnderWay {
    size_t posts = 0;  // of states
    size_t postBytes = 0;
    size_t events = 0;
    size_t eventBytes = 0;
    size_t replyBytes = 0;
};

// What a platform keeps of a peer.
struct BusPeerLink {
    virtual ~BusPeerLink() = default;
};

// Somebody on the bus who is enrolled, or to whom something is under way.
struct BusPeer {
    VSHandle* handle;
    std::string name;  // unique on the bus, never used again
    std::vector<BusEnrolment> enrolments{};
    std::vector<std::shared_ptr<BusNews>> wanted{};  // coalesced posts, each subject once, the oldest first
    bool lags = false;                               // it does not keep up: it is posted to in rounds
    BusUnderWay underWay{};
    BusUnderWay asked{};   // the part of it that stands before the Ping under way
    bool watched = false;  // its leaving is reported
    bool pinged = false;
    uint32_t silence = 0;       // checks that the Ping has seen without an answer
    bool counting = false;      // it is being counted how much waits for it in the bus
    size_t counted = 0;         // its reply bytes when that began
    size_t lastReplyBytes = 0;  // of the last reply alone
    uint64_t lastReply = 0;     // VSHandle::replies then
    uint32_t refusals = 0;      // since a call was last carried out
    uint64_t restsSeen = 0;     // VSHandle::rests then
    uint64_t eventRound = 0;    // the latest in which it was sent an event
    size_t eventsOfRound = 0;   // that it was sent then
    std::unique_ptr<BusPeerLink> link{};
};

// The bus as the service needs it. Every function that can fail returns 0, or a negative errno value.
class BusConnection {
public:
    virtual ~BusConnection() = default;
    // Makes a category's methods callable.
    virtual int AddObject(const BusCategory& category) = 0;
    virtual int SendReply(VSMessage& message, const char* text) = 0;
    virtual int SendPost(const BusNews& news, const BusPeer& peer) = 0;
    // Asks whether the peer reads what was sent before; BusPingAnswered or BusPeerLeft is called for it later.
    virtual int Ping(BusPeer& peer) = 0;
    // Asks how much of what was sent waits for the peer in the bus; BusCounted, BusCannotCount or BusPeerLeft is
    // called.
    virtual int Count(BusPeer& peer) = 0;
    // From now on BusPeerLeft is called when the peer has left, at any time. Called once for a peer.
    virtual int Watch(BusPeer& peer) = 0;
    // Calls BusPeerLeft later when the peer is not on the bus.
    virtual int LookFor(BusPeer& peer) = 0;
    // What was sent and has not left the process; bytes, or a little more.
    [[nodiscard]] virtual size_t WaitingBytes() = 0;
};

struct VSHandle {
    explicit VSHandle(std::unique_ptr<BusConnection> made) : connection(std::move(made)) {}
    ~VSHandle();
    VSHandle(const VSHandle&) = delete;
    VSHandle& operator=(const VSHandle&) = delete;

    std::unique_ptr<BusConnection> connection;  // outlives the links of the peers
    std::vector<std::unique_ptr<BusCategory>> categories;
    std::vector<std::unique_ptr<BusPeer>> peers;  // in the order in which they came
    std::vector<std::shared_ptr<BusNews>> news;   // what somebody still wants
    VSMethodFunction cancelFunction = nullptr;
    void* cancelContext = nullptr;
    size_t bytesUnderWay = 0;  // of all peers
    size_t pings = 0;          // under way
    size_t turn = 0;           // the place of the peer that is served first
    uint64_t rests = 0;        // how often everything that had arrived was handled
    uint64_t replies = 0;      // sent so far
    bool canCount = true;      // the bus tells what waits in it
    bool inRounds = false;     // the timeout that posts to those who don't keep up is registered
    bool checking = false;     // the timeout that looks after silent peers is registered
};

struct VSMessage {
    void* call = nullptr;              // the platform's; null in a cancel function
    const VSMethod* method = nullptr;  // null in a cancel function
    const BusCategory* category;
    const char* name;          // of the method
    const char* payload = "";  // "" in a cancel function
    const char* caller = "";   // its unique name; "" in a cancel function
    bool expectsReply = true;
    bool answered = false;
    bool enrolled = false;                   // by this call
    std::string subject{};                   // under which it was enrolled
    const char* refusal = nullptr;           // why an answer is beyond a limit
    std::optional<valdo::JValue> request{};  // as the method has parsed it
};

// What the caller is told instead of an answer.
struct BusRefusal {
    const char* error = nullptr;  // a D-Bus error name; null: it has its answer
    std::string text{};
    bool silent = false;  // it is told nothing: it doesn't read
};

// Fills `error` and returns false. `code` is an errno value of either sign.
bool BusFail(VSError* error, int code, const char* what, const char* file = __builtin_FILE(),
             int line = __builtin_LINE(), const char* function = __builtin_FUNCTION()) noexcept;

// BusCall.cpp
[[nodiscard]] BusCategory* BusFindCategory(const VSHandle* handle, std::string_view path) noexcept;
[[nodiscard]] const VSMethod* BusFindMethod(const BusCategory& category, std::string_view name) noexcept;
[[nodiscard]] BusRefusal BusServeCall(VSMessage& message) noexcept;

// BusEnrolment.cpp
// Whether the peer gets what is told of the subject; null: of any.
[[nodiscard]] bool BusIsEnrolled(const BusPeer& peer, const BusCategory* category, std::string_view method,
                                 const char* subject) noexcept;
// The first of the peer's enrolments under the method, whatever its subject; null: it has none.
[[nodiscard]] BusEnrolment* BusFirstEnrolment(BusPeer& peer, const BusCategory* category,
                                              std::string_view method) noexcept;
// Ends the one enrolment that this call, which gets no answer, has made.
void BusWithdraw(VSMessage& message) noexcept;
// Ends all that the peer has enrolled.
void BusDrop(BusPeer& peer) noexcept;

// BusFlow.cpp
[[nodiscard]] BusPeer* BusFindPeer(VSHandle* handle, std::string_view name) noexcept;
[[nodiscard]] BusPeer& BusFindOrAddPeer(VSHandle* handle, std::string_view name);
// Puts one more message of that length on the peer's account: in the two fields of its kind, which are the peer's.
void BusNoteSent(BusPeer& peer, size_t& messages, size_t& bytes, size_t length);
// Frees the peer's record when nothing is left to know of it.
void BusForgetIdle(VSHandle* handle, std::string_view name) noexcept;
// Whether a call of that caller may be carried out: it takes its replies, as far as is known.
[[nodiscard]] bool BusTakesReplies(VSHandle* handle, std::string_view caller) noexcept;
// Why a reply of that length is not sent; null: it may be.
[[nodiscard]] const char* BusWhyNotSend(const VSHandle& handle, size_t length) noexcept;
// Puts a reply of that length on the caller's account.
void BusNoteReply(const VSMessage& message, size_t length);
// Puts a refusal on it; false when the caller has left so many unread that it is told no more.
[[nodiscard]] bool BusNoteRefusal(const VSMessage& message);

// BusPosts.cpp
// Whether the bus takes the text: 0 or a negative errno value.
[[nodiscard]] int BusCheckText(const std::string& text) noexcept;
// Whether what was sent leaves this process quickly enough.
[[nodiscard]] bool BusHasRoom(VSHandle* handle);
// Arms the timeout that posts to those who don't keep up, if there is something to do for one of them.
void BusEnsureRound(VSHandle* handle);
void BusEndRounds(VSHandle* handle);

// A platform's reports. Each may free the peer's record.
void BusPingAnswered(BusPeer& peer) noexcept;
void BusPingFailed(BusPeer& peer) noexcept;               // the bus did not pass it on
void BusCounted(BusPeer& peer, size_t waiting) noexcept;  // bytes
void BusCannotCount(VSHandle* handle) noexcept;           // this bus does not tell
void BusPeerLeft(BusPeer& peer) noexcept;
void BusCameToRest(VSHandle* handle) noexcept;  // everything that had arrived has been handled
