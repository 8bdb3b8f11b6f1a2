#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

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

TEST(Buffer, CreationLimits) {
    EXPECT_EQ(buffer_create2(4194305), nullptr);
    BufferPtr big(buffer_create2(4194304));
    ASSERT_TRUE(big);
    EXPECT_EQ(big->capacity(big.get()), 4194304u);
    BufferPtr b(buffer_create());
    ASSERT_TRUE(b);
    EXPECT_EQ(b->capacity(b.get()), 4096u);
    EXPECT_EQ(b->length(b.get()), 0u);
    buffer_destroy(nullptr);
}

TEST(Buffer, GrowthAndReuse) {
    BufferPtr b(buffer_create());
    buffer *p = b.get();
    std::string five_k(5000, 'x');
    EXPECT_EQ(p->append(p, five_k.data(), five_k.size()), 5000u);
    EXPECT_EQ(p->capacity(p), 12288u);  // 4096 + 5000 rounded up to 8192
    EXPECT_EQ(p->append(p, nullptr, 3), 0u);
    EXPECT_EQ(p->append(p, "a", 0), 0u);

    // Exactly filling the storage does not grow it.
    BufferPtr c(buffer_create2(10));
    std::string ten(10, 'y');
    c->append(c.get(), ten.data(), 10);
    EXPECT_EQ(c->capacity(c.get()), 10u);
    c->append(c.get(), "z", 1);
    EXPECT_EQ(c->capacity(c.get()), 10u + 4096u);

    // A buffer read empty is reused from its start.
    BufferPtr r(buffer_create());
    buffer *q = r.get();
    void *start = q->data(q);
    q->append(q, "abc", 3);
    char out[8];
    EXPECT_EQ(q->read(q, out, 3), 3u);
    EXPECT_NE(q->data(q), start);
    q->append(q, "de", 2);
    EXPECT_EQ(q->data(q), start);
    q->rewind(q);  // everything written since the reuse: only "de"
    EXPECT_EQ(unread(q), "de");

    // Partly read: data stays where it is and the write end moves on.
    q->read(q, nullptr, 1);
    EXPECT_EQ(unread(q), "e");
    q->append(q, "fg", 2);
    EXPECT_EQ(unread(q), "efg");
    EXPECT_EQ(q->read(q, out, 100), 3u);
    EXPECT_EQ(q->read(q, out, 1), 0u);
    EXPECT_EQ(q->read(q, out, 0), 0u);
}

TEST(Buffer, PrintfLeavesTerminatorPastTheEnd) {
    BufferPtr b(buffer_create());
    buffer *p = b.get();
    EXPECT_EQ(p->printf(p, "%d", 42), 2);
    EXPECT_EQ(p->length(p), 2u);
    EXPECT_EQ(static_cast<char *>(p->data(p))[2], '\0');
    EXPECT_EQ(p->printf(p, "-%s", "x"), 2);
    EXPECT_EQ(unread(p), "42-x");
    std::string big(9000, 'p');
    EXPECT_EQ(p->printf(p, "%s", big.c_str()), 9000);
    EXPECT_EQ(unread(p), "42-x" + big);
}

TEST(Buffer, ResetPopCloneAndAllocZero) {
    BufferPtr b(buffer_create());
    buffer *p = b.get();
    std::string five_k(5000, 'x');
    p->append(p, five_k.data(), five_k.size());
    EXPECT_EQ(p->capacity(p), 12288u);
    p->reset(p);
    EXPECT_EQ(p->capacity(p), 4096u);
    EXPECT_EQ(p->length(p), 0u);
    const char *data = static_cast<const char *>(p->data(p));
    for (int i = 0; i < 4096; i++) ASSERT_EQ(data[i], 0);

    p->append(p, "abcd", 4);
    buffer_pop(p, 10);
    EXPECT_EQ(p->length(p), 0u);
    p->append(p, "abcdef", 6);
    buffer_pop(p, 2);
    EXPECT_EQ(unread(p), "abcd");
    p->read(p, nullptr, 1);
    buffer_pop(p, 2);  // len 3 -> 1, end 4 -> 2
    EXPECT_EQ(unread(p), "b");
    p->rewind(p);
    EXPECT_EQ(unread(p), "ab");

    // The clone copies from the start of storage, not from the read position.
    buffer *q = buffer_create();
    q->append(q, "hello", 5);
    q->read(q, nullptr, 2);
    BufferPtr copy(q->clone(q));
    ASSERT_TRUE(copy);
    EXPECT_EQ(unread(copy.get()), "hel");
    EXPECT_EQ(copy->capacity(copy.get()), q->capacity(q));
    q->read(q, nullptr, 3);
    BufferPtr empty(q->clone(q));
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->length(empty.get()), 0u);
    EXPECT_EQ(empty->capacity(empty.get()), 4096u);
    buffer_destroy(q);

    BufferPtr z(buffer_create());
    z->append(z.get(), "ab", 2);
    auto *zeros = static_cast<unsigned char *>(z->alloc_zero(z.get(), 6000));
    ASSERT_NE(zeros, nullptr);
    for (int i = 0; i < 6000; i++) ASSERT_EQ(zeros[i], 0);
    EXPECT_EQ(z->length(z.get()), 6002u);
}

TEST(Buffer, SendConsumesWhatWasSent) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    BufferPtr b(buffer_create());
    buffer *p = b.get();
    p->append(p, "payload", 7);
    EXPECT_EQ(p->send(p, -1, 0), -1);
    EXPECT_EQ(p->length(p), 7u);
    EXPECT_EQ(p->send(p, sv[0], 0), 7);
    EXPECT_EQ(p->length(p), 0u);
    char got[16] = {};
    EXPECT_EQ(read(sv[1], got, sizeof got), 7);
    EXPECT_STREQ(got, "payload");
    close(sv[0]);
    close(sv[1]);
}

TEST(Buffer, FillWritesNumberedRecords) {
    BufferPtr b(buffer_create());
    buffer_fill(b.get(), 3);
    EXPECT_EQ(b->length(b.get()), 3u * 110u);
    std::string s = unread(b.get());
    EXPECT_EQ(s.substr(0, 10), "0001-0100 ");
    EXPECT_EQ(s.substr(10, 50), "12345678901234567890123456789012345678901234567890");
    EXPECT_EQ(s.substr(60, 40), "123456789012345678901234567890123456789\n");
    EXPECT_EQ(s[100], '\0');
    EXPECT_EQ(s.substr(110, 10), "0101-0200 ");
    EXPECT_EQ(s.substr(220, 10), "0201-0300 ");
}
