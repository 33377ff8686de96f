// The collection pass and write_events run for the life of the host: once
// warm, they must not touch the heap at all. This binary replaces malloc and
// friends (operator new goes through malloc) to count calls while a window is
// open; sanitizers own malloc, so there it has nothing to check.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>

#include "tarvik_collect.h"
#include "tarvik_delivery.h"
#include "tarvik_initialize.h"
#include "test_paths.h"
#include "unit_helpers.h"
#include "vyr_schema.h"
#include "vyr_type_system.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_calls{0};
void note() {
    if (g_counting) ++g_calls;
}
}  // namespace

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *malloc(size_t size) {
    return note(), __libc_malloc(size);
}
void *calloc(size_t n, size_t size) {
    return note(), __libc_calloc(n, size);
}
void *realloc(void *p, size_t size) {
    return note(), __libc_realloc(p, size);
}
void free(void *p) {
    if (p) note();
    __libc_free(p);
}
}

namespace {

// Heap calls made while `body` runs.
template <typename F>
long heap_calls(F body) {
    g_calls = 0;
    g_counting = true;
    body();
    g_counting = false;
    return g_calls;
}

// Service mode, devices with hand-made records whose files live in a temp
// directory. The value line takes every conversion route: long digit runs,
// overflow, blanks and signs, exponents, inf, a token too long for the stack
// copy, empty tokens, texts short and long, and a CR.
TEST(HotPath, WarmPassAndWriteEventsAllocateNothing) {
    void *probe = nullptr;
    ASSERT_GE(heap_calls([&] { probe = malloc(8); }), 1);  // the counter sees the heap
    free(probe);
    vyrtest::unit::TempDir dir;
    tarvik_provider_t *p = tarvik_provider_instance();
    p->run_as_service = true;
    const tarvik_field_type_t u = TARVIK_FIELD_UINT64, d = TARVIK_FIELD_DOUBLE,
                              s = TARVIK_FIELD_STRING;
    std::vector<vyr_event_tarvik_type_t> fields;
    size_t size = TARVIK_EVENT_FIXED_SIZE;
    for (tarvik_field_type_t t : {u, u, u, d, d, d, u, u, s, s, u})
        fields.push_back({"f", "f", t, true}), size += t == s ? TARVIK_TEXT_SIZE : 8;
    vyr_type_system_t *ts = vyr_create_type_system();
    uint8_t schema_index = 0, type_index = 0;
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, "tarvik", 1, &schema_index);
    vyr_type_field_info_t f[] = {
        {"timestamp", "t", "timestamp", VYR_VALUE_ABSOLUTE, 1},
        {"rest", "r", "char", VYR_VALUE_ABSOLUTE, (uint32_t)(size - 8)},
    };
    ASSERT_EQ(vyr_schema_add_type(schema, "tarvik_event_0", f, 2, &type_index), 0);
    p->provider.schema_index = schema_index;
    tarvik_schema_type_info_t info;
    info.type_index = type_index;
    info.event_size = size;
    info.fields = &fields;
    p->type_infos["hdr"] = info;
    for (int i = 0; i < 5; ++i) {
        std::string name = "dev" + std::to_string(i), file = dir.path + "/" + name + ".csv";
        vyrtest::write_file(
            file, "h\n" + std::to_string(i) + ",18446744073709551616, 42,-2.25E-12,inf, " +
                      std::string(80, '7') + ",-1,,Active," + std::string(100, 'q') + ",12\r\n");
        tarvik_provider_dev_info_t &dv = p->devices[name];
        dv.name = strdup(name.c_str());
        dv.out_file_path = strdup(file.c_str());
        dv.header_id = strdup("hdr");
        dv.header_offset = 2;
        dv.event_cache = static_cast<uint8_t *>(calloc(1, size));
    }
    tarvik_delivery_devices_changed();
    vyr_set_log_level(0);
    tarvik_collect_pass(p);  // warm: read buffer and thread-local copies sized
    EXPECT_EQ(heap_calls([&] {
                  for (int i = 0; i < 100; ++i) tarvik_collect_pass(p);
              }),
              0);
    // Two events a call, so the cursor resumes.
    std::vector<uint8_t> buf(2 * (sizeof(vyr_event_block_header_t) + size) + 1);
    vyr_data_serializer_t ser{ts->schemas, buf.data(), buf.size(), 0};
    EXPECT_EQ(heap_calls([&] {
                  for (int round = 0; round < 50; ++round) {
                      int calls = 0;
                      do ser.used = 0, ++calls;
                      while (tarvik_provider_write_source_events(p, &ser) == VYR_WRITE_BUFFER_FULL);
                      EXPECT_EQ(calls, 3);
                  }
              }),
              0);
    // The records stay: this binary holds this one test and then exits.
}

}  // namespace
#endif
