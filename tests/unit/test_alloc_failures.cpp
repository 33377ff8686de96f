// Allocation failures of the framework's create/add functions and of device
// registration: the n-th allocation of a call is made to fail, for every n the
// call reaches. Each failure must come back as the function's failure result
// with its own message, leave the object as it was, and free what was made
// (device registration keeps its partial copies on purpose).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "alloc_fault.h"
#include "log_capture.h"
#include "tarvik_provider.h"
#include "vyr_dict.h"
#include "vyr_logger.h"
#include "vyr_schema.h"
#include "vyr_schema_json.h"
#include "vyr_source.h"
#include "vyr_string.h"
#include "vyr_type_system.h"

namespace alloc = vyrtest::alloc;

namespace {

// Runs body(n) for n = 1, 2, ... where body arms the n-th allocation of the
// call under test to fail (through failing()), until a run in which no
// allocation failed. Every run must free all it allocated, unless it hands
// back what it keeps on purpose through `kept`. Returns the number of
// allocations of the clean run.
long walk(const std::function<void(long n)> &body) {
    for (long n = 1; n < 100000; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
        alloc::track_begin();
        body(n);
        EXPECT_EQ(alloc::live(), 0u) << "blocks leaked";
        alloc::track_end();
        if (!alloc::fired()) {
            printf("    walked %ld allocations\n", alloc::calls());
            return alloc::calls();
        }
        if (::testing::Test::HasFatalFailure()) return -1;
    }
    ADD_FAILURE() << "the walk did not end";
    return -1;
}

template <typename F>
auto failing(long n, F call) {
    alloc::arm(n);
    auto result = call();
    alloc::disarm();
    return result;
}

// Error and warning lines only.
std::vector<std::string> problems(const vyrtest::LogCapture &log) {
    std::vector<std::string> out;
    for (const auto &l : log.lines())
        if (l.level <= VYR_LOG_LEVEL_WARNING) out.push_back(l.text);
    return out;
}

using Lines = std::vector<std::string>;

class AllocFailures : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!alloc::available())
            GTEST_SKIP() << "allocation failures need the allocator interposed; this sanitizer "
                            "build was linked without the --wrap options of tests/CMakeLists.txt";
    }
};

TEST_F(AllocFailures, DictionaryCreateAddAndDup) {
    EXPECT_EQ(walk([](long n) {
                  vyr_dict_t *d = failing(n, [] { return vyr_dict_create(); });
                  if (alloc::fired()) {
                      EXPECT_EQ(d, nullptr);
                  }
                  vyr_dict_delete(d);
              }),
              2);

    // The fourth key grows the table: key, value, flags, keys, values.
    EXPECT_EQ(walk([](long n) {
                  vyr_dict_t *d = vyr_dict_create();
                  for (const char *k : {"k1", "k2", "k3"}) ASSERT_TRUE(vyr_dict_add(d, k, k));
                  bool ok = failing(n, [&] { return vyr_dict_add(d, "k4", "v4"); });
                  EXPECT_EQ(ok, !alloc::fired());
                  if (!ok) {
                      EXPECT_EQ(d->table->size, 3u);
                      EXPECT_EQ(vyr_dict_get(d, "k4"), nullptr);
                  }
                  for (const char *k : {"k1", "k2", "k3"}) EXPECT_STREQ(vyr_dict_get(d, k), k);
                  vyr_dict_delete(d);
              }),
              5);

    vyr_dict_t *src = vyr_dict_create();
    for (const char *k : {"a", "b", "c", "d", "e"}) vyr_dict_add(src, k, k);
    EXPECT_GE(walk([&](long n) {
                  vyr_dict_t *d = failing(n, [&] { return vyr_dict_dup(src); });
                  if (alloc::fired())
                      EXPECT_EQ(d, nullptr);
                  else
                      EXPECT_STREQ(vyr_dict_get(d, "e"), "e");
                  vyr_dict_delete(d);
              }),
              12);
    vyr_dict_delete(src);
}

TEST_F(AllocFailures, StringArrays) {
    EXPECT_EQ(walk([](long n) {
                  vyr_string_array_t *a = failing(n, [] { return vyr_init_string_array(); });
                  if (alloc::fired()) {
                      EXPECT_EQ(a, nullptr);
                  }
                  vyr_free_string_array(a);
              }),
              1);

    // realloc of the block, then the copy: the array keeps its entries either way.
    EXPECT_EQ(walk([](long n) {
                  vyr_string_array_t *a = vyr_init_string_array();
                  ASSERT_TRUE(vyr_append_string_array(&a, "x"));
                  bool ok = failing(n, [&] { return vyr_append_string_array(&a, "y"); });
                  EXPECT_EQ(ok, !alloc::fired());
                  ASSERT_EQ(a->count, ok ? 2u : 1u);
                  EXPECT_STREQ(a->strings[0], "x");
                  vyr_free_string_array(a);
              }),
              2);

    EXPECT_EQ(walk([](long n) {
                  vyrtest::LogCapture log;
                  vyr_string_array_t *a = failing(
                      n, [] { return vyr_string_array_from_comma_separated_string("a,,b,c", 6); });
                  if (alloc::fired()) {
                      EXPECT_EQ(a, nullptr);
                      EXPECT_EQ(problems(log), Lines{n == 1 ? "Unable to create string array"
                                                            : "Unable to append string"});
                  } else {
                      ASSERT_NE(a, nullptr);
                      EXPECT_EQ(a->count, 3u);
                  }
                  vyr_free_string_array(a);
              }),
              7);
}

TEST_F(AllocFailures, LoggerContext) {
    EXPECT_EQ(walk([](long n) {
                  vyr_logger_ctx_t *ctx = failing(n, [] { return vyr_get_logger_ctx(); });
                  if (alloc::fired()) {
                      EXPECT_EQ(ctx, nullptr);
                  }
                  vyr_destroy_logger_ctx(ctx);
              }),
              1);
}

TEST_F(AllocFailures, SchemaCreateAddTypeAndIndexedFields) {
    EXPECT_EQ(walk([](long n) {
                  vyr_schema_t *s = failing(n, [] { return vyr_create_schema("tarvik", 1); });
                  if (alloc::fired()) {
                      EXPECT_EQ(s, nullptr);
                  }
                  vyr_destroy_schema(s);
              }),
              2);

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
    EXPECT_EQ(walk([&](long n) {
                  vyr_type_system_t *ts = vyr_create_type_system();
                  vyr_schema_t *s = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
                  ASSERT_EQ(vyr_schema_add_type(s, "first", fields, 1, nullptr), 0);
                  vyrtest::LogCapture log;
                  uint8_t index = 99;
                  int rc =
                      failing(n, [&] { return vyr_schema_add_type(s, "t", fields, 3, &index); });
                  if (alloc::fired()) {
                      EXPECT_EQ(rc, VYR_SCHEMA_ADD_ALLOC);
                      EXPECT_EQ(s->num_types, 1);
                      EXPECT_EQ(index, 99);
                      EXPECT_EQ(problems(log), Lines{expected(n)});
                  } else {
                      EXPECT_EQ(rc, 0);
                      EXPECT_EQ(s->types[1]->size, 8u + 8u + 64u);
                  }
                  vyr_destroy_type_system(ts);
              }),
              14);

    EXPECT_EQ(walk([&](long n) {
                  vyr_type_system_t *ts = vyr_create_type_system();
                  vyr_schema_t *s = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
                  ASSERT_EQ(vyr_schema_add_type(s, "t", fields, 3, nullptr), 0);
                  const char *names[] = {"c", "a"};
                  ASSERT_EQ(vyr_schema_set_field_indexes(s, 0, names, 2), 0);
                  vyrtest::LogCapture log;
                  size_t count = 9;
                  const char **got =
                      failing(n, [&] { return vyr_schema_get_indexed_fields(s, 0, &count); });
                  if (alloc::fired()) {
                      EXPECT_EQ(got, nullptr);
                      EXPECT_EQ(count, 0u);
                      EXPECT_EQ(problems(log),
                                Lines{"[src/data/schema 235] malloc failed for 3 fields"});
                  } else {
                      ASSERT_EQ(count, 2u);
                      EXPECT_STREQ(got[0], "a");
                  }
                  free(got);
                  vyr_destroy_type_system(ts);
              }),
              1);
}

TEST_F(AllocFailures, TypeSystemCreateAndAddSchema) {
    // Record, built-in schema and its name, 22 built-in types (record and
    // name each), then the counters schema.
    long calls = walk([](long n) {
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
    EXPECT_GE(calls, 48);

    // The schema record and its name; an empty schema's identifier needs no JSON.
    EXPECT_EQ(walk([](long n) {
                  vyr_type_system_t *ts = vyr_create_type_system();
                  vyrtest::LogCapture log;
                  uint8_t index = 99;
                  vyr_schema_t *s =
                      failing(n, [&] { return vyr_type_system_add_schema(ts, "p", 1, &index); });
                  if (alloc::fired()) {
                      EXPECT_EQ(s, nullptr);
                      EXPECT_EQ(ts->num_schemas, 0);
                      EXPECT_EQ(index, 99);
                  } else {
                      EXPECT_EQ(ts->num_schemas, 1);
                      EXPECT_EQ(std::string(s->md5_string), std::string(32, '0'));
                  }
                  EXPECT_EQ(problems(log), Lines{});
                  vyr_destroy_type_system(ts);
              }),
              2);
}

// A type system with two schemas, as a host would exchange it.
std::string sample_type_system_text() {
    vyr_type_system_t *ts = vyr_create_type_system();
    const vyr_type_field_info_t fields[] = {
        {"timestamp", "Event timestamp", "timestamp", VYR_VALUE_ABSOLUTE, 1},
        {"device_name", "Device name", "char", VYR_VALUE_ABSOLUTE, 64},
        {"Raw_Errors", "Raw_Errors", "uint64_t", VYR_VALUE_RUNNING_SUM, 1},
        {"BER", "BER", "double", VYR_VALUE_ABSOLUTE, 1},
    };
    vyr_schema_t *a = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
    vyr_schema_add_type(a, "tarvik_event_0", fields, 4, nullptr);
    vyr_schema_add_type(a, "tarvik_event_1", fields, 3, nullptr);
    const char *index[] = {"device_name"};
    vyr_schema_set_field_indexes(a, 0, index, 1);
    vyr_schema_t *b = vyr_type_system_add_schema(ts, "other", 0x10203, nullptr);
    vyr_schema_add_type(b, "o", fields + 2, 2, nullptr);
    vyr_type_system_update_md5_hashes(ts);
    char *text = vyr_type_system_serialize(ts, 0);
    std::string out = text ? text : "";
    free(text);
    vyr_destroy_type_system(ts);
    return out;
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
    const std::string text = sample_type_system_text();
    ASSERT_FALSE(text.empty());
    long calls = walk([&](long n) {
        vyrtest::LogCapture log;
        vyr_type_system_t *ts =
            failing(n, [&] { return vyr_type_system_deserialize(text.c_str()); });
        Lines lines = problems(log);
        for (const auto &l : lines) EXPECT_TRUE(known_json_failure(l)) << l;
        if (ts) {
            // Either nothing was lost, or the loss was reported.
            char *again = vyr_type_system_serialize(ts, 0);
            if (!again || text != again) {
                EXPECT_FALSE(lines.empty()) << "silent loss";
            }
            free(again);
        } else {
            EXPECT_TRUE(alloc::fired());
            EXPECT_FALSE(lines.empty()) << "unreported failure";
        }
        vyr_destroy_type_system(ts);
    });
    EXPECT_GT(calls, 50);

    // One schema of that text, added to a host's type system.
    vyr_type_system_t *src = vyr_type_system_deserialize(text.c_str());
    ASSERT_NE(src, nullptr);
    json_t *schema_json = vyr_schema_jsonify(src->schemas[0]);
    char *dumped = json_dumps(schema_json, 0);
    const std::string schema_text = dumped;
    free(dumped);
    json_decref(schema_json);
    vyr_destroy_type_system(src);
    walk([&](long n) {
        vyr_type_system_t *ts = vyr_create_type_system();
        vyrtest::LogCapture log;
        uint8_t index = 99;
        int rc = failing(n, [&] {
            return vyr_type_system_add_schema_from_serialized_json(ts, schema_text.c_str(), &index);
        });
        Lines lines = problems(log);
        for (const auto &l : lines) EXPECT_TRUE(known_json_failure(l)) << l;
        if (rc == 0) {
            EXPECT_EQ(index, 0);
            ASSERT_EQ(ts->num_schemas, 1);
            if (ts->schemas[0]->num_types != 2) {
                EXPECT_FALSE(lines.empty()) << "silent loss";
            }
        } else {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(ts->num_schemas, 0);
            EXPECT_FALSE(lines.empty()) << "unreported failure";
        }
        vyr_destroy_type_system(ts);
    });
}

TEST_F(AllocFailures, Sources) {
    setenv("VYR_HOST_NAME", "node1", 1);
    EXPECT_EQ(walk([](long n) {
                  vyr_source_array_t *a = failing(n, [] { return vyr_create_source_array(); });
                  if (alloc::fired()) {
                      EXPECT_EQ(a, nullptr);
                  }
                  vyr_destroy_source_array(a);
              }),
              1);
    // The record, then the scratch name of the VYR_SOURCE_ID lookup, whose
    // failure falls back to the plain lookup.
    EXPECT_EQ(walk([](long n) {
                  vyr_source_t *s = failing(n, [] { return vyr_create_default_source("tarvik"); });
                  if (n == 1) {
                      EXPECT_EQ(s, nullptr);
                  } else {
                      ASSERT_NE(s, nullptr);
                      EXPECT_STREQ(s->id, "node1");
                  }
                  vyr_destroy_source(s);
              }),
              2);
    EXPECT_EQ(walk([](long n) {
                  vyr_source_array_t *a = vyr_create_default_source_array("t");
                  vyr_source_t *s = vyr_create_source("x", "y");
                  bool ok = failing(n, [&] { return vyr_source_array_append(a, s); });
                  EXPECT_EQ(ok, !alloc::fired());
                  ASSERT_EQ(a->count, ok ? 2 : 1);
                  if (!ok) vyr_destroy_source(s);
                  vyr_destroy_source_array(a);
              }),
              1);
    EXPECT_EQ(walk([](long n) {
                  vyr_source_array_t *a =
                      failing(n, [] { return vyr_create_default_source_array("t"); });
                  if (n == 3) {
                      ASSERT_NE(a, nullptr);
                      EXPECT_STREQ(a->sources[0]->id, "node1");
                  } else if (alloc::fired()) {
                      EXPECT_EQ(a, nullptr);
                  }
                  vyr_destroy_source_array(a);
              }),
              4);

    // rack[1-3]: a scratch copy per number (a failed one reads as an invalid
    // number), the prefix, the array, then a source and a slot per number.
    EXPECT_EQ(walk([](long n) {
                  vyrtest::LogCapture log;
                  vyr_source_array_t *a =
                      failing(n, [] { return vyr_create_source_array_from_string("rack[1-3]"); });
                  if (alloc::fired()) {
                      EXPECT_EQ(a, nullptr);
                      Lines want;
                      if (n <= 2) want = {"[source] Invalid source format: rack[1-3]"};
                      if (n == 3) want = {"[source] Failed to allocate memory"};
                      EXPECT_EQ(problems(log), want);
                  } else {
                      ASSERT_NE(a, nullptr);
                      EXPECT_STREQ(a->sources[2]->id, "rack_3");
                  }
                  vyr_destroy_source_array(a);
              }),
              10);

    // A plain text file of two names: the opens and reads are the C library's.
    const char *path = "alloc_failures_sources.txt";
    FILE *f = fopen(path, "w");
    ASSERT_NE(f, nullptr);
    fputs("alpha\nbeta\n", f);
    fclose(f);
    walk([&](long n) {
        vyrtest::LogCapture log;
        vyr_source_array_t *a =
            failing(n, [&] { return vyr_create_source_array_from_input(path); });
        if (a) {
            EXPECT_EQ(a->count, 2);
        } else {
            EXPECT_TRUE(alloc::fired());
            for (const auto &l : problems(log))
                EXPECT_TRUE(l == std::string("[source] Failed to open file: ") + path ||
                            l == std::string("[source] Failed to open text file: ") + path)
                    << l;
        }
        vyr_destroy_source_array(a);
    });
    remove(path);
    unsetenv("VYR_HOST_NAME");
}

// ---- the provider ---------------------------------------------------------------

TEST_F(AllocFailures, ProviderSources) {
    setenv("VYR_HOST_NAME", "node1", 1);
    tarvik_provider_t *p = tarvik_provider_instance();
    // Array, source, the VYR_SOURCE_ID lookup's scratch name (which falls
    // back), then the array's slot.
    EXPECT_EQ(walk([&](long n) {
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
              }),
              4);
    unsetenv("VYR_HOST_NAME");
}

TEST_F(AllocFailures, DeviceRegistrationKeepsItsPartialCopies) {
    tarvik_provider_t *p = tarvik_provider_instance();
    p->update_interval_sec = 30;
    const char *messages[] = {
        "[tarvik provider] [tarvik_provider_add_device] [D] Failed to allocate memory for device "
        "name",
        "[tarvik provider] [tarvik_provider_add_device][D] Failed to allocate memory for device "
        "path",
        "[tarvik provider] [tarvik_provider_add_device][D] Failed to allocate memory for out "
        "filepath",
        "[tarvik provider] [tarvik_provider_add_device] [D] Failed to allocate memory for command",
        "[tarvik provider] [tarvik_provider_add_device] [D] Failed to allocate memory for service "
        "command",
    };
    const Lines copies = {
        "D", "/dev/zdt/D", "/tmp/tarvik_collect_D.csv",
        "phyprobe -d /dev/zdt/D --tarvik_collect /tmp/tarvik_collect_D.csv --tarvik_rewrite > "
        "/dev/null"};
    EXPECT_EQ(walk([&](long n) {
                  vyrtest::LogCapture log;
                  alloc::arm(n);
                  tarvik_provider_add_device("D", 10);
                  alloc::disarm();
                  if (alloc::fired()) {
                      EXPECT_TRUE(p->devices.empty());
                      EXPECT_EQ(problems(log), Lines{messages[n - 1]});
                      // The copies made before the failed one stay allocated, by design.
                      std::vector<void *> kept = alloc::live_blocks();
                      Lines texts;
                      for (void *b : kept) texts.push_back(static_cast<const char *>(b));
                      std::sort(texts.begin(), texts.end());
                      Lines want(copies.begin(), copies.begin() + (n - 1));
                      std::sort(want.begin(), want.end());
                      EXPECT_EQ(texts, want);
                      for (void *b : kept) free(b);
                  } else {
                      ASSERT_EQ(p->devices.size(), 1u);
                      EXPECT_STREQ(p->devices.at("D").command, copies[3].c_str());
                      char *service = p->devices.at("D").service_command;
                      tarvik_provider_destroy(&p->provider);
                      EXPECT_EQ(alloc::live(), 1u);  // destroy keeps the service command
                      free(service);
                  }
              }),
              5);
}

}  // namespace
