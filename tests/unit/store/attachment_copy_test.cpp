#include "store/attachment_copy.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/store/database_fixture.h"
#include "tests/unit/support/failing_calls.h"

using namespace arsp;

namespace {

namespace fs = std::filesystem;

class AttachmentCopyTest : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        fs::create_directories(SUBDIRECTORY);
        std::ofstream(SOURCE) << "content";
    }
    void TearDown() override
    {
        calls_before_failure = NONE_FAILS;
        fs::remove_all("/var/qmail/mailnames/unit.test");
        fs::remove(SOURCE);
    }

    inline static const std::string SOURCE = "/var/tmp/source";
    inline static const std::string SUBDIRECTORY = "/var/qmail/mailnames/unit.test/user/@attachments/sub";
};

TEST_F(AttachmentCopyTest, CopyThatCannotBeExaminedForItsFlushIsAFailure)
{
    const Texts failure = {"Unable to move attachment " + SOURCE + " to " + SUBDIRECTORY + ": Input/output error"};
    const std::vector<Texts> records = {
        {},      {},               /* whether sub is a directory, before and after the copy */
        failure, failure, failure, /* the copy, three times */
        {},
    };
    for (int calls = 0; calls < static_cast<int>(records.size()); ++calls) {
        const Texts &expected = records.at(static_cast<std::size_t>(calls));
        syslog_capture.records.clear();
        calls_before_failure = calls;
        EXPECT_EQ(copy_attachment(SOURCE, "user@unit.test", "sub"), expected.empty() ? 0 : -1) << calls;
        EXPECT_EQ(errors(), expected) << calls;
        EXPECT_TRUE(fs::remove(SUBDIRECTORY + "/source"));
    }
}

} // namespace
