// The service on the bus: what Platform/Include/VoroBus.h promises, on both platforms. What only a real bus can show,
// floods and daemons that hang, is in Tests/Platform.
#include <cerrno>
#include <gtest/gtest.h>
#include <stdexcept>

#include "Lab.h"
#include "VoroBus.h"
#include "eloop.h"

namespace {

using Texts = std::vector<std::string>;

constexpr char kSubscribe[] = R"({"subscribe":true})";
constexpr char kUnsubscribe[] = R"({"subscribe":false})";

VSError error;

bool Echo(VSHandle* handle, VSMessage* message, void*) {
    const bool answered = VSMessageReply(handle, message, VSMessageGetPayload(message), &error);
    EXPECT_FALSE(answered && VSMessageReply(handle, message, "a second answer", &error));
    return true;
}
// Of the three the last one is answered: the bus takes neither of the others.
bool Unfit(VSHandle* handle, VSMessage* message, void*) {
    for (const char* text : {"\xFF", "\xEF\xBF\xBF"}) {
        EXPECT_FALSE(VSMessageReply(handle, message, text, &error));
        EXPECT_EQ(error.code, EINVAL);
    }
    EXPECT_FALSE(VSMessageReply(handle, message, nullptr, &error));
    return VSMessageReply(handle, message, "\xC3\xA9", &error);
}
bool TooLong(VSHandle* handle, VSMessage* message, void*) {
    EXPECT_FALSE(VSMessageReply(handle, message, std::string(size_t{33} << 20, '.').c_str(), &error));
    EXPECT_EQ(error.code, EMSGSIZE);
    return true;
}
bool Throwing(VSHandle*, VSMessage*, void*) {
    throw std::runtime_error("a method");
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

constexpr VSMethod kRootMethods[] = {
    {"echo", Echo, 0},         {"unfit", Unfit, 0},
    {"tooLong", TooLong, 0},   {"silent", [](VSHandle*, VSMessage*, void*) { return true; }, 0},
    {"throwing", Throwing, 0}, {}};
constexpr VSMethod kLeaseMethods[] = {{"leaseInformation", LeaseInformation, 0}, {}};
constexpr VSMethod kOddMethods[] = {{"lease-information", LeaseInformation, 0}, {}};
constexpr VSSignal kLeaseSignals[] = {{"leaseInformationUpdate", 0}, {}};

class Bus : public testing::Test {
protected:
    void SetUp() override {
        VSErrorInit(&error);
        EXPECT_FALSE(VSRegister(nullptr, &handle, &error));
        ASSERT_TRUE(VSRegister("org.ostrel.dhcp", &handle, &error)) << error.message.data();
        ASSERT_TRUE(VSRegisterCategory(handle, "/", kRootMethods, nullptr, nullptr, &error)) << error.message.data();
        for (const char* category : {"/client", "/server"})
            ASSERT_TRUE(VSRegisterCategory(handle, category, kLeaseMethods, kLeaseSignals, nullptr, &error));
        ASSERT_TRUE(VSSubscriptionSetCancelFunction(handle, CountCancelled, &cancelled, &error));
    }
    void TearDown() override { EXPECT_TRUE(VSUnregister(handle, &error)) << error.message.data(); }
    void Attach() { ASSERT_TRUE(VSGmainAttach(handle, eloop_get_gnome_loop(), &error)) << error.message.data(); }

    // Tells that the state of "eth0" is that text from now on; an empty one: that there is nothing to tell.
    bool Post(const char* category, const std::string& text) {
        state = text;
        const auto write = [](void*, const char* subject, std::string* written) {
            EXPECT_STREQ(subject, "eth0");
            *written = state;
            return true;
        };
        return VSSubscriptionPost(handle, category, "leaseInformation", "eth0", write, &error);
    }
    bool Subscribes(const std::string& caller, const char* category, const std::string& wish = kSubscribe) {
        return lab.Call(caller, category, "leaseInformation", wish) == "subscribed";
    }
    bool HasSubscribers(const char* category) const {
        return VSSubscriptionHasSubscribers(handle, category, "leaseInformation");
    }

    lab::Lab lab;
    VSHandle* handle = nullptr;
    size_t cancelled = 0;
    static inline std::string state;
};

TEST_F(Bus, RefusesWhatIsNoCategoryAndASecondOneOfThatName) {
    const struct {
        const char* category;
        const VSMethod* methods;
        int32_t code;
    } cases[] = {{"/client", kLeaseMethods, EEXIST}, {"client", kLeaseMethods, EINVAL},
                 {nullptr, kLeaseMethods, EINVAL},   {"/cli-ent", kLeaseMethods, EINVAL},
                 {"/odd", kOddMethods, EINVAL},      {"/none", nullptr, EINVAL}};
    for (const auto& [category, methods, code] : cases) {
        EXPECT_FALSE(VSRegisterCategory(handle, category, methods, nullptr, nullptr, &error)) << category;
        EXPECT_EQ(error.code, code) << category;
    }
    EXPECT_FALSE(VSCategorySetData(handle, "/none", nullptr, &error));
    EXPECT_FALSE(VSGmainAttach(handle, nullptr, &error));
    Attach();
    EXPECT_FALSE(VSGmainAttach(handle, eloop_get_gnome_loop(), &error));
    EXPECT_EQ(error.code, EALREADY);
    EXPECT_EQ(lab.Call("one", "/", "echo", "still here"), "still here");
}

TEST_F(Bus, EveryCallGetsOneAnswer) {
    Attach();
    const std::string full(kVSMaxPayload, 'x');
    const struct {
        const char* method;
        std::string request, answer;
    } cases[] = {{"echo", "", ""},
                 {"echo", full, full},
                 {"echo", full + "x", "LimitsExceeded"},
                 {"unfit", "{}", "\xC3\xA9"},
                 {"tooLong", "{}", "LimitsExceeded"},
                 {"silent", "{}", "Failed"},
                 {"throwing", "{}", "Failed"},
                 {"echo", "last", "last"}};
    for (const auto& c : cases) EXPECT_EQ(lab.Call("one", "/", c.method, c.request), c.answer) << c.method;
}

TEST_F(Bus, SubscribersHearPostsOnceUntilTheyCancel) {
    Attach();
    EXPECT_TRUE(Post("/client", "nobody listens"));
    for (const char* noWish : {"", "{}", "[true]", R"({"subscribe":"true"})", R"({"subscribe":1})"})
        EXPECT_FALSE(Subscribes("one", "/client", noWish)) << noWish;
    EXPECT_FALSE(HasSubscribers("/client"));

    EXPECT_TRUE(Subscribes("one", "/client") && Subscribes("one", "/client") && Subscribes("other", "/server"));
    EXPECT_TRUE(Post("/client", "first") && Post("/client", "second") && Post("/client", ""));
    EXPECT_FALSE(Post("/client", std::string(size_t{33} << 20, '.'))) << "the bus would end the connection";
    EXPECT_EQ(error.code, EMSGSIZE);
    EXPECT_FALSE(Post("/client", "\xFF"));
    EXPECT_EQ(error.code, EINVAL);
    EXPECT_FALSE(Subscribes("one", "/server", kUnsubscribe));
    EXPECT_EQ(cancelled, 0u);
    EXPECT_FALSE(Subscribes("one", "/client", kUnsubscribe));
    EXPECT_EQ(cancelled, 2u);
    EXPECT_TRUE(Post("/client", "third") && Post("/server", "fourth"));
    EXPECT_EQ(lab.Posts("one"), (Texts{"/client first", "/client second"}));
    EXPECT_EQ(lab.Posts("other"), Texts{"/server fourth"});
}

TEST_F(Bus, ACallerEnrolsOnlySoOftenAndIsForgottenWhenItLeaves) {
    Attach();
    for (size_t i = 0; i < kVSMaxEnrolled; ++i) ASSERT_TRUE(Subscribes("greedy", i % 2 ? "/client" : "/server")) << i;
    EXPECT_FALSE(Subscribes("greedy", "/client"));
    EXPECT_TRUE(Subscribes("stays", "/client"));
    EXPECT_FALSE(Subscribes("greedy", "/client", kUnsubscribe));
    EXPECT_EQ(cancelled, kVSMaxEnrolled / 2);
    EXPECT_TRUE(Subscribes("greedy", "/client"));
    lab.Leave("greedy");
    EXPECT_TRUE(lab.RunUntil([&] { return cancelled == kVSMaxEnrolled + 1; })) << cancelled;
    EXPECT_FALSE(HasSubscribers("/server"));
    EXPECT_TRUE(Post("/client", "news"));
    EXPECT_EQ(lab.Posts("stays"), Texts{"/client news"});
}

TEST_F(Bus, SoManyMaySubscribeAndTheNextWhenOneHasLeft) {
    Attach();
    for (size_t i = 0; i < kVSMaxSubscribers; ++i)
        ASSERT_TRUE(Subscribes("caller" + std::to_string(i), "/client")) << i;
    EXPECT_FALSE(Subscribes("last", "/client"));
    EXPECT_EQ(lab.Call("last", "/", "echo", "answered all the same"), "answered all the same");
    lab.Leave("caller5");
    EXPECT_TRUE(lab.RunUntil([&] { return cancelled == 1; }));
    EXPECT_TRUE(Subscribes("last", "/client"));
    EXPECT_TRUE(Post("/client", "news"));
    for (const char* caller : {"caller0", "last"}) EXPECT_EQ(lab.Posts(caller), Texts{"/client news"});
}

}  // namespace
