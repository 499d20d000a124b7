// The message bus: one service, its methods in categories, replies, subscriptions and posts.
//
// A method takes one text, the JSON request, and answers with one text, the JSON reply. A category is "/" or "/" and a
// name. Handlers are called from the event loop. Replies and posts go out whole, in the order of the calls.
//
// A request that holds "subscribe": true (the boolean, nothing else) enrols its caller under category and method when
// the handler calls VSSubscriptionProcess; each enrolled call counts, up to kVSMaxEnrolled a caller. "subscribe": false
// ends all of the caller's under that category and method, and so does the caller's leaving the bus: the cancel
// function then runs once for each enrolled call.
//
// A post tells the state of a subject, an interface by its name: VSSubscriptionPost says that it has changed. A
// subscriber that keeps up is sent the state after every change, in order. One that doesn't is sent the last state, as
// soon as it has taken some of what it was sent before; so the state is asked for when it is sent, perhaps later, and
// not at all when nobody takes it. One that takes nothing for a minute is no longer enrolled, as if it had left.
//
// An event is told once, in its place among the events of its method, and nothing of it is kept: VSSubscriptionTell. A
// subscriber that does not keep up misses events, and is told how many before the next one that it gets.
//
// Whoever is enrolled about one subject is told of that one alone; one that is enrolled more than once is told once.
//
// A caller that doesn't read the replies to its calls has further ones refused by the platform.
//
// Every fallible call returns false with `error` filled; it must have been initialised, and is emptied with
// VSErrorFree.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

struct VSHandle;   // the registered service; owned by the platform from VSRegister to VSUnregister
struct VSMessage;  // one call; valid only while its handler or cancel function runs
struct _GMainLoop;
namespace valdo {
class JValue;
}

constexpr size_t kVSMaxPayload = size_t{64} * 1024;  // bytes; a longer request is refused before anything parses it
constexpr size_t kVSMaxEnrolled = 64;                // enrolled calls of one caller
constexpr size_t kVSMaxSubscribers = 112;            // enrolled callers

struct VSError {
    int32_t code;  // 0: no error; otherwise an errno value
    std::array<char, 192> message;
    const char* file;  // where in the platform it was found
    int line;
    const char* function;
};

// A method or cancel function: handle, call, the category's (or the cancel function's) data. A method answers the call
// itself, through VSMessageReply, and returns true; false stands for a method that did not.
using VSMethodFunction = bool (*)(VSHandle* handle, VSMessage* message, void* context);

// Tables end with a row whose name is null. `flags` is 0.
struct VSMethod {
    const char* name;
    VSMethodFunction function;
    uint32_t flags;
};

// What a category posts, for introspection: the signal of the subscriptions of method M is named "MUpdate".
struct VSSignal {
    const char* name;
    uint32_t flags;
};

// Writes the state of `subject` as it is now, the text of a post; an empty one when there is nothing to tell, because
// the subject is gone, for instance. `data` is the category's. False when memory is out.
using VSStateFunction = bool (*)(void* data, const char* subject, std::string* text);

// What is told once. Each writes a text, once however many get it, and not at all when nobody can be sent it now; false
// when memory is out.
struct VSEvent {
    bool (*write)(void* data, const void* event, std::string* text);  // `data` is the category's
    bool (*writeMissed)(uint64_t count, std::string* text);           // that so many were missed
    const void* event;                                                // for `write`
};

struct VSProperty {
    const char* name;
    uint32_t flags;
};

void VSErrorInit(VSError* error) noexcept;
void VSErrorFree(VSError* error) noexcept;

// Connects to the bus. The name is requested by VSGmainAttach, when the categories stand, so that the first call finds
// them.
[[nodiscard]] bool VSRegister(const char* serviceName, VSHandle** handle, VSError* error) noexcept;

// The tables must outlive the handle; signals and properties may be null. False for a category that is registered
// (EEXIST), for a name that the bus doesn't take, of letters, digits and underscores (EINVAL), and when memory is out.
[[nodiscard]] bool VSRegisterCategory(VSHandle* handle, const char* category, const VSMethod* methods,
                                      const VSSignal* signals, const VSProperty* properties, VSError* error) noexcept;
[[nodiscard]] bool VSCategorySetData(VSHandle* handle, const char* category, void* data, VSError* error) noexcept;
[[nodiscard]] bool VSSubscriptionSetCancelFunction(VSHandle* handle, VSMethodFunction function, void* context,
                                                   VSError* error) noexcept;

// Attaches the connection to the event loop and takes the service name. False when the name is owned by another
// process (EEXIST), when it is attached already (EALREADY), or when the bus doesn't answer or refuses it. From then on,
// losing the connection ends the event loop, and VSUnregister fails.
[[nodiscard]] bool VSGmainAttach(VSHandle* handle, _GMainLoop* loop, VSError* error) noexcept;

// The request's text, NUL-terminated, and the method's name; both live as long as the message.
[[nodiscard]] const char* VSMessageGetPayload(VSMessage* message) noexcept;
[[nodiscard]] const char* VSMessageGetMethod(VSMessage* message) noexcept;

// The request as the method has parsed it, a null value when it is no JSON: the platform then doesn't parse it again.
void VSMessageSetRequest(VSMessage* message, const valdo::JValue& request) noexcept;

// Answers the call; `payload` is copied and must be UTF-8 without noncharacters, as valdo writes it, or it is refused
// (EINVAL), as are a second answer (EALREADY) and one that is too long (EMSGSIZE). A caller whose
// call gets no answer in the end is not left enrolled by it.
[[nodiscard]] bool VSMessageReply(VSHandle* handle, VSMessage* message, const char* payload, VSError* error) noexcept;

// Carries out the request's subscription wish; `subscribed` tells whether this call was enrolled. Not enrolled is a
// caller that has enough, and one more caller than the platform can look after.
[[nodiscard]] bool VSSubscriptionProcess(VSHandle* handle, VSMessage* message, bool* subscribed,
                                         VSError* error) noexcept;

// The same for what concerns one subject alone, by its name; null: for all of them. "subscribe": false ends the
// caller's calls under category and method whatever their subject.
[[nodiscard]] bool VSSubscriptionProcessFor(VSHandle* handle, VSMessage* message, const char* subject, bool* subscribed,
                                            VSError* error) noexcept;

// Lets each subscriber of category and method know of the new state of `subject`, once however often it enrolled: now
// when there is room, later otherwise, also when memory is out now. False when the bus doesn't take the text (EINVAL,
// EMSGSIZE) or is lost. `state` must stay callable until VSUnregister. True without subscribers.
[[nodiscard]] bool VSSubscriptionPost(VSHandle* handle, const char* category, const char* method, const char* subject,
                                      VSStateFunction state, VSError* error) noexcept;

// Tells each of them of an event that concerns `subject`, at once or never. True without subscribers; false when
// someone has missed it for another reason than not keeping up.
[[nodiscard]] bool VSSubscriptionTell(VSHandle* handle, const char* category, const char* method, const char* subject,
                                      const VSEvent& event, VSError* error) noexcept;

// True when a post under category and method, about that subject or, with null, about any, would reach someone.
[[nodiscard]] bool VSSubscriptionHasSubscribers(const VSHandle* handle, const char* category, const char* method,
                                                const char* subject = nullptr) noexcept;

// Gives up the name, closes the connection and frees the handle, whatever the result. False when the connection was
// already lost. A null handle is a failure.
[[nodiscard]] bool VSUnregister(VSHandle* handle, VSError* error) noexcept;
