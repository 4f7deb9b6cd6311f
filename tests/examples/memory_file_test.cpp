#include "common/memory_file.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <stdexcept>
#include <vector>

TEST(MemoryFile, AFrameReadsTheSameFromMemoryAndFromTheFile)
{
    MemoryFile file(1 << 16);
    for (int i = 0; i < 20; ++i) { // more than once around
        const std::vector<uint8_t> frame(5000, static_cast<uint8_t>(i));
        const uint8_t *where = file.place(frame);
        std::vector<uint8_t> read(frame.size());
        const off_t offset = static_cast<off_t>(reinterpret_cast<uintptr_t>(where) - file.base());
        ASSERT_EQ(pread(file.descriptor(), read.data(), read.size(), offset), 5000);
        EXPECT_EQ(read, frame);
    }
}

TEST(MemoryFile, TheLastFramesStayUntouched)
{
    MemoryFile file(1 << 16);
    const uint8_t *previous = file.place(std::vector<uint8_t>(16000, 0));
    for (uint8_t i = 1; i < 20; ++i) {
        const uint8_t *where = file.place(std::vector<uint8_t>(16000, i));
        EXPECT_EQ(*previous, i - 1);
        previous = where;
    }
}

TEST(MemoryFile, AFrameThatIsTooLargeIsRefused)
{
    MemoryFile file(1 << 16);
    EXPECT_THROW(file.place(std::vector<uint8_t>((1 << 14) + 1)), std::length_error);
}
