// The message bus inside the process: World::Call is a caller, World::posts what subscribers have read.
//
// The service is the device's own; only the bus under it is simulated. Its callers are names that a test makes up. A
// method runs inside World::Call, between two events, as it would between two passes of the loop. A text that the bus
// library would refuse is refused. A peer that has stopped reading leaves what it is sent where it is, and answers no
// Ping, until it reads again.

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "BusService.h"
#include "BusText.h"
#include "Internals.h"

namespace {

using sim::DeviceCall;
using sim::World;

class Connection : public BusConnection {
public:
    int AddObject(const BusCategory& category) override;
    int SendReply(VSMessage& message, const char* text) override;
    int SendPost(const BusNews& news, const BusPeer& peer) override;
    int Ping(BusPeer& peer) override;
    int Count(BusPeer& peer) override;
    int Watch(BusPeer&) override { return lost ? -ENOTCONN : sim::Refuses(DeviceCall::Subscribe) ? -ENOBUFS : 0; }
    int LookFor(BusPeer& peer) override;
    [[nodiscard]] size_t WaitingBytes() override { return 0; }

    bool attached = false;
    bool lost = false;
};

Connection& ConnectionOf(const VSHandle* handle) {
    return static_cast<Connection&>(*handle->connection);
}

VSHandle* Service() {
    return World::Get().Internals().bus.get();
}

// A name in a path, or of a method or signal, as the bus library takes them.
bool IsName(std::string_view name) {
    const auto isOfName = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
    return !name.empty() && name.size() < 256 && std::all_of(name.begin(), name.end(), isOfName) &&
           std::isdigit(static_cast<unsigned char>(name[0])) == 0;
}

int Connection::AddObject(const BusCategory& category) {
    if (sim::Refuses(DeviceCall::Attach)) return -ENOMEM;
    if (category.path != "/" && !IsName(std::string_view(category.path).substr(1))) return -EINVAL;
    for (const VSMethod* one = category.methods; one->name != nullptr; ++one)
        if (!IsName(one->name)) return -EINVAL;
    return 0;
}

int Connection::SendReply(VSMessage& message, const char* text) {
    if (lost || World::Get().failReplies) return -ENOTCONN;
    if (!IsFitForBus(text)) return -EINVAL;
    if (sim::Refuses(DeviceCall::Reply)) return -ENOBUFS;
    *static_cast<std::string*>(message.call) = text;
    if (sim::StoppedReader* stopped = World::Get().Internals().FindStopped(message.caller))
        stopped->bytes += message.expectsReply ? std::string_view(text).size() : 0;
    return 0;
}

int Connection::SendPost(const BusNews& news, const BusPeer& peer) {
    World& world = World::Get();
    if (lost || world.failPosts) return -ENOTCONN;
    if (sim::Refuses(DeviceCall::Post)) return -ENOBUFS;
    world.Internals().TraceText("post", peer.name + " " + news.text, world.tracing);
    sim::Post post{world.Now(), peer.name, news.category->path, news.method, news.text};
    if (sim::StoppedReader* stopped = world.Internals().FindStopped(peer.name)) {
        stopped->bytes += news.text.size();
        stopped->posts.push_back(std::move(post));
    } else {
        world.posts.push_back(std::move(post));
    }
    return 0;
}

BusPeer* FindPeer(std::string_view name) {
    return Service() == nullptr ? nullptr : BusFindPeer(Service(), name);
}

// What the bus itself finds out. True when the peer has left.
bool ReportIfLeft(const std::string& name) {
    BusPeer* peer = FindPeer(name);
    if (peer == nullptr || !World::Get().Internals().left.contains(name)) return false;
    BusPeerLeft(*peer);
    return true;
}

void AnswerPing(const std::string& name) {
    if (ReportIfLeft(name)) return;
    BusPeer* peer = FindPeer(name);
    if (peer == nullptr || !peer->pinged) return;
    if (sim::StoppedReader* stopped = World::Get().Internals().FindStopped(name))
        stopped->isAsked = true;
    else
        BusPingAnswered(*peer);
}

int Connection::Ping(BusPeer& peer) {
    if (lost) return -ENOTCONN;
    if (sim::Refuses(DeviceCall::Ask)) return -ENOBUFS;
    World::State& state = World::Get().Internals();
    state.schedule.Add(state.now, [name = peer.name] { AnswerPing(name); });
    return 0;
}

int Connection::Count(BusPeer& peer) {
    if (sim::Refuses(DeviceCall::Ask)) return -ENOBUFS;
    const auto answer = [name = peer.name] {
        BusPeer* counted = ReportIfLeft(name) ? nullptr : FindPeer(name);
        if (counted == nullptr || !counted->counting) return;
        if (World::Get().busCounts)
            BusCounted(*counted, World::Get().UnreadBytes(name));
        else
            BusCannotCount(Service());
    };
    World::State& state = World::Get().Internals();
    state.schedule.Add(state.now, answer);
    return 0;
}

int Connection::LookFor(BusPeer& peer) {
    if (sim::Refuses(DeviceCall::Ask)) return -ENOBUFS;
    World::State& state = World::Get().Internals();
    state.schedule.Add(state.now, [name = peer.name] { ReportIfLeft(name); });
    return 0;
}

}  // namespace

namespace sim {

StoppedReader* World::State::FindStopped(std::string_view name) {
    const auto found = std::find_if(stopped.begin(), stopped.end(), [name](auto& one) { return one.name == name; });
    return found == stopped.end() ? nullptr : &*found;
}

std::string World::Call(std::string_view category, std::string_view method, std::string_view payload,
                        std::string_view caller) {
    const std::string what = std::string(category) + " " + std::string(method);
    state->TraceText("call", what + " " + std::string(payload), tracing);
    callError.clear();
    VSHandle* const handle = Service();
    if (handle == nullptr || !ConnectionOf(handle).attached || ConnectionOf(handle).lost)
        return Fail("no service on the bus: " + what), "";
    if (state->loop.terminated) return Fail("the loop has ended: " + what), "";
    const BusCategory* const found = BusFindCategory(handle, category);
    const VSMethod* const row = found == nullptr ? nullptr : BusFindMethod(*found, method);
    if (row == nullptr) return Fail("no such method: " + what), "";
    if (!IsFitForBus(payload)) return callError = "System.Error.EBADMSG", "";

    std::string reply;
    const std::string text(payload);
    const std::string name(caller);
    state->left.erase(name);
    if (state->FindStopped(name) == nullptr) BusCameToRest(handle);
    VSMessage message{.call = &reply,
                      .method = row,
                      .category = found,
                      .name = row->name,
                      .payload = text.c_str(),
                      .caller = name.c_str()};
    const size_t replies = CallsMade(DeviceCall::Reply);
    const BusRefusal refusal = BusServeCall(message);
    if (refusal.error != nullptr) callError = refusal.silent ? "no answer" : refusal.error;
    const bool mayFail = failReplies || CallsMade(DeviceCall::Reply) != replies;  // one was tried, and refused
    if (callError.ends_with("Error.Failed") && !mayFail) Fail("no answer: " + what);
    return reply;
}

void World::LeaveBus(std::string_view caller) {
    std::erase_if(state->stopped, [caller](const StoppedReader& one) { return one.name == caller; });
    const BusPeer* peer = FindPeer(caller);
    if (peer == nullptr) return;
    state->left.emplace(caller);
    if (peer->watched) ReportIfLeft(std::string(caller));
}

size_t World::BusAccounts() const {
    return Service() == nullptr ? 0 : Service()->peers.size();
}

void World::StopReading(std::string_view caller) {
    if (state->FindStopped(caller) == nullptr) state->stopped.push_back({std::string(caller), {}, 0, false});
}

void World::ReadAgain(std::string_view caller) {
    StoppedReader* const found = state->FindStopped(caller);
    if (found == nullptr) return;
    const StoppedReader reader = std::move(*found);
    std::erase_if(state->stopped, [caller](const StoppedReader& one) { return one.name == caller; });
    std::copy(reader.posts.begin(), reader.posts.end(), std::back_inserter(posts));
    if (reader.isAsked) AnswerPing(reader.name);
}

size_t World::UnreadBytes(std::string_view caller) const {
    const StoppedReader* found = state->FindStopped(caller);
    return found == nullptr ? 0 : found->bytes;
}

void World::LoseBus() {
    if (Service() == nullptr) return;
    ConnectionOf(Service()).lost = true;
    eloop_terminate();
}

}  // namespace sim

bool VSRegister(const char* serviceName, VSHandle** handle, VSError* error) noexcept {
    if (serviceName == nullptr) return BusFail(error, EINVAL, "no name");
    if (sim::Refuses(DeviceCall::Attach)) return BusFail(error, ENOENT, "the bus cannot be reached");
    auto& bus = World::Get().Internals().bus;
    bus = std::make_shared<VSHandle>(std::make_unique<Connection>());
    *handle = bus.get();
    return true;
}

bool VSGmainAttach(VSHandle* handle, _GMainLoop* loop, VSError* error) noexcept {
    if (handle == nullptr || loop == nullptr) return BusFail(error, EINVAL, "no handle, or no loop");
    if (ConnectionOf(handle).attached) return BusFail(error, EALREADY, "the bus is attached");
    if (sim::Refuses(DeviceCall::Attach)) return BusFail(error, ETIMEDOUT, "the bus daemon does not answer");
    if (World::Get().nameTaken) return BusFail(error, EEXIST, "the name is taken");
    ConnectionOf(handle).attached = true;
    return true;
}

bool VSUnregister(VSHandle* handle, VSError* error) noexcept {
    if (handle == nullptr) return BusFail(error, EINVAL, "no handle");
    const bool wasLost = ConnectionOf(handle).lost;
    World::Get().Internals().bus.reset();
    return wasLost ? BusFail(error, ENOTCONN, "the connection was lost") : true;
}
