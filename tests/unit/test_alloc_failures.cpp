// Allocation failures of the framework's create/add functions and of device
// registration: the n-th allocation of a call is made to fail, for every n the
// call reaches. Each failure must come back as the function's failure result
// with its own message, leave the object as it was, and free what was made
// (device registration keeps its partial copies on purpose).
#include <gtest/gtest.h>

#include <functional>

#include "alloc_fault.h"
#include "tarvik_provider.h"
#include "unit_helpers.h"
#include "vyr_dict.h"
#include "vyr_md5.h"
#include "vyr_schema_json.h"
#include "vyr_source.h"
#include "vyr_string.h"
#include "vyr_type_system.h"

namespace alloc = vyrtest::alloc;

namespace {

using Lines = std::vector<std::string>;

// Runs body(n) for n = 1, 2, ... where body arms the n-th allocation of the
// call under test to fail (through failing()), until a run in which no
// allocation failed, which must have made `calls` allocations (or at least
// that many). Every run must free all it allocated.
struct Calls {
    long n;
    bool at_least;
};
Calls exactly(long n) {
    return {n, false};
}
Calls at_least(long n) {
    return {n, true};
}
void walk(Calls calls, const std::function<void(long n)> &body) {
    for (long n = 1; n < 100000; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
        alloc::track_begin();
        body(n);
        EXPECT_EQ(alloc::live(), 0u) << "blocks leaked";
        alloc::track_end();
        if (!alloc::fired()) {
            EXPECT_TRUE(calls.at_least ? alloc::calls() >= calls.n : alloc::calls() == calls.n)
                << alloc::calls() << " allocations";
            return;
        }
        if (::testing::Test::HasFatalFailure()) return;
    }
    ADD_FAILURE() << "the walk did not end";
}

template <typename F>
auto failing(long n, F call) {
    alloc::arm(n);
    auto result = call();
    alloc::disarm();
    return result;
}

// A call that must give null when any of its allocations fails.
template <typename Make, typename Free>
void walk_null(Calls calls, Make make, Free release) {
    walk(calls, [&](long n) {
        auto *made = failing(n, make);
        EXPECT_TRUE(!alloc::fired() || made == nullptr);
        release(made);
    });
}

Lines problems(const vyrtest::LogCapture &log) {
    Lines out;
    for (const auto &l : log.lines())
        if (l.level <= VYR_LOG_LEVEL_WARNING) out.push_back(l.text);
    return out;
}

class AllocFailures : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!alloc::available())
            GTEST_SKIP() << "allocation failures need the allocator interposed; this sanitizer "
                            "build was linked without the --wrap options of tests/CMakeLists.txt";
        // libcrypto builds its method cache at the first digest and keeps it:
        // that happens here, not inside a walk.
        char md5[VYR_MD5_STRING_LENGTH];
        vyr_HexMD5("", 0, md5);
    }
};

TEST_F(AllocFailures, DictionaryStringArraysAndLoggerContext) {
    walk_null(exactly(1), vyr_get_logger_ctx, vyr_destroy_logger_ctx);

    // The fourth key grows the table: key, value, flags, keys, values, hashes.
    walk(exactly(6), [](long n) {
        vyr_dict_t *d = vyr_dict_create();
        for (const char *k : {"k1", "k2", "k3"}) ASSERT_TRUE(vyr_dict_add(d, k, k));
        bool ok = failing(n, [&] { return vyr_dict_add(d, "k4", "v4"); });
        EXPECT_EQ(ok, !alloc::fired());
        EXPECT_EQ(d->table->size, ok ? 4u : 3u);
        for (const char *k : {"k1", "k2", "k3"}) EXPECT_STREQ(vyr_dict_get(d, k), k);
        vyr_dict_delete(d);
    });
    vyr_dict_t *src = vyr_dict_create();
    for (const char *k : {"a", "b", "c", "d", "e"}) vyr_dict_add(src, k, k);
    walk_null(
        at_least(12), [&] { return vyr_dict_dup(src); }, vyr_dict_delete);
    vyr_dict_delete(src);

    // realloc of the block, then the copy: the array keeps its entries either way.
    walk(exactly(2), [](long n) {
        vyr_string_array_t *a = vyr_init_string_array();
        ASSERT_TRUE(vyr_append_string_array(&a, "x"));
        bool ok = failing(n, [&] { return vyr_append_string_array(&a, "y"); });
        EXPECT_EQ(ok, !alloc::fired());
        ASSERT_EQ(a->count, ok ? 2u : 1u);
        EXPECT_STREQ(a->strings[0], "x");
        vyr_free_string_array(a);
    });
    walk(exactly(7), [](long n) {
        vyrtest::LogCapture log;
        vyr_string_array_t *a =
            failing(n, [] { return vyr_string_array_from_comma_separated_string("a,,b,c", 6); });
        EXPECT_EQ(a ? (long)a->count : -1L, alloc::fired() ? -1L : 3L);
        EXPECT_EQ(problems(log), alloc::fired() ? Lines{n == 1 ? "Unable to create string array"
                                                               : "Unable to append string"}
                                                : Lines{});
        vyr_free_string_array(a);
    });
}

TEST_F(AllocFailures, SchemaCreateAddTypeAndIndexedFields) {
    // Type record, its field array and name, then per field its record and
    // the copies of name, description (when there is one) and type name.
    const vyr_type_field_info_t fields[] = {
        {"a", "desc a", "uint64_t", VYR_VALUE_ABSOLUTE, 1},
        {"b", nullptr, "double", VYR_VALUE_ABSOLUTE, 1},
        {"c", "desc c", "char", VYR_VALUE_ABSOLUTE, 64},
    };
    auto expected = [](long n) -> std::string {
        if (n == 1) return "[vyr_schema_add_type] cannot allocate type definition";
        if (n <= 3) return "[vyr_schema_add_type] cannot allocate fields for type definition";
        int field = n <= 7 ? 0 : n <= 10 ? 1 : 2;
        return "[vyr_schema_add_type] cannot get type definition from fields_info[" +
               std::to_string(field) + "]";
    };
    walk(exactly(14), [&](long n) {
        vyr_type_system_t *ts = vyr_create_type_system();
        vyr_schema_t *s = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
        ASSERT_EQ(vyr_schema_add_type(s, "first", fields, 1, nullptr), 0);
        vyrtest::LogCapture log;
        uint8_t index = 99;
        int rc = failing(n, [&] { return vyr_schema_add_type(s, "t", fields, 3, &index); });
        if (alloc::fired()) {
            EXPECT_EQ(rc, VYR_SCHEMA_ADD_ALLOC);
            EXPECT_EQ(s->num_types, 1);
            EXPECT_EQ(index, 99);
            EXPECT_EQ(problems(log), Lines{expected(n)});
        } else {
            EXPECT_EQ(s->types[1]->size, 8u + 8u + 64u);
        }
        vyr_destroy_type_system(ts);
    });

    walk(exactly(1), [&](long n) {
        vyr_type_system_t *ts = vyr_create_type_system();
        vyr_schema_t *s = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
        ASSERT_EQ(vyr_schema_add_type(s, "t", fields, 3, nullptr), 0);
        const char *names[] = {"c", "a"};
        ASSERT_EQ(vyr_schema_set_field_indexes(s, 0, names, 2), 0);
        vyrtest::LogCapture log;
        size_t count = 9;
        const char **got = failing(n, [&] { return vyr_schema_get_indexed_fields(s, 0, &count); });
        EXPECT_EQ(count, alloc::fired() ? 0u : 2u);
        EXPECT_STREQ(got ? got[0] : "<null>", alloc::fired() ? "<null>" : "a");
        EXPECT_EQ(problems(log), alloc::fired() ? Lines{"[src/data/schema 235] malloc "
                                                        "failed for 3 fields"}
                                                : Lines{});
        free(got);
        vyr_destroy_type_system(ts);
    });
}

TEST_F(AllocFailures, TypeSystemCreateAndAddSchema) {
    // Record, built-in schema and its name, 22 built-in types (record and
    // name each), then the counters schema.
    walk(at_least(48), [](long n) {
        vyrtest::LogCapture log;
        vyr_type_system_t *ts = failing(n, [] { return vyr_create_type_system(); });
        if (alloc::fired()) {
            EXPECT_EQ(ts, nullptr);
            Lines want;
            if (n >= 4 && n <= 47) want = {"Failed to register built-in types"};
            if (n >= 48) want = {"Failed to create counters schema object"};
            EXPECT_EQ(problems(log), want);
        }
        vyr_destroy_type_system(ts);
    });

    // The schema record and its name; an empty schema's identifier needs no JSON.
    walk(exactly(2), [](long n) {
        vyr_type_system_t *ts = vyr_create_type_system();
        vyrtest::LogCapture log;
        uint8_t index = 99;
        vyr_schema_t *s =
            failing(n, [&] { return vyr_type_system_add_schema(ts, "p", 1, &index); });
        EXPECT_EQ(s == nullptr, alloc::fired());
        EXPECT_EQ(ts->num_schemas, s ? 1 : 0);
        EXPECT_EQ(index, s ? 0 : 99);
        EXPECT_EQ(problems(log), Lines{});
        vyr_destroy_type_system(ts);
    });
}

// The messages a reading of JSON may end with when an allocation fails.
bool known_json_failure(const std::string &line) {
    static const char *const kKnown[] = {
        "Failed parsing schema JSON string",
        "Failed to read schemas as JSON",
        "Failed to convert schema from JSON to internal memory representation",
        "Failed to register built-in types",
        "Failed to create counters schema object",
        "[ts] Failed to deserialize: unable to create type system object",
        "[ts] Failed to deserialize: unable to decode type schema",
        "[ts] Failed to deserialize: unable to get schema #",
        "[ts] Failed to deserialize: unable to adjust type fields of schema ",
        "[ts] Failed to fill schema '",
        "[ts] Failed to deserialize: unable to decode counters schema",
        "[ts] Failed to deserialize: schema is not a JSON object",
        "Failed to initialize '",
        "Failed to get type #",
        "Failed to deserialize type #",
        "[ts] Failed to deserialize: missing Vyrhub schema version",
        "Type definition JSON does not match schema '",
        "Field definition JSON does not match schema with or without 'index'.",
        "Failed to allocate type definition object: Cannot allocate memory",
        "Failed to allocate field definition: Cannot allocate memory",
        "Unable to parse schema to JSON value",
        "[schema reader] ",
        "[schema writer] ",
    };
    for (const char *k : kKnown)
        if (line.rfind(k, 0) == 0) return true;
    return false;
}

TEST_F(AllocFailures, TypeSystemFromJson) {
    // Two schemas, as a host would exchange them.
    const std::string schema_text = vyrtest::unit::golden("tarvik_basic.compact.json");
    const std::string text = R"({"name":"Vyrhub type system","version":"1.5.0","schemas":[)" +
                             schema_text + "," + vyrtest::unit::golden("two_types.compact.json") +
                             "]}";
    walk(at_least(51), [&](long n) {
        vyrtest::LogCapture log;
        vyr_type_system_t *ts =
            failing(n, [&] { return vyr_type_system_deserialize(text.c_str()); });
        Lines lines = problems(log);
        for (const auto &l : lines) EXPECT_TRUE(known_json_failure(l)) << l;
        EXPECT_TRUE(ts || alloc::fired());
        // Either nothing was lost, or the loss was reported.
        char *again = ts ? vyr_type_system_serialize(ts, 0) : nullptr;
        EXPECT_TRUE((again && text == again) || !lines.empty()) << "silent loss";
        free(again);
        vyr_destroy_type_system(ts);
    });

    // One schema of that text, added to a host's type system.
    walk(at_least(1), [&](long n) {
        vyr_type_system_t *ts = vyr_create_type_system();
        vyrtest::LogCapture log;
        uint8_t index = 99;
        int rc = failing(n, [&] {
            return vyr_type_system_add_schema_from_serialized_json(ts, schema_text.c_str(), &index);
        });
        Lines lines = problems(log);
        for (const auto &l : lines) EXPECT_TRUE(known_json_failure(l)) << l;
        EXPECT_TRUE(rc == 0 || rc == -1);
        EXPECT_EQ(ts->num_schemas, rc == 0 ? 1 : 0);
        EXPECT_EQ(index, rc == 0 ? 0 : 99);
        bool whole = rc == 0 && ts->num_schemas == 1 && ts->schemas[0]->num_types == 1;
        EXPECT_TRUE(whole || !lines.empty()) << "unreported failure or loss";
        vyr_destroy_type_system(ts);
    });
}

TEST_F(AllocFailures, Sources) {
    setenv("VYR_HOST_NAME", "node1", 1);
    walk(exactly(1), [](long n) {
        vyr_source_array_t *a = vyr_create_default_source_array("t");
        vyr_source_t *s = vyr_create_source("x", "y");
        bool ok = failing(n, [&] { return vyr_source_array_append(a, s); });
        EXPECT_EQ(ok, !alloc::fired());
        ASSERT_EQ(a->count, ok ? 2 : 1);
        if (!ok) vyr_destroy_source(s);
        vyr_destroy_source_array(a);
    });
    // The array, the source, the scratch name of the VYR_SOURCE_ID lookup
    // (whose failure falls back to the plain lookup), then the array's slot.
    walk(exactly(4), [](long n) {
        vyr_source_array_t *a = failing(n, [] { return vyr_create_default_source_array("t"); });
        bool whole = n == 3 || !alloc::fired();
        EXPECT_STREQ(a ? a->sources[0]->id : "<null>", whole ? "node1" : "<null>");
        vyr_destroy_source_array(a);
    });

    // rack[1-3]: a scratch copy per number (a failed one reads as an invalid
    // number), the prefix, the array, then a source and a slot per number.
    walk(exactly(10), [](long n) {
        vyrtest::LogCapture log;
        vyr_source_array_t *a =
            failing(n, [] { return vyr_create_source_array_from_string("rack[1-3]"); });
        EXPECT_STREQ(a && a->count == 3 ? a->sources[2]->id : "<null>",
                     alloc::fired() ? "<null>" : "rack_3");
        Lines want;
        if (n <= 2 && alloc::fired()) want = {"[source] Invalid source format: rack[1-3]"};
        if (n == 3) want = {"[source] Failed to allocate memory"};
        EXPECT_EQ(problems(log), want);
        vyr_destroy_source_array(a);
    });

    // A plain text file of two names: the opens and reads are the C library's.
    const char *path = "alloc_failures_sources.txt";
    FILE *f = fopen(path, "w");
    ASSERT_NE(f, nullptr);
    fputs("alpha\nbeta\n", f);
    fclose(f);
    walk(at_least(1), [&](long n) {
        vyrtest::LogCapture log;
        vyr_source_array_t *a =
            failing(n, [&] { return vyr_create_source_array_from_input(path); });
        EXPECT_TRUE(a ? a->count == 2 : alloc::fired());
        for (const auto &l : problems(log))
            EXPECT_TRUE(l == std::string("[source] Failed to open file: ") + path ||
                        l == std::string("[source] Failed to open text file: ") + path)
                << l;
        vyr_destroy_source_array(a);
    });
    remove(path);
    unsetenv("VYR_HOST_NAME");
}

TEST_F(AllocFailures, ProviderSources) {
    setenv("VYR_HOST_NAME", "node1", 1);
    tarvik_provider_t *p = tarvik_provider_instance();
    // Array, source, the VYR_SOURCE_ID lookup's scratch name (which falls
    // back), then the array's slot.
    walk(exactly(4), [&](long n) {
        vyr_source_array_t *a =
            failing(n, [&] { return tarvik_provider_get_sources(&p->provider); });
        if (n == 3 || !alloc::fired()) {
            ASSERT_NE(a, nullptr);
            ASSERT_EQ(a->count, 1);
            EXPECT_STREQ(a->sources[0]->id, "node1");
            EXPECT_STREQ(a->sources[0]->tag, "tarvik");
        } else {
            EXPECT_EQ(a, nullptr);
        }
        vyr_destroy_source_array(a);
    });
    unsetenv("VYR_HOST_NAME");
}

TEST_F(AllocFailures, DeviceRegistrationKeepsItsPartialCopies) {
    tarvik_provider_t *p = tarvik_provider_instance();
    p->update_interval_sec = 30;
    const std::string head = "[tarvik provider] [tarvik_provider_add_device]";
    const Lines messages = {head + " [D] Failed to allocate memory for device name",
                            head + "[D] Failed to allocate memory for device path",
                            head + "[D] Failed to allocate memory for out filepath",
                            head + " [D] Failed to allocate memory for command",
                            head + " [D] Failed to allocate memory for service command"};
    walk(exactly(5), [&](long n) {
        vyrtest::LogCapture log;
        alloc::arm(n);
        tarvik_provider_add_device("D", 10);
        alloc::disarm();
        if (alloc::fired()) {
            EXPECT_TRUE(p->devices.empty());
            EXPECT_EQ(problems(log), Lines{messages[n - 1]});
            // The copies made before the failed one stay allocated, by design
            // (test_provider_alloc_failures checks which they are).
            std::vector<void *> kept = alloc::live_blocks();
            EXPECT_EQ(kept.size(), size_t(n - 1));
            for (void *b : kept) free(b);
        } else {
            char *service = p->devices.at("D").service_command;
            tarvik_provider_destroy(&p->provider);
            EXPECT_EQ(alloc::live(), 1u);  // destroy keeps the service command
            free(service);
        }
    });
}

}  // namespace
