// Event blocks as the host reads them: header bytes, room rules and the
// zero-size report.
#include <gtest/gtest.h>

#include <cstring>

#include "unit_helpers.h"
#include "vyr_serializer.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A hand-made schema table at index 1 with record sizes 30, 5 and 0, and a
// buffer of `capacity` bytes (plus a guard) filled with 0xAA.
struct Buffer {
    vyr_type_definition_t types[3] = {};
    vyr_schema_t schema = {};
    vyr_schema_t *schemas[2] = {nullptr, &schema};
    Bytes bytes;
    vyr_data_serializer_t ser = {};
    explicit Buffer(uint64_t capacity, uint64_t used = 0) : bytes(capacity + 8, 0xAA) {
        schema.name = const_cast<char *>("demo");
        types[0].size = 30;
        types[1].size = 5;
        for (int i = 0; i < 3; ++i) schema.types[i] = &types[i];
        schema.num_types = 3;
        ser = {schemas, bytes.data(), capacity, used};
    }
};

TEST(Serializer, BlockBytesAreLittleEndianHeaderThenRecords) {
    Buffer b(100);
    const uint8_t records[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(2u,
              vyr_data_serializer_write_events_ts(&b.ser, 1, 1, records, 2, 0x0102030405060708ull));
    const Bytes want = {'V', 'Y', 'R', 'E', 8, 7, 6, 5, 4, 3, 2, 1,  1,   1,
                        0,   2,   1,   2,   3, 4, 5, 6, 7, 8, 9, 10, 0xAA};
    EXPECT_EQ(want, Bytes(b.bytes.begin(), b.bytes.begin() + 27));
}

TEST(Serializer, WritesAndReservationsCutToWhatFits) {
    const struct {
        uint64_t capacity, used;
        uint8_t type, count;
        unsigned written;  // by a write
        uint64_t used_after;
        unsigned capacity_left;  // records of the type that fit before the write
    } cases[] = {
        {100, 0, 0, 5, 2, 76, 2},  // 84 free bytes hold two 30-byte records
        {75, 0, 0, 2, 1, 46, 1},   // one byte short of the second record
        {16, 0, 0, 0, 0, 0, 0},    // not even an empty block fits without free space
        {100, 0, 0, 0, 0, 16, 2},  // a count of 0 still writes an empty block
        {200, 150, 0, 5, 1, 196, 1}, {200, 0, 1, 255, 36, 196, 36},  // 184 / 5
    };
    static uint8_t records[255 * 30];
    for (const auto &c : cases) {
        SCOPED_TRACE(c.capacity);
        Buffer b(c.capacity, c.used);
        EXPECT_EQ(c.capacity_left, vyr_data_serializer_get_capacity(&b.ser, 1, c.type));
        EXPECT_EQ(c.written, vyr_data_serializer_write_events(&b.ser, 1, c.type, records, c.count));
        EXPECT_EQ(c.used_after, b.ser.used);
        EXPECT_TRUE(c.used_after == c.used || b.bytes[c.used + 15] == c.written) << "block count";
        EXPECT_EQ(0xAA, b.bytes[c.capacity]) << "wrote past the capacity";
    }
}

TEST(Serializer, EventsBufferReservesABlockForTheCaller) {
    Buffer b(100);
    vyrtest::LogCapture log;
    size_t size = 0;
    EXPECT_EQ(b.bytes.data() + 16, vyr_data_serializer_get_events_buffer(&b.ser, 1, 1, 3, &size));
    EXPECT_EQ(std::make_tuple(size, b.ser.used, b.bytes[0], b.bytes[13], b.bytes[15]),
              std::make_tuple(size_t(15), uint64_t(31), uint8_t('V'), uint8_t(1), uint8_t(3)));
    // Too large by two bytes: 100 - 16 - 31 = 53 free, 11 records need 55.
    EXPECT_EQ(nullptr, vyr_data_serializer_get_events_buffer(&b.ser, 1, 1, 11, &size));
    Buffer full(16);
    EXPECT_EQ(nullptr, vyr_data_serializer_get_events_buffer(&full.ser, 1, 0, 1, &size));
    const std::string cannot =
        "[Data Serializer][vyr_data_serializer_get_events_buffer] Cannot get data buffer. ";
    EXPECT_EQ(vyrtest::unit::texts(log),
              (std::vector<std::string>{cannot + "free_space = 53 < data_size = 55",
                                        cannot + "free_space = 0 < data_size = 30"}));
    // A zero-size type gets a block as long as a header fits.
    EXPECT_EQ(full.bytes.data() + 16,
              vyr_data_serializer_get_events_buffer(&full.ser, 1, 2, 4, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(4, full.bytes[15]);
    EXPECT_EQ(nullptr, vyr_data_serializer_get_events_buffer(&full.ser, 1, 2, 4, &size));
}

// The rate-limit clocks are process-wide, so this is the only test that
// reaches the zero-size report; the capacity query keeps its own clock.
TEST(Serializer, ZeroSizeReportIsRateLimitedPerEntryPoint) {
    Buffer b(100);
    vyrtest::LogCapture log;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(0u, vyr_data_serializer_write_events(&b.ser, 1, 2, "x", 1));
        EXPECT_EQ(0u, vyr_data_serializer_get_capacity(&b.ser, 1, 2));
    }
    EXPECT_EQ(0u, b.ser.used);
    const std::string msg = "schema demo type index 2 size is zero";
    EXPECT_EQ(vyrtest::unit::texts(log), (std::vector<std::string>{msg, msg}));
}

}  // namespace
