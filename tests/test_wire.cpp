// The wire codec against trailers written out byte by byte: encoding gives exactly those bytes,
// decoding gives back the records, and short or full trailers behave at their edges.
#include <gtest/gtest.h>

#include <vector>

#include "frame_geometry.h"
#include "trailer.h"

namespace {

using Bytes = std::vector<unsigned char>;
namespace trailer = orvo::trailer;

// A 600-byte "frame" whose last 489 bytes are the trailer: two records (ticks 0x01020304 and
// 0xFFFFFFFE; gyro 1, -2, 300; accel -32768, 32767, 8192, then all -1), the frame time 0x0A0B0C0D
// in slot 2, the count 2 in the last byte; every other trailer byte 0.
Bytes handMadeFrame() {
    Bytes f(600, 0xEE);
    unsigned char* t = f.data() + 600 - 489;
    std::fill(t, t + 489, 0);
    const unsigned char rec0[24] = {0x04, 0x03, 0x02, 0x01, 0x01, 0x00, 0xFE, 0xFF, 0x2C, 0x01,
                                    0x00, 0x80, 0xFF, 0x7F, 0x00, 0x20};
    const unsigned char rec1[24] = {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    std::copy(rec0, rec0 + 24, t);
    std::copy(rec1, rec1 + 24, t + 24);
    const unsigned char time[4] = {0x0D, 0x0C, 0x0B, 0x0A};
    std::copy(time, time + 4, t + 48);
    f.back() = 2;
    return f;
}

std::vector<trailer::Record> handMadeRecords() {
    trailer::Record a, b;
    a.ticks = 0x01020304;
    a.gyro[0] = 1, a.gyro[1] = -2, a.gyro[2] = 300;
    a.accel[0] = -32768, a.accel[1] = 32767, a.accel[2] = 8192;
    b.ticks = 0xFFFFFFFE;
    for (int i = 0; i < 3; ++i) b.gyro[i] = b.accel[i] = -1;
    return {a, b};
}

TEST(Wire, TrailerEncodesToTheHandMadeBytesAndDecodesBack) {
    const Bytes want = handMadeFrame();
    Bytes got(600, 0xEE);
    std::fill(got.end() - 489, got.end(), 0x55);  // the encoder clears what it owns
    trailer::encode(got.data(), got.size(), handMadeRecords(), 0x0A0B0C0D);
    EXPECT_EQ(got, want);

    uint8_t count = 0;
    unsigned char block[orvo::frame::kBlockSize];
    ASSERT_TRUE(trailer::latch(want.data(), want.size(), orvo::frame::kBlockFromEnd, count, block));
    ASSERT_EQ(count, 2);
    const auto records = handMadeRecords();
    for (size_t i = 0; i < 2; ++i) {
        const trailer::Record r = trailer::readRecord(block + i * orvo::frame::kRecordSize);
        EXPECT_EQ(r.ticks, records[i].ticks);
        for (int a = 0; a < 3; ++a) EXPECT_TRUE(r.gyro[a] == records[i].gyro[a] && r.accel[a] == records[i].accel[a]);
    }
    uint32_t ticks = 0;
    ASSERT_TRUE(trailer::frameTicks(want.data(), want.size(), &ticks));
    EXPECT_EQ(ticks, 0x0A0B0C0Du);
}

TEST(Wire, FullAndShortTrailersStopAtTheirEdges) {
    // 25 records: only 20 are written, there is no slot for the frame time, the count says 20.
    std::vector<trailer::Record> many(25);
    for (size_t i = 0; i < many.size(); ++i) many[i].ticks = uint32_t(i + 1);
    Bytes f(489, 0);
    trailer::encode(f.data(), f.size(), many, 0xDEADBEEF);
    EXPECT_EQ(f.back(), 20);
    EXPECT_EQ(trailer::readLE32(f.data() + 19 * 24), 20u);
    uint32_t ticks = 7;
    EXPECT_FALSE(trailer::frameTicks(f.data(), f.size(), &ticks));
    EXPECT_EQ(ticks, 7u);
    // A count byte above 20 is clamped when latched.
    f.back() = 200;
    uint8_t count = 0;
    unsigned char block[orvo::frame::kBlockSize];
    ASSERT_TRUE(trailer::latch(f.data(), f.size(), orvo::frame::kBlockFromEnd, count, block));
    EXPECT_EQ(count, 20);
    // A frame shorter than the trailer is neither written nor read.
    Bytes tiny(488, 0x33);
    trailer::encode(tiny.data(), tiny.size(), many, 1);
    EXPECT_EQ(tiny, Bytes(488, 0x33));
    count = 9;
    EXPECT_FALSE(trailer::latch(tiny.data(), tiny.size(), orvo::frame::kBlockFromEnd, count, block));
    EXPECT_EQ(count, 0);
    EXPECT_FALSE(trailer::frameTicks(tiny.data(), tiny.size(), &ticks));
}

}  // namespace
