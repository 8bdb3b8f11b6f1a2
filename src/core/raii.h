// Small owning handles for C resources.  Header-only; no C++ runtime needed.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <jansson.h>

#include <utility>

namespace trel {

// Owns a value of type T and releases it with Close unless it equals Invalid.
template <typename T, auto Close, T Invalid>
class Handle {
public:
    Handle() noexcept = default;
    explicit Handle(T v) noexcept : v_(v) {}
    Handle(Handle &&o) noexcept : v_(std::exchange(o.v_, Invalid)) {}
    Handle &operator=(Handle &&o) noexcept {
        if (this != &o) reset(std::exchange(o.v_, Invalid));
        return *this;
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle() { reset(); }

    T get() const noexcept { return v_; }
    T release() noexcept { return std::exchange(v_, Invalid); }
    void reset(T v = Invalid) noexcept {
        T old = std::exchange(v_, v);
        if (old != Invalid) Close(old);
    }
    explicit operator bool() const noexcept { return v_ != Invalid; }

private:
    T v_ = Invalid;
};

namespace detail {
inline void close_fd(int fd) noexcept { ::close(fd); }
inline void close_file(FILE *f) noexcept { ::fclose(f); }
inline void close_dir(DIR *d) noexcept { ::closedir(d); }
inline void decref_json(json_t *j) noexcept { json_decref(j); }
}  // namespace detail

using UniqueFd = Handle<int, detail::close_fd, -1>;
using UniqueFile = Handle<FILE *, detail::close_file, nullptr>;
using UniqueDir = Handle<DIR *, detail::close_dir, nullptr>;
// Holds one reference to a JSON value.
using JsonRef = Handle<json_t *, detail::decref_json, nullptr>;

// Owns malloc'ed memory of type T*.
template <typename T>
class MallocPtr {
public:
    MallocPtr() noexcept = default;
    explicit MallocPtr(T *p) noexcept : p_(p) {}
    MallocPtr(MallocPtr &&o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    MallocPtr &operator=(MallocPtr &&o) noexcept {
        if (this != &o) reset(std::exchange(o.p_, nullptr));
        return *this;
    }
    MallocPtr(const MallocPtr &) = delete;
    MallocPtr &operator=(const MallocPtr &) = delete;
    ~MallocPtr() { ::free(p_); }

    T *get() const noexcept { return p_; }
    T *release() noexcept { return std::exchange(p_, nullptr); }
    void reset(T *p = nullptr) noexcept { ::free(std::exchange(p_, p)); }
    T &operator*() const noexcept { return *p_; }
    T *operator->() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }

private:
    T *p_ = nullptr;
};

}  // namespace trel
