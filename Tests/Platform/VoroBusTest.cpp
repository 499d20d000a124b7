// The service on a real bus daemon: calls, subscriptions, and what happens when callers or the daemon leave.
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <systemd/sd-bus.h>
#include <utility>
#include <vector>

#include "BusText.h"
#include "PrivateBus.h"
#include "VoroBus.h"
#include "eloop.h"

namespace {

using Answer = std::optional<std::string>;  // the reply's text or the error's name

// Somebody else on the bus, driven from the same thread as the service.
class Caller {
public:
    Caller() {
        sd_bus_open_system(&bus);
        sd_bus_add_filter(bus, nullptr, OnMessage, this);
        RunUntil([&] { return sd_bus_is_ready(bus) != 0; });
    }
    ~Caller() { Leave(); }

    void Flush() { sd_bus_flush(bus); }

    bool CanSend(const std::string& text) {
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(bus, &message, "/", "a.b", "C"), 0);
        const bool can = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, text.c_str()) >= 0;
        sd_bus_message_unref(message);
        return can;
    }

    // Everything sent has reached the bus daemon by then.
    void Leave() { bus = sd_bus_flush_close_unref(bus); }

    void Send(const std::string& category, const char* method, const std::string& request, Answer* answer) {
        const std::string interface = "org.ostrel.dhcp" + (category == "/" ? "" : "." + category.substr(1));
        sd_bus_call_method_async(bus, nullptr, "org.ostrel.dhcp", category.c_str(), interface.c_str(), method, OnAnswer,
                                 answer, "s", request.c_str());
    }

    // Runs service and caller until the answer is there. Updates posted before it have arrived then.
    std::string Call(const char* category, const char* method, const std::string& request) {
        Answer answer;
        Send(category, method, request, &answer);
        RunUntil([&] { return answer.has_value(); });
        return answer.value_or("no answer");
    }

    bool RunUntil(const std::function<bool()>& done) {
        const gint64 deadline = g_get_monotonic_time() + gint64{20} * G_USEC_PER_SEC;
        while (!done()) {
            if (g_get_monotonic_time() > deadline) return false;
            const bool served = g_main_context_iteration(nullptr, FALSE) != FALSE;
            if (sd_bus_process(bus, nullptr) <= 0 && !served) sd_bus_wait(bus, 500);
        }
        return true;
    }

    std::vector<std::string> updates;  // "/path interface text"

private:
    static int OnAnswer(sd_bus_message* reply, void* context, sd_bus_error*) {
        const sd_bus_error* const error = sd_bus_message_get_error(reply);
        const char* text = error != nullptr ? error->name : "no text";
        if (error == nullptr) sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &text);
        *static_cast<Answer*>(context) = text;
        return 0;
    }

    static int OnMessage(sd_bus_message* message, void* context, sd_bus_error*) {
        const char* text = "no text";
        if (sd_bus_message_is_signal(message, nullptr, "leaseInformationUpdate") <= 0) return 0;
        sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
        static_cast<Caller*>(context)->updates.push_back(sd_bus_message_get_path(message) + std::string(" ") +
                                                         sd_bus_message_get_interface(message) + " " + text);
        return 0;
    }

    sd_bus* bus = nullptr;
};

constexpr char kSubscribe[] = R"({"subscribe":true})";

constexpr size_t kMebibyte = size_t{1} << 20;

VSError error;

bool Echo(VSHandle* handle, VSMessage* message, void*) {
    EXPECT_TRUE(VSMessageReply(handle, message, VSMessageGetPayload(message), &error));
    EXPECT_FALSE(VSMessageReply(handle, message, "a second answer", &error));
    return true;
}

bool End(VSHandle* handle, VSMessage* message, void*) {
    eloop_terminate();
    return VSMessageReply(handle, message, "the last one", &error);
}

bool LeaseInformation(VSHandle* handle, VSMessage* message, void*) {
    bool subscribed = true;
    EXPECT_TRUE(VSSubscriptionProcess(handle, message, &subscribed, &error));
    return VSMessageReply(handle, message, subscribed ? "subscribed" : "not subscribed", &error);
}

bool CountCancelled(VSHandle*, VSMessage* message, void* context) {
    EXPECT_STREQ(VSMessageGetMethod(message), "leaseInformation");
    ++*static_cast<size_t*>(context);
    return true;
}

constexpr VSMethod kRootMethods[] = {{"echo", Echo, 0}, {"end", End, 0}, {}};
constexpr VSMethod kLeaseMethods[] = {{"leaseInformation", LeaseInformation, 0}, {}};
constexpr VSSignal kLeaseSignals[] = {{"leaseInformationUpdate", 0}, {}};

class VoroBusTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.Listens());
        ASSERT_EQ(eloop_init(nullptr), 0);
        handle = Register();
        ASSERT_TRUE(VSGmainAttach(handle, eloop_get_gnome_loop(), &error)) << error.message.data();
    }

    void TearDown() override {
        EXPECT_TRUE(handle == nullptr || VSUnregister(handle, &error)) << error.message.data();
        eloop_destroy();
    }

    VSHandle* Register() {
        VSErrorInit(&error);
        VSHandle* made = nullptr;
        EXPECT_TRUE(VSRegister("org.ostrel.dhcp", &made, &error)) << error.message.data();
        EXPECT_TRUE(VSRegisterCategory(made, "/", kRootMethods, nullptr, nullptr, &error)) << error.message.data();
        for (const char* category : {"/client", "/server"})
            EXPECT_TRUE(VSRegisterCategory(made, category, kLeaseMethods, kLeaseSignals, nullptr, &error)) << category;
        EXPECT_TRUE(VSSubscriptionSetCancelFunction(made, CountCancelled, &cancelled, &error));
        return made;
    }

    // Tells that the state of "eth0" is that text from now on.
    bool Post(const char* category, const std::string& text) {
        state = text;
        const auto write = [](void*, const char* subject, std::string* written) {
            EXPECT_STREQ(subject, "eth0");
            ++built;
            *written = state;
            return true;
        };
        return VSSubscriptionPost(handle, category, "leaseInformation", "eth0", write, &error);
    }
    static bool Subscribes(Caller& caller, const char* category, const char* wish = kSubscribe) {
        return caller.Call(category, "leaseInformation", wish) == "subscribed";
    }

    PrivateBus bus;
    VSHandle* handle = nullptr;
    size_t cancelled = 0;
    static inline std::string state;
    static inline size_t built = 0;
};

TEST_F(VoroBusTest, CallsAreAnsweredInTheirOrder) {
    Caller caller;
    std::vector<Answer> answers(100);  // the bus daemon allows 128 at a time
    for (size_t i = 0; i < answers.size(); ++i) caller.Send("/", "echo", std::to_string(i), &answers[i]);
    for (size_t i = 0; i < answers.size(); ++i) {
        ASSERT_TRUE(caller.RunUntil([&] { return answers[i].has_value(); }));
        ASSERT_EQ(answers[i], std::to_string(i));
    }
}

TEST_F(VoroBusTest, NoCallIsCarriedOutOnceTheLoopEnds) {
    Caller caller;
    Answer last, later;
    caller.Send("/", "end", "", &last);
    caller.Send("/", "echo", "done", &later);
    caller.Flush();
    g_usleep(100'000);  // both wait to be read in one pass
    eloop_run();
    ASSERT_TRUE(caller.RunUntil([&] { return last.has_value(); }));
    EXPECT_EQ(last, "the last one");
    EXPECT_TRUE(VSUnregister(handle, &error));
    handle = nullptr;
    ASSERT_TRUE(caller.RunUntil([&] { return later.has_value(); }));
    EXPECT_EQ(later, "org.freedesktop.DBus.Error.UnknownObject") << "as the method was not run";
}

TEST_F(VoroBusTest, ACallerThatHasLeftBeforeItsCallIsReadIsForgotten) {
    Caller stays, hasty;
    EXPECT_TRUE(Subscribes(stays, "/client"));
    Answer never;
    hasty.Send("/client", "leaseInformation", kSubscribe, &never);
    hasty.Leave();
    EXPECT_TRUE(stays.RunUntil([&] { return cancelled == 1; })) << cancelled;
    EXPECT_TRUE(Post("/client", "news"));
    stays.Call("/", "echo", "");
    EXPECT_EQ(stays.updates.size(), 1u);
    EXPECT_EQ(cancelled, 1u);
}

TEST_F(VoroBusTest, ASubscriberThatDoesNotReadHoldsNobody) {
    Caller stopped, reads;
    ASSERT_TRUE(Subscribes(stopped, "/client") && Subscribes(reads, "/client"));
    const std::string table(kMebibyte / 8, '.');
    constexpr size_t kPosts = 2000;  // the bus daemon would hold 127 MiB for one that doesn't read, and stop at that
    built = 0;
    for (size_t i = 1; i <= kPosts; ++i) {
        ASSERT_TRUE(Post("/client", std::to_string(i) + table));
        const std::string last = " " + state;
        ASSERT_TRUE(reads.RunUntil([&] { return !reads.updates.empty() && reads.updates.back().ends_with(last); }))
            << i;
        reads.updates.clear();
    }
    EXPECT_EQ(reads.Call("/", "echo", "still here"), "still here");
    EXPECT_LE(built, kPosts) << "a post is built once for all who get it";

    ASSERT_TRUE(
        stopped.RunUntil([&] { return !stopped.updates.empty() && stopped.updates.back().ends_with(" " + state); }));
    EXPECT_LE(stopped.updates.size(), 10u) << "it has been sent a MiB and the last state";
}

TEST_F(VoroBusTest, OneWhoWaitsForNothingIsRefusedAndOneWhoWaitsIsNot) {
    Caller waits, hasty;
    const std::string full(kVSMaxPayload, 'x');
    for (size_t i = 0; i < 500; ++i) ASSERT_EQ(waits.Call("/", "echo", full), full) << i;
    std::vector<Answer> answers(100);
    for (auto& answer : answers) hasty.Send("/", "echo", full, &answer);
    hasty.Flush();
    // The bus takes from both in turn: by now it has handed on what was waiting.
    for (size_t i = 0; i < 200; ++i) ASSERT_EQ(waits.Call("/", "echo", full), full) << i;
    ASSERT_TRUE(hasty.RunUntil([&] { return answers.back().has_value(); }));
    EXPECT_TRUE(answers.front() == full);
    // Some 64 replies of this length are 4 MiB. What its socket holds counts as taken once the bus has been asked, so
    // that a few later ones are answered again.
    const Answer refused = "org.freedesktop.DBus.Error.LimitsExceeded";
    EXPECT_GE(std::count(answers.begin(), answers.end(), refused), 20);
    EXPECT_TRUE(hasty.RunUntil([&] { return hasty.Call("/", "echo", "now") == "now"; }));
}

// What the service takes for fit must be what the bus library takes.
TEST_F(VoroBusTest, TextIsFitForTheBusWhenTheLibrarySaysSo) {
    std::vector<std::string> texts{"",
                                   "a",
                                   "\x7F",
                                   std::string(40, 'a') + "\xFF" + std::string(40, 'a'),
                                   "\xC0\x80",
                                   "\xC1\xBF",
                                   "\xE0\x9F\xBF",
                                   "\xF0\x8F\xBF\xBF",
                                   "\xED\xA0\x80",
                                   "\xED\xBF\xBF",
                                   "\xF4\x90\x80\x80",
                                   "\xF8\x88\x80\x80\x80",
                                   "\x80",
                                   "\xC3",
                                   "\xE2\x82",
                                   "\xF0\x9F\x98",
                                   "\xE2\x28\xA1",
                                   "\xC3\xA9\xEF\xBF\xBD"};
    for (uint32_t first = 0xE0; first <= 0xF4; ++first)
        for (uint32_t second = 0x80; second <= 0xBF; ++second)
            for (const char* tail : {"\x80", "\xBE", "\xBF", "\x80\x80", "\xBF\xBD", "\xBF\xBE", "\xBF\xBF"})
                texts.push_back(std::string{static_cast<char>(first), static_cast<char>(second)} + tail);
    for (uint32_t last = 0x80; last <= 0xBF; ++last) texts.push_back(std::string("\xEF\xB7") + static_cast<char>(last));
    Caller caller;
    for (const std::string& text : texts)
        EXPECT_EQ(IsFitForBus(text), caller.CanSend(text)) << testing::PrintToString(text);
}

TEST_F(VoroBusTest, ABusDaemonThatHangsHoldsNobody) {
    Caller caller;
    EXPECT_TRUE(Subscribes(caller, "/client"));
    bus.Hang();
    const std::string table(kMebibyte, '.');
    built = 0;
    for (size_t i = 0; i < 1000; ++i) ASSERT_TRUE(Post("/client", table));
    EXPECT_GE(built, 1u);
    EXPECT_LT(built, 4u) << "what cannot be sent is not built either";
    EXPECT_TRUE(VSUnregister(handle, &error)) << error.message.data();
    handle = Register();
    EXPECT_FALSE(VSGmainAttach(handle, eloop_get_gnome_loop(), &error));
    EXPECT_EQ(error.code, ETIMEDOUT);
    bus.Kill();  // or the caller would wait for it
    EXPECT_FALSE(VSUnregister(handle, &error));
    handle = nullptr;
}

}  // namespace
