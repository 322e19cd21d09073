#include "support/standard_input.h"

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

using Records = std::vector<SyslogRecord>;

class StandardInputTest : public testing::Test {
protected:
    void SetUp() override { capture_syslog(); }
    void TearDown() override
    {
        largest_block = ANY_SIZE;
        dup2(kept_, STDIN_FILENO);
        close(kept_);
    }

    /* Makes `fd` standard input. */
    static void feed(int fd)
    {
        dup2(fd, STDIN_FILENO);
        close(fd);
    }
    void feed(const std::string &content) { feed(open(dir_.file("input", content).c_str(), O_RDONLY)); }

    ScratchDir dir_;
    InputText input_;

private:
    const int kept_ = dup(STDIN_FILENO);
};

TEST_F(StandardInputTest, BytesAreReadToTheEndAndReplaceEarlierInput)
{
    std::vector<std::string> texts = {"a long first text", std::string("a\0b\xff\n\n", 6), ""};
    for (const size_t length : {65535U, 65536U, 65537U, 131072U, 131073U, 1000000U})
        texts.emplace_back(length, 'x');
    for (const std::string &text : texts) {
        feed(text);
        EXPECT_EQ(read_standard_input(input_), 0);
        EXPECT_EQ(input_.view(), text);
    }
}

TEST_F(StandardInputTest, FailureToReadIsLoggedAndSetsErrno)
{
    feed(open("/", O_RDONLY));
    EXPECT_EQ(read_standard_input(input_), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to read standard input: Is a directory"}}));
}

TEST_F(StandardInputTest, InputThatDoesNotFitIntoMemoryThrows)
{
    for (const size_t largest : {65535U, 200000U}) {
        largest_block = largest;
        feed(std::string(131072, 'x'));
        EXPECT_THROW(read_standard_input(input_), std::bad_alloc);
    }
    EXPECT_EQ(syslog_capture.records, Records{});
}

} // namespace
