#ifndef ARSP_TESTS_UNIT_SUPPORT_STREAM_ORDER_H
#define ARSP_TESTS_UNIT_SUPPORT_STREAM_ORDER_H

#include <cstdio>
#include <string>
#include <utility>

#include <sys/types.h>

/* While it lives, stdout and stderr write into one text, in order: "[err]hello\n[out]hello\n". Both are fully buffered,
 * so a write appears only after a flush. */
class StreamOrder {
public:
    StreamOrder()
    {
        stdout = fopencookie(&out_, "w", {nullptr, write, nullptr, nullptr});
        stderr = fopencookie(&err_, "w", {nullptr, write, nullptr, nullptr});
    }
    StreamOrder(const StreamOrder &) = delete;
    StreamOrder &operator=(const StreamOrder &) = delete;
    ~StreamOrder()
    {
        std::swap(stdout, old_out_);
        std::swap(stderr, old_err_);
        std::fclose(old_out_);
        std::fclose(old_err_);
    }

    const std::string &text() const { return text_; }

private:
    struct Sink {
        std::string *text;
        const char *tag;
    };
    static ssize_t write(void *cookie, const char *bytes, size_t length)
    {
        const Sink &sink = *static_cast<Sink *>(cookie);
        sink.text->append(sink.tag).append(bytes, length);
        return static_cast<ssize_t>(length);
    }

    std::string text_;
    Sink out_ = {&text_, "[out]"};
    Sink err_ = {&text_, "[err]"};
    FILE *old_out_ = stdout;
    FILE *old_err_ = stderr;
};

#endif
