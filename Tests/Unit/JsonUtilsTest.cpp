// JSON helpers against documents as callers write them: what is read, what is refused, and what the log says of it.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtils.h"

#include "Sim.h"
#include "os_memory.h"

using valdo::JValue;

namespace {

JValue Document(const char* text) {
    valdo::JDomParser parser;
    EXPECT_TRUE(parser.parse(text, valdo::JSchemaFragment("{}"))) << text;
    return parser.getDom();
}

struct JsonUtils : testing::Test {
    sim::World world;
};

TEST_F(JsonUtils, NumbersAreWholeAndFit32Bits) {
    const struct {
        const char* document;
        bool optional, succeeds, found;
        int32_t value;
        const char* logged;  // null: nothing
    } cases[] = {
        {R"({"n":7})", false, true, true, 7, nullptr},
        {R"({})", true, true, false, -1, nullptr},
        {R"({})", false, false, false, -1, "GetJsonNumber: n not found"},
        {R"({"n":"7"})", true, false, true, -1, "GetJsonNumber: n not number"},
        {R"({"n":null})", true, false, true, -1, "GetJsonNumber: n not number"},
        {R"({"n":2147483648})", false, false, true, -1, "GetJsonNumber: asNumber n failed(0x2)"},
        {R"({"n":1.5})", false, false, true, -1, "GetJsonNumber: asNumber n failed(0x4)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.document);
        world.log.clear();
        int32_t value = -1;
        bool found = !c.found;
        EXPECT_EQ(GetJsonNumber(Document(c.document), "n", &value, c.optional, &found), c.succeeds);
        EXPECT_EQ(found, c.found);
        EXPECT_EQ(value, c.value);
        EXPECT_EQ(world.log.size(), c.logged == nullptr ? 0u : 1u);
        EXPECT_TRUE(c.logged == nullptr || world.Logged(c.logged));
    }
}

TEST_F(JsonUtils, AWrongTypeFailsEvenWhenOptional) {
    const JValue object = Document(R"({"b":"true","s":1,"o":[]})");
    EXPECT_FALSE(GetJsonBoolean(object, "b", nullptr, true, nullptr));
    EXPECT_FALSE(GetJsonString(object, "s", nullptr, true, nullptr));
    EXPECT_FALSE(GetJsonObject(object, "o", nullptr, true, nullptr));
    EXPECT_FALSE(GetJsonArray(object, "b", nullptr, nullptr));
    EXPECT_TRUE(world.Logged("GetJsonBoolean: b not boolean"));
    EXPECT_TRUE(world.Logged("GetJsonString: s "));
    EXPECT_TRUE(world.Logged("GetJsonObject: o not objectr"));

    world.log.clear();
    EXPECT_FALSE(GetJsonString(object, "absent", nullptr, false, nullptr));
    EXPECT_TRUE(world.log.empty()) << "no line for a key whose value nobody wants";
}

TEST_F(JsonUtils, AddressesAreReadAsInetAtonReadsThem) {
    const struct {
        const char* document;
        Ostrel_Status status;
        bool optional, failedCheck;
    } cases[] = {{R"({"a":"192.168.0.1"})", kNoErr, false, false},
                 {R"({"a":"256.0.0.1"})", kBadParamErr, false, false},
                 {R"({"a":""})", kBadParamErr, false, false},
                 {R"({})", kBadParamErr, true, false},
                 {R"({})", kBadParamErr, false, true},
                 {R"({"a":3232235521})", kBadParamErr, true, true},
                 {R"({"a":["192.168.0.1"]})", kBadParamErr, false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.document);
        world.log.clear();
        Ostrel_IPv4 address = 0;
        EXPECT_EQ(OstrelJsonUtilsIPv4Get(Document(c.document), "a", &address, c.optional), c.status);
        EXPECT_EQ(address, c.status == kNoErr ? inet_addr("192.168.0.1") : 0u);
        EXPECT_EQ(world.Logged("0 success  Src/OstrelJsonUtils"), c.failedCheck);
    }
}

TEST_F(JsonUtils, EachArrayElementHasItsOwnSlotAndZeroIsLeftOut) {
    std::array<Ostrel_IPv4, 4> slots{9, 9, 9, 9};
    const JValue request = Document(R"({"d":["10.0.0.1",5,"10.0.0.3","10.0.0.4"],"x":"10.0.0.1"})");
    EXPECT_EQ(OstrelJsonUtilsIPv4ArrayGet(request, "d", std::span(slots).first(3)), kNoErr);
    EXPECT_EQ(slots, (std::array<Ostrel_IPv4, 4>{inet_addr("10.0.0.1"), 9, inet_addr("10.0.0.3"), 9}));
    EXPECT_EQ(OstrelJsonUtilsIPv4ArrayGet(request, "x", slots), kBadParamErr);

    JValue object = valdo::Object();
    OstrelJsonUtilsIPv4ArrayPut(object, "some", std::array<Ostrel_IPv4, 3>{0, inet_addr("10.0.0.2"), 0});
    OstrelJsonUtilsIPv4ArrayPut(object, "zeros", std::array<Ostrel_IPv4, 2>{});
    OstrelJsonUtilsIPv4ArrayPut(object, "nothing", {});
    OstrelJsonUtilsIPv4Put(object, "any", 0);
    OstrelJsonUtilsMACPut(object, "mac", {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E});
    std::string text;
    EXPECT_TRUE(valdo::JGenerator::toString(object, valdo::JSchemaFragment("{}"), text));
    EXPECT_EQ(text, R"({"some":["10.0.0.2"],"zeros":[],"any":"0.0.0.0","mac":"00:1a:2b:3c:4d:5e"})");
}

TEST_F(JsonUtils, TextIsCopiedWholeOrNotAtAll) {
    const JValue object = Document(R"({"t":"hello"})");
    std::array<char, 6> buffer{'x', 'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(OstrelJsonUtilsStringCopy(object, "t", std::span(buffer).first(5)), kTooLongErr);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(OstrelJsonUtilsStringCopy(object, "t", buffer), kNoErr);
    EXPECT_EQ(std::string_view(buffer.data(), 6), "hellox");

    char* owned = nullptr;
    ASSERT_EQ(OstrelJsonUtilsStringDup(object, "t", &owned), kNoErr);
    EXPECT_EQ(OstrelJsonUtilsStringDup(object, "absent", &owned), kGenericErr);
    EXPECT_STREQ(owned, "hello");
    world.FailAllocation(1);
    EXPECT_EQ(OstrelJsonUtilsStringDup(object, "t", &owned), kOutOfMemoryErr);
    EXPECT_EQ(owned, nullptr);
    EXPECT_EQ(world.LiveAllocations(), 0u);
}

}  // namespace
