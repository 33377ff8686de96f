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
#include "unit_helpers.h"
#include "vyr_schema.h"
#include "vyr_type_system.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
static std::atomic<long> g_calls{-1};  // -1: not counting

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *malloc(size_t size) {
    return g_calls >= 0 ? ++g_calls : 0, __libc_malloc(size);
}
void *calloc(size_t n, size_t size) {
    return g_calls >= 0 ? ++g_calls : 0, __libc_calloc(n, size);
}
void *realloc(void *p, size_t size) {
    return g_calls >= 0 ? ++g_calls : 0, __libc_realloc(p, size);
}
void free(void *p) {
    if (p && g_calls >= 0) ++g_calls;
    __libc_free(p);
}
}

namespace {

// Heap calls made while `body` runs a hundred times.
template <typename F>
long heap_calls(F body) {
    g_calls = 0;
    for (int i = 0; i < 100; ++i) body();
    return g_calls.exchange(-1);
}

// Service mode, five devices with hand-made records whose files live in a
// temp directory. The value line takes every conversion route: long digit
// runs, overflow, blanks, exponents, inf, a token too long for the stack
// copy, empty tokens, texts short and long, and a CR.
TEST(HotPath, WarmPassAndWriteEventsAllocateNothing) {
    void *probe = nullptr;
    ASSERT_GE(heap_calls([&] { free(probe), probe = malloc(8); }), 1);  // the counter sees the heap
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
    uint8_t type_index = 0;
    vyr_type_field_info_t f[] = {{"timestamp", "t", "timestamp", VYR_VALUE_ABSOLUTE, 1},
                                 {"rest", "r", "char", VYR_VALUE_ABSOLUTE, (uint32_t)(size - 8)}};
    ASSERT_EQ(vyr_schema_add_type(vyr_type_system_add_schema(ts, "tarvik", 1, nullptr),
                                  "tarvik_event_0", f, 2, &type_index),
              0);
    p->provider.schema_index = 0;
    p->type_infos["hdr"].type_index = type_index;
    p->type_infos["hdr"].event_size = size;
    p->type_infos["hdr"].fields = &fields;
    const std::string file = "h\n1,18446744073709551616, 42,-2.25E-12,inf, " +
                             std::string(80, '7') + ",-1,,Active," + std::string(100, 'q') +
                             ",12\r\n";
    for (int i = 0; i < 5; ++i) {
        const std::string name = "dev" + std::to_string(i);
        tarvik_provider_dev_info_t &dv = p->devices[name];
        dv.name = strdup(name.c_str());
        dv.out_file_path = strdup(dir.file(name, file).c_str());
        dv.header_id = strdup("hdr");
        dv.header_offset = 2;
        dv.event_cache = static_cast<uint8_t *>(calloc(1, size));
    }
    tarvik_delivery_devices_changed();
    vyr_set_log_level(0);
    tarvik_collect_pass(p);  // warm: read buffer and thread-local copies sized
    EXPECT_EQ(heap_calls([&] { tarvik_collect_pass(p); }), 0);
    // Two events a call, so the cursor resumes.
    std::vector<uint8_t> buf(2 * (sizeof(vyr_event_block_header_t) + size) + 1);
    vyr_data_serializer_t ser{ts->schemas, buf.data(), buf.size(), 0};
    int calls = 0;
    EXPECT_EQ(heap_calls([&] {
                  do ser.used = 0, ++calls;
                  while (tarvik_provider_write_source_events(p, &ser) == VYR_WRITE_BUFFER_FULL);
              }),
              0);
    EXPECT_EQ(calls, 300);
    // The records stay: this binary holds this one test and then exits.
}

}  // namespace
#endif
