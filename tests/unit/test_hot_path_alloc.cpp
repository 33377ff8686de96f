// The collection pass and write_events run for the life of the host: once
// warm, they must not touch the heap at all. This binary counts every
// allocation of the process (malloc, calloc, realloc, and operator new, which
// goes through malloc) while a window is open.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "tarvik_collect.h"
#include "tarvik_delivery.h"
#include "tarvik_initialize.h"
#include "tarvik_provider.h"
#include "test_paths.h"
#include "vyr_logger.h"
#include "vyr_schema.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VYR_SANITIZER_ALLOCATOR 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VYR_SANITIZER_ALLOCATOR 1
#endif

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};
std::atomic<long> g_frees{0};

inline void note_allocation() {
    if (g_counting.load(std::memory_order_relaxed))
        g_allocations.fetch_add(1, std::memory_order_relaxed);
}
inline void note_free() {
    if (g_counting.load(std::memory_order_relaxed)) g_frees.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

#ifdef VYR_SANITIZER_ALLOCATOR
// The sanitizer runtime owns malloc; it reports every allocation to hooks.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void *,
                                                                             size_t),
                                                         void (*free_hook)(const volatile void *));
namespace {
void malloc_hook(const volatile void *, size_t) {
    note_allocation();
}
void free_hook(const volatile void *) {
    note_free();
}
[[maybe_unused]] const int g_hooks_installed =
    __sanitizer_install_malloc_and_free_hooks(malloc_hook, free_hook);
}  // namespace
#else
// glibc lets a program replace malloc; its own entry points stay reachable.
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);

void *malloc(size_t size) {
    note_allocation();
    return __libc_malloc(size);
}
void *calloc(size_t n, size_t size) {
    note_allocation();
    return __libc_calloc(n, size);
}
void *realloc(void *p, size_t size) {
    note_allocation();
    return __libc_realloc(p, size);
}
void free(void *p) {
    if (p) note_free();
    __libc_free(p);
}
}
#endif

namespace {

// Allocations made while it is alive.
class AllocationWindow {
  public:
    AllocationWindow() {
        g_allocations = 0;
        g_frees = 0;
        g_counting = true;
    }
    ~AllocationWindow() { g_counting = false; }
    long allocations() const { return g_allocations.load(); }
    long frees() const { return g_frees.load(); }
};

// Value lines that take every conversion route: plain and long digit runs,
// overflow, blanks and signs (strtoull/strtod), exponents, inf, hex, a token
// too long for the stack copy, empty tokens, texts short and long, and a CR.
std::string value_line(size_t device) {
    std::string long_number = " " + std::string(80, '7');
    return std::to_string(device) + ",18446744073709551616, 42,-1,007x,1.5,-2.25E-12,inf,0x1p3," +
           long_number + ",,Active," + std::string(100, 'q') + ",12\r";
}

std::vector<vyr_event_tarvik_type_t> *field_types() {
    const tarvik_field_type_t u = TARVIK_FIELD_UINT64, d = TARVIK_FIELD_DOUBLE,
                              s = TARVIK_FIELD_STRING;
    const tarvik_field_type_t types[] = {u, u, u, u, u, d, d, d, d, d, u, s, s, u};
    auto *fields = new std::vector<vyr_event_tarvik_type_t>;
    for (size_t i = 0; i < sizeof types / sizeof types[0]; ++i)
        fields->push_back({"f" + std::to_string(i), "f" + std::to_string(i), types[i], true});
    return fields;
}

size_t record_size(const std::vector<vyr_event_tarvik_type_t> &fields) {
    size_t size = TARVIK_EVENT_FIXED_SIZE;
    for (const auto &f : fields) size += f.type == TARVIK_FIELD_STRING ? TARVIK_TEXT_SIZE : 8;
    return size;
}

// The provider singleton in service mode with hand-made devices whose
// collection files live in a private temp directory, and a type system that
// knows their event type so write_events can serialize it.
class HotPath : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_level_ = vyr_set_log_level(0);
        char tmpl[] = "/tmp/vyr_alloc_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        p = tarvik_provider_instance();
        p->devices.clear();
        p->type_infos.clear();
        p->next_device = 0;
        p->run_as_service = true;
        fields_ = field_types();
        event_size_ = record_size(*fields_);

        ts_ = vyr_create_type_system();
        ASSERT_NE(ts_, nullptr);
        uint8_t schema_index = 0;
        vyr_schema_t *schema = vyr_type_system_add_schema(ts_, "tarvik", 1, &schema_index);
        ASSERT_NE(schema, nullptr);
        vyr_type_field_info_t f[] = {
            {"timestamp", "Event timestamp", "timestamp", VYR_VALUE_ABSOLUTE, 1},
            {"event_name", "Event name", "char", VYR_VALUE_ABSOLUTE, TARVIK_TEXT_SIZE},
            {"device_name", "Device name", "char", VYR_VALUE_ABSOLUTE, TARVIK_TEXT_SIZE},
            {"rest", "rest", "char", VYR_VALUE_ABSOLUTE,
             (uint32_t)(event_size_ - TARVIK_EVENT_FIXED_SIZE)},
        };
        uint8_t type_index = 0;
        ASSERT_EQ(vyr_schema_add_type(schema, "tarvik_event_0", f, 4, &type_index), 0);
        p->provider.schema_index = schema_index;
        tarvik_schema_type_info_t info;
        info.type_index = type_index;
        info.event_size = event_size_;
        info.fields = fields_;
        p->type_infos["hdr"] = info;
    }
    void TearDown() override {
        for (auto &e : p->devices) {
            free(e.second.name);
            free(e.second.out_file_path);
            free(e.second.header_id);
            free(e.second.event_cache);
        }
        p->devices.clear();
        p->type_infos.clear();
        p->next_device = 0;
        tarvik_delivery_devices_changed();
        delete fields_;
        vyr_destroy_type_system(ts_);
        std::string rm = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(system(rm.c_str()), 0);
        vyr_set_log_level(saved_level_);
    }
    // `count` devices with good files, plus one whose file never appears.
    void add_devices(size_t count) {
        const std::string header = "h\n";
        for (size_t i = 0; i <= count; ++i) {
            char name[32];
            snprintf(name, sizeof name, "dev%03zu", i);
            std::string file = dir_ + "/" + name + ".csv";
            if (i < count) vyrtest::write_file(file, header + value_line(i) + "\n");
            tarvik_provider_dev_info_t &d = p->devices[name];
            d.name = strdup(name);
            d.out_file_path = strdup(file.c_str());
            d.header_id = strdup("hdr");
            d.header_offset = header.size();
            d.event_cache = static_cast<uint8_t *>(calloc(1, event_size_));
        }
        tarvik_delivery_devices_changed();
    }
    size_t ready_devices() const {
        size_t n = 0;
        for (const auto &e : p->devices) n += e.second.new_data && !e.second.disabled;
        return n;
    }
    uint64_t first_field(const char *device) {
        uint64_t v;
        memcpy(&v, p->devices[device].event_cache + TARVIK_EVENT_FIXED_SIZE, 8);
        return v;
    }

    tarvik_provider_t *p = nullptr;
    vyr_type_system_t *ts_ = nullptr;
    std::vector<vyr_event_tarvik_type_t> *fields_ = nullptr;
    size_t event_size_ = 0;
    std::string dir_;
    int saved_level_ = 0;
};

// The counter itself must see the heap, or every zero below proves nothing.
TEST(AllocationCounter, SeesMallocAndNew) {
    AllocationWindow window;
    void *raw = malloc(100);
    std::vector<int> *v = new std::vector<int>(10);
    delete v;
    free(raw);
    EXPECT_GE(window.allocations(), 3);
    EXPECT_GE(window.frees(), 3);
}

// A warm pass and write_events never touch the heap.
TEST_F(HotPath, WarmPassAndWriteEventsAllocateNothing) {
    add_devices(5);
    tarvik_collect_pass(p);  // warm: read buffer and thread-local copies sized
    ASSERT_EQ(ready_devices(), 5u);
    {
        AllocationWindow window;
        for (int i = 0; i < 100; ++i) tarvik_collect_pass(p);
        EXPECT_EQ(window.allocations(), 0);
        EXPECT_EQ(window.frees(), 0);
    }
    EXPECT_EQ(first_field("dev003"), 3u);
    // The device without a file counted its failures and was switched off.
    EXPECT_TRUE(p->devices["dev005"].disabled);
    // Draining two events a call, so the cursor resumes before the drain ends.
    std::vector<uint8_t> buf(2 * (sizeof(vyr_event_block_header_t) + event_size_) + 1);
    vyr_data_serializer_t ser{ts_->schemas, buf.data(), buf.size(), 0};
    AllocationWindow window;
    for (int round = 0; round < 50; ++round) {
        int calls = 0, rc;
        do {
            ser.used = 0;
            rc = tarvik_provider_write_source_events(p, &ser);
            ++calls;
        } while (rc == VYR_WRITE_BUFFER_FULL);
        ASSERT_EQ(calls, 3);
    }
    EXPECT_EQ(window.allocations(), 0);
    EXPECT_EQ(window.frees(), 0);
}

}  // namespace
