// Event blocks as the host reads them: header bytes, room rules and the
// zero-size report.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "vyr_serializer.h"

namespace {

using vyrtest::LogCapture;

// A hand-made schema table so the serializer is tested on its own.
struct Table {
    vyr_type_definition_t types[3] = {};
    vyr_schema_t schema = {};
    vyr_schema_t *schemas[2] = {nullptr, &schema};  // the schema sits at index 1

    Table() {
        schema.name = const_cast<char *>("demo");
        types[0].size = 30;
        types[1].size = 5;
        types[2].size = 0;
        for (int i = 0; i < 3; ++i) schema.types[i] = &types[i];
        schema.num_types = 3;
    }
};

struct Buffer {
    std::vector<uint8_t> bytes;
    vyr_data_serializer_t ser = {};
    Buffer(Table &t, uint64_t capacity, uint8_t fill = 0xAA) : bytes(capacity + 8, fill) {
        ser.schemas = t.schemas;
        ser.buffer = bytes.data();
        ser.capacity = capacity;
    }
};

std::vector<uint8_t> header(uint8_t schema, uint8_t type, uint8_t count, uint64_t time) {
    std::vector<uint8_t> h = {'V', 'Y', 'R', 'E'};
    for (int i = 0; i < 8; ++i) h.push_back(uint8_t(time >> (8 * i)));
    h.push_back(schema);
    h.push_back(type);
    h.push_back(0);
    h.push_back(count);
    return h;
}

std::vector<uint8_t> slice(const Buffer &b, size_t from, size_t n) {
    return std::vector<uint8_t>(b.bytes.begin() + from, b.bytes.begin() + from + n);
}

TEST(Serializer, BlockBytesAreLittleEndianHeaderThenRecords) {
    Table t;
    Buffer b(t, 64);
    const uint8_t records[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const uint64_t time = 0x0102030405060708ull;
    EXPECT_EQ(2u, vyr_data_serializer_write_events_ts(&b.ser, 1, 1, records, 2, time));
    EXPECT_EQ(26u, b.ser.used);

    std::vector<uint8_t> want = header(1, 1, 2, time);
    want.insert(want.end(), records, records + 10);
    EXPECT_EQ(want, slice(b, 0, 26));
    EXPECT_EQ(0xAA, b.bytes[26]) << "nothing written past the records";

    // A second block starts where the first ended.
    EXPECT_EQ(1u, vyr_data_serializer_write_events_ts(&b.ser, 1, 1, records + 5, 1, 7));
    want = header(1, 1, 1, 7);
    want.insert(want.end(), records + 5, records + 10);
    EXPECT_EQ(want, slice(b, 26, 21));
    EXPECT_EQ(47u, b.ser.used);
}

TEST(Serializer, WriteCutsTheCountToWhatFits) {
    struct Case {
        uint64_t capacity, used;
        uint8_t type, count;
        unsigned written;
        uint64_t used_after;
    };
    const Case cases[] = {
        {100, 0, 0, 5, 2, 76},  // 84 free bytes hold two 30-byte records
        {100, 0, 0, 2, 2, 76},  // exactly what fits
        {100, 0, 0, 1, 1, 46},  // fewer than fit
        {76, 0, 0, 2, 2, 76},   // the buffer filled to the last byte
        {75, 0, 0, 2, 1, 46},   // one byte short of the second record
        {46, 0, 0, 9, 1, 46},   // room for exactly one
        {45, 0, 0, 9, 0, 0},    // record larger than the free space: nothing
        {16, 0, 0, 1, 0, 0},    // header alone does not leave free space
        {16, 0, 0, 0, 0, 0},    // not even an empty block fits without free space
        {10, 0, 0, 1, 0, 0},    // smaller than a header
        {200, 150, 0, 5, 1, 196}, {200, 0, 1, 255, 36, 196},  // 184 / 5
    };
    static uint8_t records[255 * 30];
    for (const Case &c : cases) {
        Table t;
        Buffer b(t, c.capacity);
        b.ser.used = c.used;
        SCOPED_TRACE("capacity " + std::to_string(c.capacity) + " count " +
                     std::to_string(c.count));
        EXPECT_EQ(c.written, vyr_data_serializer_write_events(&b.ser, 1, c.type, records, c.count));
        EXPECT_EQ(c.used_after, b.ser.used);
        if (c.written) {
            EXPECT_EQ(c.written, b.bytes[c.used + 15]);
        }
        EXPECT_EQ(0xAA, b.bytes[c.capacity]) << "wrote past the capacity";
    }
}

TEST(Serializer, CountZeroWritesAnEmptyBlock) {
    Table t;
    Buffer b(t, 100);
    EXPECT_EQ(0u, vyr_data_serializer_write_events_ts(&b.ser, 1, 0, nullptr, 0, 99));
    EXPECT_EQ(16u, b.ser.used);
    EXPECT_EQ(header(1, 0, 0, 99), slice(b, 0, 16));
}

TEST(Serializer, WriteStampsTheWallClock) {
    Table t;
    Buffer b(t, 100);
    const uint8_t record[5] = {};
    uint64_t before = vyr_time_now_usec();
    ASSERT_EQ(1u, vyr_data_serializer_write_events(&b.ser, 1, 1, record, 1));
    uint64_t after = vyr_time_now_usec();
    uint64_t stamped;
    std::memcpy(&stamped, b.bytes.data() + 4, 8);  // the test host is little-endian
    EXPECT_LE(before, stamped);
    EXPECT_GE(after, stamped);
}

TEST(Serializer, EventsBufferReservesABlockForTheCaller) {
    Table t;
    Buffer b(t, 100);
    LogCapture log;
    size_t size = 0;
    uint8_t *data =
        static_cast<uint8_t *>(vyr_data_serializer_get_events_buffer(&b.ser, 1, 1, 3, &size));
    ASSERT_EQ(b.bytes.data() + 16, data);
    EXPECT_EQ(15u, size);
    EXPECT_EQ(31u, b.ser.used);
    EXPECT_EQ(0, std::memcmp(b.bytes.data(), "VYRE", 4));
    EXPECT_EQ((std::vector<uint8_t>{1, 1, 0, 3}), slice(b, 12, 4));

    // Too large by one byte: 100 - 16 - 31 = 53 free, 11 records need 55.
    EXPECT_EQ(nullptr, vyr_data_serializer_get_events_buffer(&b.ser, 1, 1, 11, &size));
    EXPECT_EQ(31u, b.ser.used);
    EXPECT_EQ(1u, log.count(VYR_LOG_LEVEL_DEBUG,
                            "[Data Serializer][vyr_data_serializer_get_events_buffer] Cannot get "
                            "data buffer. free_space = 53 < data_size = 55"))
        << log.dump();
    EXPECT_EQ(1u, log.lines().size());
}

TEST(Serializer, EventsBufferWithoutFreeSpace) {
    Table t;
    Buffer b(t, 16);
    LogCapture log;
    const uint8_t record[30] = {};
    EXPECT_EQ(0u, vyr_data_serializer_write_events(&b.ser, 1, 0, record, 1));
    EXPECT_TRUE(log.lines().empty()) << "a full buffer is not logged by writes";
    size_t size = 123;
    EXPECT_EQ(nullptr, vyr_data_serializer_get_events_buffer(&b.ser, 1, 0, 1, &size));
    EXPECT_EQ(123u, size);
    EXPECT_EQ(0u, b.ser.used);
    EXPECT_EQ(1u, log.count(VYR_LOG_LEVEL_DEBUG,
                            "[Data Serializer][vyr_data_serializer_get_events_buffer] Cannot get "
                            "data buffer. free_space = 0 < data_size = 30"))
        << log.dump();
}

TEST(Serializer, EventsBufferForZeroSizeTypeGetsAnEmptyBlock) {
    Table t;
    Buffer b(t, 16);
    size_t size = 9;
    EXPECT_EQ(b.bytes.data() + 16, vyr_data_serializer_get_events_buffer(&b.ser, 1, 2, 4, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(16u, b.ser.used);
    EXPECT_EQ(4, b.bytes[15]);
    // No room left for another header.
    EXPECT_EQ(nullptr, vyr_data_serializer_get_events_buffer(&b.ser, 1, 2, 4, &size));
    EXPECT_EQ(16u, b.ser.used);
}

// The rate-limit clocks are process-wide, so this is the only test that
// reaches the zero-size report.
TEST(Serializer, ZeroSizeReportIsRateLimitedPerEntryPoint) {
    Table t;
    Buffer b(t, 100);
    LogCapture log;
    const std::string msg = "schema demo type index 2 size is zero";
    EXPECT_EQ(0u, vyr_data_serializer_write_events(&b.ser, 1, 2, "x", 1));
    EXPECT_EQ(0u, vyr_data_serializer_write_events(&b.ser, 1, 2, "x", 1));
    EXPECT_EQ(0u, b.ser.used);
    EXPECT_EQ(1u, log.count(VYR_LOG_LEVEL_ERROR, msg)) << log.dump();

    // The capacity query keeps its own clock: the write's report does not silence it.
    EXPECT_EQ(0u, vyr_data_serializer_get_capacity(&b.ser, 1, 2));
    EXPECT_EQ(0u, vyr_data_serializer_get_capacity(&b.ser, 1, 2));
    EXPECT_EQ(2u, log.count(VYR_LOG_LEVEL_ERROR, msg)) << log.dump();
    EXPECT_EQ(2u, log.lines().size()) << log.dump();
}

TEST(Serializer, CapacityCountsWholeRecordsInTheFreeSpace) {
    Table t;
    Buffer b(t, 100);
    EXPECT_EQ(2u, vyr_data_serializer_get_capacity(&b.ser, 1, 0));   // 84 / 30
    EXPECT_EQ(16u, vyr_data_serializer_get_capacity(&b.ser, 1, 1));  // 84 / 5
    b.ser.used = 54;
    EXPECT_EQ(1u, vyr_data_serializer_get_capacity(&b.ser, 1, 0));  // 30 / 30
    b.ser.used = 84;
    EXPECT_EQ(0u, vyr_data_serializer_get_capacity(&b.ser, 1, 1));
    b.ser.used = 95;
    EXPECT_EQ(0u, vyr_data_serializer_get_capacity(&b.ser, 1, 1));
}

TEST(Serializer, ReserveBufferHandsOutRawBytes) {
    Table t;
    Buffer b(t, 20);
    EXPECT_EQ(b.bytes.data(), vyr_data_serializer_reserve_buffer(&b.ser, 12));
    EXPECT_EQ(12u, b.ser.used);
    EXPECT_EQ(nullptr, vyr_data_serializer_reserve_buffer(&b.ser, 9));
    EXPECT_EQ(12u, b.ser.used);
    EXPECT_EQ(b.bytes.data() + 12, vyr_data_serializer_reserve_buffer(&b.ser, 8));
    EXPECT_EQ(20u, b.ser.used);
    EXPECT_EQ(b.bytes.data() + 20, vyr_data_serializer_reserve_buffer(&b.ser, 0));
    EXPECT_EQ(0xAA, b.bytes[0]) << "no header is written";
}

TEST(Serializer, MagicValues) {
    vyr_magic_value_t m;
    vyr_magic_value_fill(m, 'E');
    EXPECT_EQ(0, std::memcmp(m, "VYRE", 4));
    EXPECT_TRUE(vyr_magic_value_match_type(m, 'E'));
    EXPECT_FALSE(vyr_magic_value_match_type(m, 'e'));

    vyr_magic_value_t lower;
    vyr_magic_value_fill_lower(lower, 'E');
    EXPECT_EQ(0, std::memcmp(lower, "vyre", 4));
    EXPECT_FALSE(vyr_magic_value_match_type(lower, 'e')) << "type match wants upper-case letters";
    EXPECT_FALSE(vyr_magic_value_match(m, lower));

    vyr_magic_value_t copy = {};
    vyr_magic_value_copy(copy, m);
    EXPECT_TRUE(vyr_magic_value_match(copy, m));
    copy[3] = 'B';
    EXPECT_FALSE(vyr_magic_value_match(copy, m));

    // A zero byte ends the letter comparison; the fourth bytes still count.
    const vyr_magic_value_t a = {'V', '\0', 'X', 'E'};
    const vyr_magic_value_t b = {'V', '\0', 'Y', 'E'};
    const vyr_magic_value_t c = {'V', '\0', 'Y', 'F'};
    EXPECT_TRUE(vyr_magic_value_match(a, b));
    EXPECT_FALSE(vyr_magic_value_match(a, c));
    const vyr_magic_value_t d = {'V', 'Y', 'S', 'E'};
    EXPECT_FALSE(vyr_magic_value_match(m, d));
}

}  // namespace
