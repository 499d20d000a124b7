// Options of a lease against literal bytes: what is shown in words, and what is not what it should be and is left out.
#include <gtest/gtest.h>

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtilsOptions.h"

#include "Sim.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::string TextOf(const valdo::JValue& value) {
    std::string text;
    EXPECT_TRUE(valdo::JGenerator::toString(value, valdo::JSchemaFragment("{}"), text));
    return text;
}

Ostrel_OptionList ListOf(const std::vector<std::pair<uint8_t, Bytes>>& options) {
    Ostrel_OptionList list{os_new_records<Ostrel_OptionValue>(options.size()), 0};
    for (const auto& [code, data] : options) {
        Ostrel_OptionValue& value = list.values[list.count++];
        value.code = code;
        value.data = os_copy_array<uint8_t>(data);
        value.length = static_cast<uint32_t>(data.size());
    }
    return list;
}

const Bytes kLab{3, 'l', 'a', 'b', 2, 'e', 'x', 0};

Bytes Repeated(size_t times, const Bytes& bytes) {
    Bytes all;
    for (size_t i = 0; i < times; ++i) all = all + bytes;
    return all;
}

TEST(OptionDecoders, ShowWhatIsWellFormedAndNothingElse) {
    const Bytes label = Bytes{63} + Bytes(63, 'a');
    const struct {
        uint8_t code;
        Bytes data;
        std::string value;
    } cases[] = {
        {42, {192, 0, 2, 1, 192, 0, 2, 2}, R"(["192.0.2.1","192.0.2.2"])"},
        {42, {}, "null"},
        {42, {192, 0, 2}, "null"},
        {26, {5, 220}, "1500"},
        {26, {0, 68}, "68"},
        {26, {0, 67}, "null"},
        {26, {5, 220, 0}, "null"},
        {12, {'a', 'b', 0, 'c'}, R"("ab")"},
        {12, {0, 'a'}, "null"},
        {12, {'a', 0xFF}, R"("a�")"},
        {114, {'h', ':', '/'}, R"("h:/")"},

        {119, kLab, R"(["lab.ex"])"},
        {119, kLab + Bytes{1, 'a', 0xC0, 0, 1, 'b', 0xC0, 4, 1, 'c', 0xC0, 8},
         R"(["lab.ex","a.lab.ex","b.ex","c.a.lab.ex"])"},
        {119, {}, "null"},
        {119, {0}, "null"},                              // the root
        {119, {1, 'a'}, "null"},                         // no end
        {119, {2, 'a', 0}, "null"},                      // runs past the end
        {119, {1, 'a', 0xC0}, "null"},                   // half a pointer
        {119, {1, 'a', 0xC0, 0}, "null"},                // to itself
        {119, {1, 'a', 0xC0, 4, 1, 'b', 0}, "null"},     // to the front
        {119, kLab + Bytes{0xC0, 10, 0xC0, 8}, "null"},  // to each other
        {119, kLab + Bytes{0xC0, 1}, "null"},            // into a label: 'l' is no length
        {119, kLab + Bytes{0x41, 'a', 0}, "null"},       // a length of another kind
        {119, {3, 'a', '.', 'b', 0}, "null"},
        {119, {3, 'a', ' ', 'b', 0}, "null"},
        {119, {2, 'a', 0, 0}, "null"},
        {119, Repeated(3, label) + Bytes{62} + Bytes(62, 'b') + Bytes{0},
         "[\"" + std::string(63, 'a') + "." + std::string(63, 'a') + "." + std::string(63, 'a') + "." +
             std::string(62, 'b') + "\"]"},
        {119, Repeated(4, label) + Bytes{0}, "null"},  // longer than a name
        {119, Repeated(65, {1, 'a', 0}), "null"},

        {121, {0, 192, 0, 2, 1}, R"([{"destination":"0.0.0.0/0","router":"192.0.2.1"}])"},
        {121,
         {8, 10, 192, 0, 2, 1, 24, 192, 0, 3, 0, 0, 0, 0},
         R"([{"destination":"10.0.0.0/8","router":"192.0.2.1"},{"destination":"192.0.3.0/24","router":"0.0.0.0"}])"},
        {121, {25, 192, 0, 2, 0xFF, 192, 0, 2, 1}, R"([{"destination":"192.0.2.128/25","router":"192.0.2.1"}])"},
        {121, {32, 192, 0, 3, 7, 192, 0, 2, 1}, R"([{"destination":"192.0.3.7/32","router":"192.0.2.1"}])"},
        {121, {}, "null"},
        {121, {33, 192, 0, 3, 7, 9, 192, 0, 2, 1}, "null"},
        {121, {24, 192, 0, 3, 192, 0, 2}, "null"},
        {121, {0, 192, 0, 2, 1, 8}, "null"},
    };
    const sim::World world;
    for (const auto& c : cases) {
        const OstrelJsonOption* known = gOstrelJsonOptions;
        while (known->key != nullptr && known->code != c.code) ++known;
        ASSERT_NE(known->key, nullptr);
        EXPECT_EQ(TextOf(known->decode(c.data)), c.value) << int{c.code} << " " << testing::PrintToString(c.data);
    }
}

TEST(OptionDecoders, AreShownBesideTheBytes) {
    const struct {
        std::vector<std::pair<uint8_t, Bytes>> options;
        std::string text;
        bool hasRoutes;
    } cases[] = {
        {{}, R"({"options":{}})", false},
        {{{42, {192, 0, 2, 1}}, {224, {0, 0xAB}}, {80, {}}},
         R"({"options":{"42":"c0000201","224":"00ab","80":""},"ntpServers":["192.0.2.1"]})",
         false},
        {{{100, {'P'}}, {101, {'T'}}, {26, {9}}},
         R"({"options":{"100":"50","101":"54","26":"09"},"timeZone":"T"})",
         false},
        {{{101, {0}}, {100, {'P'}}}, R"({"options":{"101":"00","100":"50"},"timeZone":"P"})", false},
        {{{121, {0, 192, 0, 2, 1}}},
         R"({"options":{"121":"00c0000201"},"staticRoutes":[{"destination":"0.0.0.0/0","router":"192.0.2.1"}]})",
         true},
        {{{121, {40}}}, R"({"options":{"121":"28"}})", false},
    };
    const sim::World world;
    for (const auto& c : cases) {
        const Ostrel_OptionList list = ListOf(c.options);
        valdo::JValue object = valdo::Object();
        OstrelJsonUtilsOptionsPut(object, list);
        EXPECT_EQ(TextOf(object), c.text);
        EXPECT_EQ(OstrelJsonUtilsHaveRoutes(list), c.hasRoutes);
    }
}

}  // namespace
