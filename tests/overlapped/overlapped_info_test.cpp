// The operation record's buffer on the module heap.
#include <cstring>

#include <gtest/gtest.h>

#include "overlapped/overlapped_info.h"
#include "support/leak.h"

TEST(OverlappedInfo, FreshRecordDescribesItsWholeBuffer)
{
    COverlappedInfo info;
    EXPECT_EQ(0, info.m_nOperateType);
    EXPECT_EQ(0u, info.m_nDataLength);
    EXPECT_EQ(4096u, info.m_nBufferSize);
    ASSERT_NE(nullptr, info.m_pBuffer);
    EXPECT_EQ(reinterpret_cast<char*>(info.m_pBuffer), info.m_WSABuf.buf);
    EXPECT_EQ(4096u, info.m_WSABuf.len);
    EXPECT_EQ(static_cast<void*>(&info), static_cast<void*>(&info.m_Overlapped)) << "OVERLAPPED stands first";
}

TEST(OverlappedInfo, ResizeKeepsOnlyWhatFits)
{
    COverlappedInfo info;
    std::memcpy(info.m_pBuffer, "0123456789", 10);
    info.m_nDataLength = 10;
    ASSERT_EQ(1, info.ResizeBuffer(6, TRUE));
    EXPECT_EQ(6u, info.m_nBufferSize);
    EXPECT_EQ(6u, info.m_nDataLength);
    EXPECT_EQ(0, std::memcmp(info.m_pBuffer, "012345", 6));
    EXPECT_EQ(6u, info.m_WSABuf.len);
    ASSERT_EQ(1, info.GrowBuffer(10, TRUE));
    EXPECT_EQ(16u, info.m_nBufferSize);
    EXPECT_EQ(0, std::memcmp(info.m_pBuffer, "012345", 6));
    EXPECT_EQ(0, info.GrowBuffer(0, TRUE));
    EXPECT_EQ(16u, info.m_nBufferSize);
    ASSERT_EQ(1, info.ResizeBuffer(20, FALSE));
    EXPECT_EQ(0u, info.m_nDataLength);
}

TEST(OverlappedInfo, ResetGoesBackToTheDefaultAndFreesTheOldBuffer)
{
    LeakBaseline baseline;
    {
        COverlappedInfo info;
        ASSERT_EQ(1, info.ResizeBuffer(70000, FALSE));
        info.m_nDataLength = 70000;
        ASSERT_EQ(1, info.ResetBuffer(FALSE));
        EXPECT_EQ(4096u, info.m_nBufferSize);
        EXPECT_EQ(0u, info.m_nDataLength);
        EXPECT_EQ(reinterpret_cast<char*>(info.m_pBuffer), info.m_WSABuf.buf);
        EXPECT_EQ(4096u, info.m_WSABuf.len);
    }
    EXPECT_TRUE(baseline.Check("record buffers"));
}
