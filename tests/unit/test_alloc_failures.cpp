// Allocation failures of the framework's create and add functions: one walk
// per operation fails its k-th allocation for every k it reaches. A failure
// must come back as the function's failure result (with its message where it
// has one), leave the object as it was, and free what was made.
#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "unit_helpers.h"
#include "vyr_json.h"
#include "vyr_md5.h"
#include "vyr_schema_json.h"
#include "vyr_source.h"
#include "vyr_type_system.h"

namespace alloc = vyrtest::alloc;
using alloc::failing;
using alloc::fired;
using Lines = std::vector<std::string>;

namespace {

// Errors logged.
Lines problems(const vyrtest::LogCapture &l) {
    return vyrtest::unit::texts(l, VYR_LOG_LEVEL_ERROR);
}

const vyr_type_field_info_t kFields[] = {
    {"a", "desc a", "uint64_t", VYR_VALUE_ABSOLUTE, 1},
    {"b", nullptr, "double", VYR_VALUE_ABSOLUTE, 1},
    {"c", "desc c", "char", VYR_VALUE_ABSOLUTE, 64},
};

// Adding a 3-field type: the record, its field array and name, then per field
// its record and copies of name, description (when there is one) and type name.
std::string add_type_message(long k) {
    if (k == 1) return "[vyr_schema_add_type] cannot allocate type definition";
    if (k <= 3) return "[vyr_schema_add_type] cannot allocate fields for type definition";
    return "[vyr_schema_add_type] cannot get type definition from fields_info[" +
           std::to_string((k > 7) + (k > 10)) + "]";
}

// Nine schemas: the ninth grows jansson's array.
const std::string kSystem = [] {
    std::string t = R"({"name":"Vyrhub type system","version":"1.5.0","schemas":[)" +
                    vyrtest::unit::golden("tarvik_basic.compact.json");
    for (int i = 0; i < 8; ++i) t += "," + vyrtest::unit::golden("two_types.compact.json");
    return t + "]}";
}();

const std::function<void(long k)> kOps[] = {
    // schema add type
    [](long k) {
        vyr_type_system_t *ts = vyr_create_type_system();
        vyr_schema_t *s = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
        vyr_schema_add_type(s, "first", kFields, 1, nullptr);
        vyrtest::LogCapture log;
        uint8_t index = 99;
        int rc = failing(k, [&] { return vyr_schema_add_type(s, "t", kFields, 3, &index); });
        EXPECT_EQ(std::make_tuple(rc, s->num_types, index),
                  fired() ? std::make_tuple(VYR_SCHEMA_ADD_ALLOC, 1, uint8_t(99))
                          : std::make_tuple(VYR_SCHEMA_ADD_OK, 2, uint8_t(1)));
        EXPECT_EQ(problems(log), fired() ? Lines{add_type_message(k)} : Lines{});
        vyr_destroy_type_system(ts);
    },
    // type system from JSON: read back whole, or the failure reported
    [](long k) {
        vyrtest::LogCapture log;
        vyr_type_system_t *ts =
            failing(k, [&] { return vyr_type_system_deserialize(kSystem.c_str()); });
        char *again = ts ? vyr_type_system_serialize(ts, 0) : nullptr;
        EXPECT_TRUE((again && kSystem == again) || !problems(log).empty()) << "silent loss";
        free(again);
        vyr_destroy_type_system(ts);
    },
    // type system to JSON: whole or nothing
    [](long k) {
        vyr_type_system_t *ts = vyr_type_system_deserialize(kSystem.c_str());
        char *again = failing(k, [&] { return vyr_type_system_serialize(ts, 0); });
        EXPECT_TRUE(again ? kSystem == again : fired());
        free(again);
        vyr_destroy_type_system(ts);
    },
    // source range text
    [](long k) {
        // A scratch copy per number (a failed one reads as an invalid number), then the prefix.
        vyrtest::LogCapture log;
        vyr_source_array_t *a =
            failing(k, [] { return vyr_create_source_array_from_string("rack[1-3]"); });
        EXPECT_STREQ(a && a->count == 3 ? a->sources[2]->id : "<null>",
                     fired() ? "<null>" : "rack_3");
        Lines want;
        if (k <= 2 && fired()) want = {"[source] Invalid source format: rack[1-3]"};
        if (k == 3) want = {"[source] Failed to allocate memory"};
        EXPECT_EQ(problems(log), want);
        vyr_destroy_source_array(a);
    },
};

TEST(AllocFailures, EveryOperationFailsCleanly) {
    if (!alloc::available())
        GTEST_SKIP() << "this sanitizer build was linked without the --wrap options";
    // libcrypto builds its method cache at the first digest and keeps it.
    char md5[VYR_MD5_STRING_LENGTH];
    vyr_HexMD5("", 0, md5);
    for (const auto &op : kOps) EXPECT_GT(alloc::walk(op), 0) << &op - kOps;
    // A bare byte-order mark is empty text: nothing is handed to the parser.
    EXPECT_EQ(alloc::walk([](long k) {
                  EXPECT_EQ(failing(k, [] { return vyr_json_parse_string("\xEF\xBB\xBF"); }),
                            nullptr);
              }),
              0);
}

}  // namespace
