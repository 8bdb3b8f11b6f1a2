// Building and walking rtnetlink messages in fixed buffers.  Header-only and
// allocation-free: a request is assembled in place with the kernel's
// NLMSG_ALIGN / RTA_ALIGN arithmetic, and a received datagram is walked with
// bounds checks that refuse any length running past what was received.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#include <type_traits>

namespace trel::nl {

// One request: the netlink header, the family header T, then attributes.
// Capacity bounds the whole message; put() refuses what does not fit.
template <typename T, size_t Capacity = 64>
class Request {
    static_assert(std::is_trivially_copyable_v<T>);
    static_assert(NLMSG_LENGTH(sizeof(T)) <= Capacity && Capacity <= UINT16_MAX);

public:
    Request(uint16_t type, uint16_t flags, const T &body, uint32_t seq = 0,
            uint32_t pid = 0) noexcept {
        memset(buf_, 0, sizeof buf_);
        nlmsghdr h{};
        h.nlmsg_len = NLMSG_LENGTH(sizeof(T));
        h.nlmsg_type = type;
        h.nlmsg_flags = flags;
        h.nlmsg_seq = seq;
        h.nlmsg_pid = pid;
        memcpy(buf_, &h, sizeof h);
        memcpy(buf_ + NLMSG_HDRLEN, &body, sizeof body);
    }

    // Appends one attribute; its length is RTA_LENGTH(len) and the message
    // grows by the aligned size.  False when it does not fit.
    bool put(uint16_t type, const void *data, size_t len) noexcept {
        size_t at = NLMSG_ALIGN(size());
        if (at + RTA_SPACE(len) > Capacity) return false;
        rtattr a{};
        a.rta_len = static_cast<unsigned short>(RTA_LENGTH(len));
        a.rta_type = type;
        memcpy(buf_ + at, &a, sizeof a);
        memcpy(buf_ + at + RTA_LENGTH(0), data, len);
        set_size(static_cast<uint32_t>(at + RTA_SPACE(len)));
        return true;
    }

    const void *data() const noexcept { return buf_; }
    uint32_t size() const noexcept {
        uint32_t n;
        memcpy(&n, buf_, sizeof n);
        return n;
    }

private:
    void set_size(uint32_t n) noexcept { memcpy(buf_, &n, sizeof n); }

    alignas(NLMSG_ALIGNTO) unsigned char buf_[Capacity];
};

// Sends a request to the kernel; true when the whole message went out.
template <typename R>
bool send_to_kernel(int fd, const R &req) noexcept {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t n =
        sendto(fd, req.data(), req.size(), 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel);
    return n == static_cast<ssize_t>(req.size());
}

// One received message: its header (copied) and where it starts.
struct Msg {
    nlmsghdr hdr;
    const unsigned char *start;
};

// The messages of a received byte range, in order.  next() gives false at the
// end; truncated() tells whether the walk stopped at a header that is shorter
// than a netlink header or claims more bytes than are left.
class Messages {
public:
    Messages(const void *data, size_t len) noexcept
        : p_(static_cast<const unsigned char *>(data)), left_(len) {}

    bool next(Msg &out) noexcept {
        if (left_ == 0) return false;
        if (left_ < sizeof out.hdr) return fail();
        memcpy(&out.hdr, p_, sizeof out.hdr);
        if (out.hdr.nlmsg_len < sizeof out.hdr || out.hdr.nlmsg_len > left_) return fail();
        out.start = p_;
        size_t step = NLMSG_ALIGN(out.hdr.nlmsg_len);
        if (step > left_) step = left_;
        p_ += step;
        left_ -= step;
        return true;
    }
    bool truncated() const noexcept { return truncated_; }

private:
    bool fail() noexcept {
        truncated_ = true;
        left_ = 0;
        return false;
    }

    const unsigned char *p_;
    size_t left_;
    bool truncated_ = false;
};

// Copies the family header of a message; false when the message is too short
// to hold one.
template <typename T>
bool body(const Msg &msg, T &out) noexcept {
    if (msg.hdr.nlmsg_len < NLMSG_LENGTH(sizeof(T))) return false;
    memcpy(&out, msg.start + NLMSG_HDRLEN, sizeof out);
    return true;
}

// One attribute: its type and payload.
struct Attr {
    uint16_t type;
    const unsigned char *data;
    size_t len;
};

// The attributes that follow the family header T of a message.  An attribute
// whose length is below its own header or runs past the message ends the walk.
template <typename T>
class Attrs {
public:
    explicit Attrs(const Msg &msg) noexcept {
        size_t start = NLMSG_LENGTH(NLMSG_ALIGN(sizeof(T)));
        if (msg.hdr.nlmsg_len > start) {
            p_ = msg.start + start;
            left_ = msg.hdr.nlmsg_len - start;
        }
    }

    bool next(Attr &out) noexcept {
        rtattr a;
        if (left_ < sizeof a) return false;
        memcpy(&a, p_, sizeof a);
        if (a.rta_len < sizeof a || a.rta_len > left_) {
            left_ = 0;
            return false;
        }
        out = {a.rta_type, p_ + RTA_LENGTH(0), a.rta_len - RTA_LENGTH(0)};
        size_t step = RTA_ALIGN(a.rta_len);
        if (step > left_) step = left_;
        p_ += step;
        left_ -= step;
        return true;
    }

private:
    const unsigned char *p_ = nullptr;
    size_t left_ = 0;
};

// Copies the first sizeof v bytes of an attribute's payload into v; false
// when the payload is shorter.
template <typename V>
bool read_attr(const Attr &a, V &v) noexcept {
    if (a.len < sizeof v) return false;
    memcpy(&v, a.data, sizeof v);
    return true;
}

}  // namespace trel::nl
