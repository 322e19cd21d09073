#include "support/file_id.h"

#include <gtest/gtest.h>

using namespace arsp;

namespace {

FileId id(dev_t device, ino_t inode)
{
    struct stat status = {};
    status.st_dev = device;
    status.st_ino = inode;
    return FileId(status);
}

TEST(FileIdTest, DeviceAndInodeIdentifyAFile)
{
    EXPECT_EQ(id(1, 2), id(1, 2));
    EXPECT_NE(id(1, 2), id(1, 3));
    EXPECT_NE(id(1, 2), id(3, 2));
}

} // namespace
