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

}  // namespace

TEST(Buffer, GrowthBoundsReadAndPop) {
    EXPECT_EQ(buffer_create2(4194305), nullptr);
    EXPECT_TRUE(BufferPtr(buffer_create2(4194304)));
    // Exactly filling the storage does not grow it; one more byte adds a 4096 step.
    BufferPtr b(buffer_create2(10));
    buffer *p = b.get();
    p->append(p, "0123456789", 10);
    EXPECT_EQ(p->capacity(p), 10u);
    p->append(p, "z", 1);
    EXPECT_EQ(p->capacity(p), 10u + 4096u);
    std::string five_k(5000, 'x');
    EXPECT_EQ(p->append(p, five_k.data(), five_k.size()), 5000u);
    EXPECT_EQ(p->capacity(p), 10u + 4096u + 8192u);  // rounded up to whole steps
    // reset shrinks back to the first capacity and zero-fills.
    p->reset(p);
    EXPECT_EQ(p->capacity(p), 10u);
    EXPECT_EQ(std::string(static_cast<const char *>(p->data(p)), 10), std::string(10, '\0'));

    void *start = p->data(p);
    char out[8];
    p->append(p, "abc", 3);
    EXPECT_EQ(p->read(p, out, 3), 3u);
    p->append(p, "de", 2);  // read empty: reused from the start
    EXPECT_EQ(p->data(p), start);
    // Partly read: data stays where it is and the write end moves on.
    p->read(p, nullptr, 1);
    p->append(p, "fg", 2);
    EXPECT_EQ(unread(p), "efg");
    EXPECT_EQ(p->read(p, out, 100), 3u);
    p->rewind(p);
    EXPECT_EQ(unread(p), "defg");

    // pop floors len and end at 0 independently.
    buffer_pop(p, 10);
    p->rewind(p);
    EXPECT_EQ(unread(p), "");
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

TEST(Buffer, PrintfCloneAllocZeroAndFill) {
    BufferPtr b(buffer_create());
    buffer *p = b.get();
    EXPECT_EQ(p->printf(p, "%d", 42), 2);
    EXPECT_EQ(static_cast<char *>(p->data(p))[2], '\0');
    std::string big(9000, 'p');
    EXPECT_EQ(p->printf(p, "-%s", big.c_str()), 9001);
    EXPECT_EQ(unread(p), "42-" + big);

    // The clone copies from the start of storage, not from the read position.
    p->read(p, nullptr, 2);
    BufferPtr copy(p->clone(p));
    ASSERT_TRUE(copy);
    EXPECT_EQ(unread(copy.get()), "42-" + big.substr(0, 8998));
    EXPECT_EQ(copy->capacity(copy.get()), p->capacity(p));
    p->read(p, nullptr, 9001);
    BufferPtr empty(p->clone(p));
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
