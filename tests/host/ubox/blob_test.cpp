#include <gtest/gtest.h>

#include "ubox_test.h"

TEST(Blob, NestedAttributesSurviveAMoveOfTheBuffer)
{
    Buffer buf;
    void* outer = blob_nest_start(buf.get(), 6);
    void* inner = blob_nest_start(buf.get(), 7);
    std::string text(2000, 'x');
    ASSERT_TRUE(blob_put_string(buf.get(), 1, text.c_str()));
    blob_nest_end(buf.get(), inner);
    blob_nest_end(buf.get(), outer);
    blob_put_u32(buf.get(), 2, 9);

    // 4 + 2001 padded to 2008, in two headers of 4, and 8 for the number, in the head of 4.
    ASSERT_EQ(blob_raw_len(buf.head()), 2028U);
    auto* nested = static_cast<blob_attr*>(blob_data(buf.head()));
    EXPECT_EQ(blob_raw_len(nested), 2016U);
    auto* deepest = static_cast<blob_attr*>(blob_data(nested));
    EXPECT_EQ(blob_raw_len(deepest), 2012U);
    EXPECT_EQ(blob_get_string(static_cast<blob_attr*>(blob_data(deepest))), text);
    EXPECT_EQ(blob_get_u32(blob_next(nested)), 9U);
}

TEST(Blob, RefusesToPassTheLargestLength)
{
    Buffer buf;
    std::string half(8 << 20, 'x');
    ASSERT_TRUE(blob_put(buf.get(), 1, half.data(), static_cast<unsigned>(half.size())));
    EXPECT_FALSE(blob_put(buf.get(), 1, half.data(), static_cast<unsigned>(half.size())));
    EXPECT_EQ(blob_raw_len(buf.head()), half.size() + 8);
    blob_buf_free(buf.get());
    blob_buf_free(buf.get());
    EXPECT_EQ(blob_buf_init(buf.get(), 2), 0);
    EXPECT_EQ(buf.hex(), "02000004");
}
