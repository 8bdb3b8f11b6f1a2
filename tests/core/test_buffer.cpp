#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "trel_test.h"

namespace {

struct BufferDeleter {
    void operator()(buffer *b) const { buffer_destroy(b); }
};
using BufferPtr = std::unique_ptr<buffer, BufferDeleter>;

std::string unread(buffer *b) {
    return std::string(static_cast<const char *>(b->data(b)), b->length(b));
}

class Buffer : public ::testing::Test {
protected:
    BufferPtr b{buffer_create()};
    buffer *p = b.get();
};

}  // namespace

TEST_F(Buffer, GrowthResetAndBounds) {
    EXPECT_EQ(buffer_create2(4194305), nullptr);
    EXPECT_TRUE(BufferPtr(buffer_create2(4194304)));
    std::string five_k(5000, 'x');
    EXPECT_EQ(p->append(p, five_k.data(), five_k.size()), 5000u);
    EXPECT_EQ(p->capacity(p), 12288u);  // 4096 + 5000 rounded up to 8192
    // reset shrinks back and zero-fills.
    p->reset(p);
    EXPECT_EQ(p->capacity(p), 4096u);
    EXPECT_EQ(std::string(static_cast<const char *>(p->data(p)), 4096), std::string(4096, '\0'));

    // Exactly filling the storage does not grow it.
    BufferPtr c(buffer_create2(10));
    c->append(c.get(), "0123456789", 10);
    EXPECT_EQ(c->capacity(c.get()), 10u);
    c->append(c.get(), "z", 1);
    EXPECT_EQ(c->capacity(c.get()), 10u + 4096u);
}

TEST_F(Buffer, ReadReusePopAndSend) {
    void *start = p->data(p);
    p->append(p, "abc", 3);
    char out[8];
    EXPECT_EQ(p->read(p, out, 3), 3u);
    p->append(p, "de", 2);  // read empty: reused from the start
    EXPECT_EQ(p->data(p), start);
    p->rewind(p);
    EXPECT_EQ(unread(p), "de");
    // Partly read: data stays where it is and the write end moves on.
    p->read(p, nullptr, 1);
    p->append(p, "fg", 2);
    EXPECT_EQ(unread(p), "efg");
    EXPECT_EQ(p->read(p, out, 100), 3u);

    // pop floors len and end at 0 independently.
    p->append(p, "abcd", 4);
    buffer_pop(p, 10);
    EXPECT_EQ(p->length(p), 0u);
    p->append(p, "abcdef", 6);
    p->read(p, nullptr, 1);
    buffer_pop(p, 4);  // len 5 -> 1, end 6 -> 2
    EXPECT_EQ(unread(p), "b");
    p->rewind(p);
    EXPECT_EQ(unread(p), "ab");

    // send consumes what went out.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    EXPECT_EQ(p->send(p, -1, 0), -1);
    EXPECT_EQ(p->send(p, sv[0], 0), 2);
    EXPECT_EQ(p->length(p), 0u);
    EXPECT_EQ(read(sv[1], out, sizeof out), 2);
    EXPECT_EQ(std::string(out, 2), "ab");
    close(sv[0]);
    close(sv[1]);
}

TEST_F(Buffer, PrintfCloneAllocZeroAndFill) {
    EXPECT_EQ(p->printf(p, "%d", 42), 2);
    EXPECT_EQ(p->length(p), 2u);
    EXPECT_EQ(static_cast<char *>(p->data(p))[2], '\0');
    std::string big(9000, 'p');
    EXPECT_EQ(p->printf(p, "-%s", big.c_str()), 9001);
    EXPECT_EQ(unread(p), "42-" + big);

    // The clone copies from the start of storage, not from the read position.
    p->read(p, nullptr, 2);
    BufferPtr copy(p->clone(p));
    ASSERT_TRUE(copy);
    EXPECT_EQ(unread(copy.get()), ("42-" + big).substr(0, 9001));
    EXPECT_EQ(copy->capacity(copy.get()), p->capacity(p));
    p->read(p, nullptr, 9001);
    BufferPtr empty(p->clone(p));
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->length(empty.get()), 0u);
    EXPECT_EQ(empty->capacity(empty.get()), 4096u);

    // Read empty, so the zeroed bytes overwrite the old text from the start.
    void *zeros = p->alloc_zero(p, 6000);
    ASSERT_EQ(zeros, p->data(p));
    EXPECT_EQ(unread(p), std::string(6000, '\0'));

    p->reset(p);
    buffer_fill(p, 2);
    EXPECT_EQ(p->length(p), 220u);  // 110-byte numbered records
    EXPECT_EQ(unread(p).substr(0, 15), "0001-0100 12345");
    EXPECT_EQ(unread(p).substr(110, 10), "0101-0200 ");
}
